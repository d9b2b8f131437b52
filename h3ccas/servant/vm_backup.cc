#include "h3ccas/servant/vm_backup.h"

#include "h3ccas/servant/scope_exit.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "host/job/subtype.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace h3ccas {

namespace {

bool starts_with(const std::string& text, const char* prefix) {
  return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

// The newest snapshot: the last child on every level.
const Snapshot_Info* last_snapshot(const Snapshot_Info& root) {
  const Snapshot_Info* node = &root;
  while (!node->children.empty())
    node = &node->children.back();
  return node->name.empty() ? nullptr : node;
}

// Delays in seconds before each look at a stopping VM: 1, 3, 9, ... about ten minutes in all.
const unsigned stop_delays[] = {1, 3, 9, 27, 81, 243, 243};

}  // namespace

VM_Backup::VM_Backup(VM_Backup_Params params, std::unique_ptr<RESTful_Client> client)
    : Backup_Transfer(std::move(params), std::move(client)) {
  char text[32];
  std::tm tm{};
  localtime_r(&start_time_, &tm);
  std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &tm);
  timestamp_ = text;
}

bool VM_Backup::is_canceled() const {
  const Job_Activity* act = job_act_.get();
  return act && act->is_cancelled();
}

void VM_Backup::pause(unsigned seconds) {
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
}

std::string VM_Backup::snapshot_name() const {
  return string_sprintf("%s_%s_%s", snapshot_label, job_def_subtype_to_string(backup_type_),
                        timestamp_.c_str());
}

bool VM_Backup::backup(JSON_Value& result) {
  bool ok = init() && check_vm_capabilities() &&
            (offline_backup_ ? offline_backup_i() : online_backup_i());
  bool done = ok || skip_backup_;
  if (progress_) {
    progress_->state = done ? VM_Progress_Info::completed : VM_Progress_Info::failed;
    progress_->end_time = std::time(nullptr);
  }
  result = {{"code", done ? 0 : 1},
            {"storage_size", skip_backup_ ? 0 : std::uint64_t(storage_size_)},
            {"set_size", skip_backup_ ? 0 : set_size_},
            {"source_size", skip_backup_ ? 0 : source_size_},
            {"vm_id", params_.vm_id_},
            {"backup_type", job_def_subtype_to_string(backup_type_)}};
  return done;
}

bool VM_Backup::init() {
  const std::string& job = params_.def_id_;
  if (!open_job_activity(job_act_, job, false)) {
    LOG_MSG((LM_ERROR, "Failed to open activity object of job %s.\n", job.c_str()));
    return false;
  }
  if (!job_act_.get())
    return check_failed(__FILE__, __LINE__, "job_act_ is NULL");
  job_uuid_ = job;
  run_uuid_ = Job_Activity::text(job_act_->run_id);
  if (!progress_handle_.open(job.c_str(), params_.vm_id_.c_str(), false, true, 0750)) {
    LOG_MSG((LM_ERROR, "Failed to open progress object of job %s for CAS VM '%s'.\n", job.c_str(),
             params_.vm_name_.c_str()));
    return false;
  }
  if (!(progress_ = progress_handle_.get()))
    return check_failed(__FILE__, __LINE__, "progress_ is NULL");
  progress_->reset();
  progress_->state = VM_Progress_Info::running;
  progress_->start_time = std::time(nullptr);

  if (!delete_residual_snapshot())
    return false;
  if (!client_->get_vm_detail(params_.vm_id_, vm_detail_)) {
    LOG_MSG((LM_ERROR, "Failed to get details of CAS VM '%s' (id=%s).\n", params_.vm_name_.c_str(),
             params_.vm_id_.c_str()));
    return false;
  }
  return true;
}

bool VM_Backup::delete_residual_snapshot() {
  std::optional<Snapshot_Info> tree = client_->get_snapshot_info(params_.vm_id_);
  return !tree || delete_residual_snapshot_i(*tree);
}

bool VM_Backup::delete_residual_snapshot_i(const Snapshot_Info& node) {
  if (starts_with(node.name, snapshot_label)) {
    if (!client_->delete_snapshot(params_.vm_id_, params_.vm_name_, node.name)) {
      LOG_MSG((LM_ERROR, "Failed to delete snapshot '%s'.\n", node.name.c_str()));
      return false;
    }
    LOG_MSG((LM_DEBUG, "Snapshot '%s' deleted.\n", node.name.c_str()));
    residual_snapshots_.push_back(node.name);
  }
  for (const Snapshot_Info& child : node.children)
    if (!delete_residual_snapshot_i(child))
      return false;
  return true;
}

