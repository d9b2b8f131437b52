#include "h3ccas/job/backup_executor.h"

#include "h3ccas/servant/utils.h"
#include "host/core/identity.h"
#include "host/core/log.h"
#include "host/storage/client_io.h"
#include "host/storage/codec.h"

#include <fnmatch.h>

namespace h3ccas {

namespace {

bool matches_any(const std::vector<std::string>& patterns, const std::string& text) {
  for (const auto& p : patterns)
    if (fnmatch(p.c_str(), text.c_str(), 0) == 0)
      return true;
  return false;
}

}  // namespace

bool Backup_Executor::init() {
  CVM_Info cvm;
  if (!cvm.load_from_server(def_->host_id)) {
    LOG_MSG((LM_ERROR, "Failed to get CVM info, uuid = %s.\n", def_->host_id.c_str()));
    return false;
  }
  client_ = std::make_unique<RESTful_Client>(cvm);
  if (!client_->get_cvm_version(cvm_version_))
    LOG_MSG((LM_WARNING, "Failed to get version of CVM '%s'.\n", cvm.host().c_str()));
  return true;
}

bool Backup_Executor::resolve_entries() {
  LOG_MSG((LM_INFO, "Resolving CAS backup entries.\n"));
  const JSON_Value& source = src_->value();
  try {
    JSON_Value exclusion = JSON_Value::array();
    json_extract_array(source, "exclusion", exclusion, false);
    for (const auto& p : exclusion) {
      if (!p.is_string())
        json_throw_type("exclusion", "array of strings");
      excluded_.push_back(p.get<std::string>());
    }
    LOG_MSG((LM_INFO, "VM exclusion list: %s\n", exclusion.dump().c_str()));
    if (!client_->list_host(hosts_)) {
      LOG_MSG((LM_ERROR, "Failed to list CAS CVK hosts.\n"));
      return false;
    }
    JSON_Value entries;
    json_extract_array(source, "entries", entries);
    for (const auto& entry : entries) {
      std::string type;
      json_extract(json_object(entry), "type", type);
      if (type == "cas") {
        for (const auto& [id, host] : hosts_)
          if (!add_host_entry(id, host.name_))
            return false;
      } else if (type == "HostSystem") {
        std::string id, name;
        json_extract(entry, "id", id);
        json_extract(entry, "name", name);
        if (!add_host_entry(id, name))
          return false;
      } else if (type == "VirtualMachine") {
        std::string host_id, name, title, uuid, id;
        json_extract(entry, "host_id", host_id);
        json_extract(entry, "name", name);
        json_extract(entry, "title", title);
        json_extract(entry, "uuid", uuid);
        json_extract(entry, "id", id, false);
        if (!add_vm_entry(host_id, name, title, uuid, id))
          return false;
      } else {
        LOG_MSG((LM_ERROR,
                 "Invalid type '%s' at source.entries in CAS job(uuid=%s, name=%s) definition.\n",
                 type.c_str(), def_->uid.c_str(), def_->name.c_str()));
        return false;
      }
    }
  } catch (const JSON_Error& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS job(uuid=%s, name=%s) definition at source.entries: %s.\n",
             def_->uid.c_str(), def_->name.c_str(), e.what()));
    return false;
  }
  for (const auto& [host_id, vms] : vm_entries_) {
    if (vms.empty())
      return check_failed(__FILE__, __LINE__, "vms is empty");
    const int n = static_cast<int>(vms.size());
    LOG_MSG((LM_INFO, "%d VM%s to be backed up on CVK '%s'.\n", n, n > 1 ? "s are" : " is",
             hosts_[host_id].name_.c_str()));
    total_vm_ += n;
  }
  if (total_vm_ == 0) {
    LOG_MSG((LM_ERROR, "All VMs are excluded from backup.\n"));
    return false;
  }
  return true;
}