void VM_Backup::delete_residual_CBTers() {
  for (const std::string& name : residual_snapshots_) {
    std::map<std::string, bool> images;
    // Failures are logged by the client; a CBTer left over costs CAS, not this backup.
    if (name != last_cbt_ && client_->get_CBTer(params_.vm_name_, name, images) && !images.empty())
      client_->delete_CBTer(params_.vm_name_, name);
  }
}

bool VM_Backup::check_vm_capabilities() {
  const char* vm = params_.vm_name_.c_str();
  VM_Capabilities vc;
  if (!client_->get_vm_capabilities(params_.vm_id_, vc)) {
    LOG_MSG((LM_ERROR, "Failed to get capabilities of CAS VM '%s' (id=%s).\n", vm,
             params_.vm_id_.c_str()));
    return false;
  }
  std::optional<Snapshot_Info> tree = client_->get_snapshot_info(params_.vm_id_);
  const Snapshot_Info* last = tree ? last_snapshot(*tree) : nullptr;
  const char* last_kind = !last ? "none" : last->is_internal ? "internal" : "external";

  int raw_disks = 0, rbd_disks = 0;
  for (const JSON_Value& device : vm_detail_.storages_) {
    if (!device.is_object() || device.value("device", "") != "disk" ||
        device.value("format", "") != "raw")
      continue;
    ++raw_disks;
    rbd_disks += device.value("fileType", "") == "network";
  }
  const auto yes = [](bool b) { return b ? "true" : "false"; };
  LOG_MSG((LM_DEBUG,
           "CAS VM '%s' info: status = %s, support snapshot = %s, support CBT = %s, support "
           "external snapshot CBT = %s, last snapshot = %s, raw disks count = %d, RBD disks count "
           "= %d\n",
           vm, vm_detail_.status_.c_str(), yes(vc.support_snapshot), yes(vc.support_cbt),
           yes(vc.support_external_cbt), last_kind, raw_disks, rbd_disks));

  if (vm_detail_.status_ == "paused") {
    LOG_MSG((LM_ERROR, "The VM is paused. It is unsupported to back up a paused VM.\n"));
    return false;
  }
  bool any_snapshot = vc.support_snapshot || vc.support_external_snapshot;
  if (raw_disks == 0 && !any_snapshot && last) {
    LOG_MSG((LM_ERROR,
             "The VM do NOT support snapshot. Maybe the number of snapshots has reached "
             "the limit.\n"));
    return false;
  }
  if (raw_disks > rbd_disks || !any_snapshot) {
    // A local raw disk has no snapshot of its own: copy it with the VM shut off.
    offline_backup_ = true, use_internal_snapshot_ = use_cbt_ = false;
    if (!prepare_offline_backup())
      return false;
  } else {
    bool external_cbt = vc.support_external_snapshot && vc.support_external_cbt;
    use_internal_snapshot_ = vc.support_snapshot && (!last || last->is_internal) && !external_cbt;
    use_cbt_ = (vc.support_snapshot && vc.support_cbt) || external_cbt;
  }
  if (!use_cbt_ && !is_full_backup()) {
    switch (params_.opts_.no_cbt_) {
      case No_CBT_Opts::Skip_With_Alert:
        skip_backup_ = true;
        LOG_MSG((LM_WARNING,
                 "CAS VM '%s' does NOT support CBT, incremetnal backup skip for it with alert.\n",
                 vm));
        return false;
      case No_CBT_Opts::Skip:
        skip_backup_ = true;
        LOG_MSG(
            (LM_DEBUG, "CAS VM '%s' does NOT support CBT, incremetnal backup skip for it.\n", vm));
        return false;
      case No_CBT_Opts::Full_Backup:
        backup_type_ = Job_Definition_Subtype::Full;
        LOG_MSG((LM_DEBUG, "CAS VM '%s' does NOT support CBT, perform full backup instead.\n", vm));
        break;
      default:
        LOG_MSG((LM_ERROR, "The disk format of CAS VM '%s' does NOT incremental backup with CBT.\n",
                 vm));
        return false;
    }
  }
  return CHECK_TRUE(vc.support_snapshot || vc.support_external_snapshot || offline_backup_) &&
         CHECK_TRUE(use_cbt_ || is_full_backup());
}