bool Backup_Executor::add_host_entry(const std::string& id, const std::string& name) {
  auto listed = vms_of_host_.find(id);
  if (listed == vms_of_host_.end()) {
    std::vector<VM_Info> vms;
    if (!client_->list_vm(id, vms)) {
      LOG_MSG((LM_ERROR, "Failed to get VMs of CVK '%s'.\n", name.c_str()));
      return false;
    }
    listed = vms_of_host_.emplace(id, std::move(vms)).first;
  }
  if (listed->second.empty()) {
    LOG_MSG((LM_INFO, "Unable to back up CVK '%s': no VM found.\n", name.c_str()));
    return true;
  }
  for (const auto& vm : listed->second)
    if (!add_vm_entry(id, vm.name_, vm.display_name_, vm.uuid_, vm.id_))
      return false;
  return true;
}

bool Backup_Executor::add_vm_entry(const std::string& host_id, const std::string& name,
                                   const std::string& title, const std::string& uuid,
                                   std::string vm_id) {
  if (matches_any(excluded_, name) || (title != name && matches_any(excluded_, title))) {
    LOG_MSG((LM_INFO, "VM (name='%s', title='%s') is excluded from backup.\n", name.c_str(),
             title.c_str()));
    return true;
  }
  auto host = hosts_.find(host_id);
  if (host == hosts_.end()) {
    LOG_MSG((LM_ERROR, "CVK(id=%s) not found on CAS.\n", host_id.c_str()));
    return false;
  }
  if (vm_id.empty()) {
    // A VM named by the user carries no CAS id: the CVK's inventory gives it.
    auto listed = vms_of_host_.find(host_id);
    if (listed == vms_of_host_.end()) {
      std::vector<VM_Info> vms;
      if (!client_->list_vm(host_id, vms)) {
        LOG_MSG((LM_ERROR, "Failed to get VMs of CVK '%s'.\n", host->second.name_.c_str()));
        return false;
      }
      listed = vms_of_host_.emplace(host_id, std::move(vms)).first;
    }
    for (const auto& vm : listed->second)
      if (vm.uuid_ == uuid)
        vm_id = vm.id_;
    if (vm_id.empty()) {
      LOG_MSG((LM_ERROR, "VM (name='%s', uuid='%s') not found on CVK '%s'.\n", name.c_str(),
               uuid.c_str(), host->second.name_.c_str()));
      return false;
    }
  }
  std::shared_ptr<VM_Backup_Params>& params = vm_entries_[host_id][vm_id];
  if (params)
    return true;  // named twice, or by its host and by itself: backed up once
  params = std::make_shared<VM_Backup_Params>();
  params->vm_id_ = vm_id;
  params->vm_name_ = name;
  params->vm_title_ = title;
  params->vm_uuid_ = uuid;
  params->host_id_ = host_id;
  params->host_name_ = host->second.name_;
  params->host_ip_ = host->second.ip_;
  return true;
}