bool VM_Backup::prepare_offline_backup() {
  if (vm_detail_.status_ != "shutOff" && !params_.opts_.restart_vm_) {
    LOG_MSG((LM_ERROR, "The disk format of CAS VM '%s' does NOT support online backup.\n",
             params_.vm_name_.c_str()));
    return false;
  }
  return true;
}

bool VM_Backup::wait_for_vm_stop() {
  VM_Detail detail;
  for (unsigned delay : stop_delays) {
    pause(delay);
    if (!client_->get_vm_detail(params_.vm_id_, detail)) {
      LOG_MSG((LM_ERROR, "Failed to get details of CAS VM '%s' (id=%s).\n",
               params_.vm_name_.c_str(), params_.vm_id_.c_str()));
      return false;
    }
    if (detail.status_ == "shutOff")
      return true;
  }
  LOG_MSG((LM_ERROR, "Failed to stop CAS VM '%s' (id=%s), status = %s.\n", params_.vm_name_.c_str(),
           params_.vm_id_.c_str(), detail.status_.c_str()));
  return false;
}

bool VM_Backup::offline_backup_i() {
  const std::string& status = vm_detail_.status_;
  if (!CHECK_TRUE((status == "shutOff" || params_.opts_.restart_vm_) && offline_backup_ &&
                  is_full_backup()))
    return false;
  const char* vm = params_.vm_name_.c_str();
  const char* id = params_.vm_id_.c_str();
  bool was_running = status == "running";
  Scope_Exit restart([&] {
    if (was_running && !client_->start_vm(params_.vm_id_, params_.vm_name_))
      LOG_MSG((LM_ERROR, "Failed to power on CAS VM '%s' (id=%s) after offline backup.\n", vm, id));
  });
  if (status != "shutOff" &&
      !(client_->stop_vm(params_.vm_id_, params_.vm_name_) && wait_for_vm_stop())) {
    LOG_MSG((LM_ERROR, "Failed to stop CAS VM '%s' (id=%s) to perform offline backup.\n", vm, id));
    return false;
  }
  if (backup_disks() && save_catalog())
    return true;
  remove_stored();
  return false;
}

bool VM_Backup::online_backup_i() {
  if (!check_vm_storage_quota())
    return false;
  if (!is_full_backup() && !check_base_backup()) {
    backup_type_ = Job_Definition_Subtype::Full;
    LOG_MSG(
        (LM_WARNING,
         "Failed to check preconditions for incremental backup, perform full backup instead.\n"));
  }
  // The CBTer of the newest set is of no use once a full set follows it: it goes with success.
  if (is_full_backup() && last_cbt_.empty())
    find_last_cbt();
  delete_residual_CBTers();
  const std::string& vm = params_.vm_name_;
  snapshot_name_ = snapshot_name();
  if (params_.opts_.enable_cbt_ && use_cbt_ && !client_->create_CBTer(vm, snapshot_name_)) {
    use_cbt_ = false;
    backup_type_ = Job_Definition_Subtype::Full;
    snapshot_name_ = snapshot_name();
    LOG_MSG(
        (LM_WARNING, "Failed to create CBTer for CAS VM '%s', perform full backup.\n", vm.c_str()));
  }
  bool ok = false, snapshot_made = false;
  Scope_Exit cleanup([&] {
    if (!ok)
      remove_stored();
    // A failed creation may still have left the snapshot; only what exists is deleted, so that
    // the failure is the one line said.
    if (snapshot_made)
      client_->delete_snapshot(params_.vm_id_, vm, snapshot_name_);
    else
      delete_residual_snapshot();
    if (ok && !last_cbt_.empty())
      client_->delete_CBTer(vm, last_cbt_);
    else if (!ok && use_cbt_ && params_.opts_.enable_cbt_)
      client_->delete_CBTer(vm, snapshot_name_);
  });
  if (!client_->create_snapshot(params_.vm_id_, vm, snapshot_name_, false, false,
                                use_internal_snapshot_, 1)) {
    LOG_MSG((LM_ERROR, "Failed to create snapshot for CAS VM '%s'.\n", vm.c_str()));
    return false;
  }
  snapshot_made = true;
  return ok = backup_disks() && save_catalog();
}

}  // namespace h3ccas