bool Backup_Executor::resolve_options() {
  LOG_MSG((LM_INFO, "Resolving CAS backup options.\n"));
  const JSON_Value& o = opts_->value();
  std::string compression;
  std::optional<int> compression_level;
  try {
    json_extract(o, "restart_vm", vm_opts_.restart_vm_);
    json_extract(o, "parallel_vms", parallel_vms_, false);
    json_extract(o, "parallel_vms_per_host", parallel_vms_per_host_, false);
    json_extract(o, "parallel_disks_per_vm", vm_opts_.parallel_disks_per_vm_, false);
    json_extract(o, "parallel_workers_per_disk", vm_opts_.parallel_workers_per_disk_, false);
    json_extract(o, "storage_reserved_bytes", vm_opts_.storage_reserved_bytes_, false);
    json_extract(o, "storage_reserved_percent", vm_opts_.storage_reserved_percent_, false);
    json_extract(o, "read_buffer_size", vm_opts_.read_buffer_size_);
    json_extract(o, "cvd_sdk_log_level", cvd_sdk_log_level_);
    json_extract(o, "cvd_sdk_network_timeout", cvd_sdk_network_timeout_);
    std::string network;
    if (json_extract(o, "cvk_preferred_network", network, false))
      cvk_preferred_network_ = network;
    json_extract(o, "compression", compression);
    int level = 0;
    if (json_extract(o, "compression_level", level, false))
      compression_level = level;
    // An unknown compression name never fails a backup: it falls back to the first method.
    int method = compression_name_to_value(compression);
    if (method == 0)
      method = 1;
    const bool checked =
        check_range(parallel_vms_, "parallel_vms", 1, 64) &&
        check_range(vm_opts_.parallel_disks_per_vm_, "parallel_disks_per_vm", 1, 5) &&
        check_range(vm_opts_.parallel_workers_per_disk_, "parallel_workers_per_disk", 1, 5) &&
        check_range(def_->retry_count, "backup_retry_count", 0, 10) &&
        check_range(def_->retry_interval, "backup_retry_interval", 0, 7200) &&
        check_buffer_size(vm_opts_.read_buffer_size_, "read_buffer_size") &&
        check_cvd_sdk_log_level(cvd_sdk_log_level_) &&
        check_opt(std::to_string(cvd_sdk_network_timeout_), "cvd_sdk_network_timeout",
                  cvd_sdk_network_timeout_ > 0) &&
        (!compression_level || check_compression_level(method, *compression_level));
    if (!checked)
      return false;
    io_opts_.compression_ = static_cast<Client_IO_Base::Compression>(method);
    if (def_->subtype == Job_Definition_Subtype::Incremental) {
      vm_opts_.enable_cbt_ = true;
      std::string no_cbt;
      json_extract(o, "no_cbt", no_cbt);
      vm_opts_.no_cbt_ = no_cbt_opts_from_str(no_cbt);
      if (!check_opt(no_cbt, "no_cbt", vm_opts_.no_cbt_ != No_CBT_Opts::None))
        return false;
    } else if (def_->subtype == Job_Definition_Subtype::Full) {
      json_extract(o, "enable_cbt", vm_opts_.enable_cbt_);
    }
  } catch (const JSON_Error& e) {
    LOG_MSG((LM_ERROR, "Invalid options in CAS backup job(uuid=%s, name=%s) definition: %s.\n",
             def_->uid.c_str(), def_->name.c_str(), e.what()));
    return false;
  }
  if (parallel_vms_ > total_vm_)
    parallel_vms_ = total_vm_;
  if (parallel_vms_per_host_ > parallel_vms_)
    parallel_vms_per_host_ = parallel_vms_;
  LOG_MSG((LM_INFO,
           "CAS backup options:\n  parallel_vms=%d\n  parallel_vms_per_host=%d\n"
           "  parallel_disks_per_vm=%d\n  parallel_workers_per_disk=%d\n"
           "  backup_retry_count=%d\n  backup_retry_interval=%d\n  restart_vm=%d\n"
           "  enable_CBT=%d\n  if_CBT_unsupported=%s\n  storage_reserved_percent=%d\n"
           "  storage_reserved_bytes=%Q\n  read_buffer_size=%d\n  cvd_sdk_log_level=%s\n"
           "  cvd_sdk_network_timeout=%d\n  cvk_preferred_network=%s\n",
           parallel_vms_, parallel_vms_per_host_, vm_opts_.parallel_disks_per_vm_,
           vm_opts_.parallel_workers_per_disk_, static_cast<int>(def_->retry_count),
           static_cast<int>(def_->retry_interval), vm_opts_.restart_vm_, vm_opts_.enable_cbt_,
           no_cbt_opts_to_str(vm_opts_.no_cbt_), vm_opts_.storage_reserved_percent_,
           static_cast<unsigned long long>(vm_opts_.storage_reserved_bytes_),
           vm_opts_.read_buffer_size_, cvd_sdk_log_level_.c_str(), cvd_sdk_network_timeout_,
           cvk_preferred_network_ ? cvk_preferred_network_->c_str() : ""));
  if (!get_pool_info(def_->target_id, def_->target_device.c_str(), pool_info_)) {
    LOG_MSG((LM_ERROR, "Failed to get details of storage pool(id=%s, name=%s).\n",
             def_->target_id.c_str(), def_->target_name.c_str()));
    return false;
  }
  // The job's compression wins over the pool's: the pool's options are laid first. A level the
  // pool set for another method may not suit the job's, which then gets its own default level
  // unless the job names one; so does a pool without a level (the host's default level is
  // zstd's, and lz4 takes levels above 2 as its slow high-compression mode).
  const Client_IO_Base::Compression method = io_opts_.compression_;
  io_opts_.compression_level_ = codec_info(method)->default_level;
  if (!set_options_by_pool(io_opts_, pool_info_))
    return false;
  if (io_opts_.compression_ != method)
    io_opts_.compression_level_ = codec_info(method)->default_level;
  io_opts_.compression_ = method;
  if (compression_level)
    io_opts_.compression_level_ = *compression_level;
  return cvk_target_addr_selector_.set_preferred_network(cvk_preferred_network_);
}

bool Backup_Executor::make_vm_request(VM_Backup_Params& params, JSON_Value& request) {
  params.cvm_ = client_->cvm();
  params.io_opts_ = io_opts_;
  params.backup_type_ = def_->subtype;
  params.def_id_ = def_->uid;
  params.pool_url_ = pool_info_.url + "/" + def_->host_id;
  params.resource_uuid_ = def_->host_id;
  params.access_key_ = Host_Manager::instance()->access_key();
  const WebSocket_Options& server = *WebSocket_Options::instance();
  params.backupd_host_ = server.host;
  params.backupd_port_ = server.port;
  params.backupd_ssl_ = server.ssl;
  params.retry_seconds_ = static_cast<int>(def_->max_seconds_retry);
  // Without a preferred network (or a pick on it) the servant reaches the disk service at the
  // CVK's management address; the CVK's switches are only asked for when there is a preference.
  if (!cvk_preferred_network_ ||
      !cvk_target_addr_selector_.select(*client_, params.host_name_, params.host_id_,
                                        params.cvd_target_addr_))
    params.cvd_target_addr_ = params.host_ip_;
  params.opts_ = vm_opts_;
  params.catalog_ = {{"name", def_->name},
                     {"host_uuid", def_->host_id},
                     {"agent", def_->agent},
                     {"instance_version", cvm_version_},
                     {"pool_uuid", def_->target_id}};
  request = params.dump();
  request["action"] = "backup";
  return true;
}

int Backup_Executor::handle_vm_result(const std::string& vm_id,
                                      const std::shared_ptr<JSON_RPC_Object>& response) {
  return fold_servant_result(results_, vm_id, response, "backup", is_canceled(), false);
}

bool Backup_Executor::run_vms(const Job_Args*) {
  std::vector<VM_Task> tasks;
  for (auto& [host_id, vms] : vm_entries_)
    for (auto& [vm_id, params] : vms) {
      VM_Task task{host_id, vm_id, params->vm_name_, {params->host_ip_, params->vm_name_}, {}, {}};
      if (!make_vm_request(*params, task.request))
        return false;
      tasks.push_back(std::move(task));
    }
  Servant_Run run{"backup",
                  "vm_id",
                  parallel_vms_,
                  parallel_vms_per_host_,
                  static_cast<int>(def_->retry_count),
                  static_cast<int>(def_->retry_interval),
                  cvd_sdk_network_timeout_,
                  cvd_sdk_log_level_};
  return run_servants(tasks, run, [this](const std::string& vm_id, const auto& response) {
    return handle_vm_result(vm_id, response);
  });
}

}  // namespace h3ccas
