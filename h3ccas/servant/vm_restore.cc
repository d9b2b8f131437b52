#include "h3ccas/servant/vm_restore.h"

#include "h3ccas/servant/chunk_transfer.h"
#include "h3ccas/servant/cvd_connection.h"
#include "h3ccas/servant/cvd_loader.h"
#include "h3ccas/servant/scope_exit.h"
#include "host/catalog/catalog.h"
#include "host/catalog/pool_info.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/text.h"
#include "host/storage/client_io.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <thread>
#include <utility>

#include <unistd.h>

namespace h3ccas {

namespace {

// Used when the job names no write buffer: a one-byte buffer would hand the disk a byte at a time.
constexpr std::size_t default_buffer_size = 4u << 20;

// Keeps the last error line the calling thread logs while it lives, without the line's prefix
// (time, process, priority, source), so that a verification can report what was said of each
// object it found bad.
class Error_Line {
 public:
  Error_Line()
      : thread_(std::this_thread::get_id()),
        sink_(add_log_sink([this](ACE_Log_Priority priority, const std::string& line) {
          if (priority == LM_ERROR && std::this_thread::get_id() == thread_)
            text_ = line;
        })) {}
  ~Error_Line() { remove_log_sink(sink_); }
  Error_Line(const Error_Line&) = delete;
  Error_Line& operator=(const Error_Line&) = delete;

  // Called once the logging is over (the sink is still registered, but this thread logs no more).
  std::string text() const {
    std::string line = text_;
    std::size_t at = line.find("] ");
    for (int fields = 0; at != std::string::npos && fields < 3; ++fields)
      at = line.find(' ', at + 1);  // past "] ", the priority and the source
    line = at == std::string::npos ? line : line.substr(at + 1);
    while (!line.empty() && line.back() == '\n')
      line.pop_back();
    return line;
  }

 private:
  std::thread::id thread_;
  std::string text_;
  int sink_;
};

// The last component of a path.
std::string base_name(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// A value of a section of the source VM's configuration as CAS takes it: its text, or `def` when
// the section lacks it.
std::string source_text(const JSON_Value& section, const char* key, const char* def) {
  const JSON_Value* v = section.is_object() ? json_find(section, key) : nullptr;
  if (v && v->is_string())
    return v->get<std::string>();
  return v && v->is_number() ? v->dump() : def;
}

std::string mib_text(std::uint64_t bytes) {
  // Rounded up: a volume smaller than the backed-up disk could not take its last bytes.
  return std::to_string((bytes + (1u << 20) - 1) >> 20);
}

}  // namespace

VM_Restore::VM_Restore(VM_Restore_Params params, std::unique_ptr<RESTful_Client> client)
    : params_(std::move(params)),
      client_(client ? std::move(client) : std::make_unique<RESTful_Client>(params_.cvm_)) {
  upstream_.configure(params_.backupd_host_, params_.backupd_port_, params_.backupd_ssl_,
                      params_.access_key_);
}

bool VM_Restore::is_canceled() const {
  const Job_Activity* act = job_act_.get();
  return act && act->is_cancelled();
}

std::size_t VM_Restore::buffer_size() const {
  const int size = params_.opts_.write_buffer_size_;
  return size > 0 ? static_cast<std::size_t>(size) : default_buffer_size;
}

bool VM_Restore::init() {
  const std::string& job = params_.def_id_;
  if (!open_job_activity(job_act_, job, false)) {
    LOG_MSG((LM_ERROR, "Failed to open activity object of job %s.\n", job.c_str()));
    return false;
  }
  if (!job_act_.get())
    return check_failed(__FILE__, __LINE__, "job_act_ is NULL");
  if (!progress_.open(job.c_str(), params_.source_vm_id_.c_str(), false, true, 0750)) {
    LOG_MSG((LM_ERROR, "Failed to open progress object of job %s for CAS VM '%s'.\n", job.c_str(),
             params_.target_vm_name_.c_str()));
    return false;
  }
  if (!progress_.get())
    return check_failed(__FILE__, __LINE__, "progress_ is NULL");
  progress_->reset();
  progress_->state = VM_Progress_Info::running;
  progress_->start_time = std::time(nullptr);
  // Beside the progress record, whose open has vetted both names.
  made_path_ = Path_Conf((std::string(VM_Progress_Info_Conf::dir_pattern) + "/" + job).c_str(),
                         VM_Progress_Info_Conf::component, "")
                   .dir() +
               "/" + params_.source_vm_id_ + ".made";
  return true;
}

bool VM_Restore::record_made_i() const {
  JSON_Value volumes = JSON_Value::array();
  for (const Volume& v : created_volumes_)
    volumes.push_back({{"name", v.name_}, {"pool", v.pool_name_}});
  return write_file_atomic(
      made_path_, JSON_Value({{"vm_id", target_vm_id_}, {"volumes", volumes}}).dump(), 0600);
}

void VM_Restore::remove_left_by_dead_attempt_i() {
  std::string text;
  if (access(made_path_.c_str(), F_OK) != 0 || !read_file(made_path_, text))
    return;
  try {
    const JSON_Value made = JSON_Value::parse(text);
    made.at("vm_id").get_to(target_vm_id_);
    for (const JSON_Value& v : made.at("volumes"))
      created_volumes_.push_back(
          {v.at("name").get<std::string>(), v.at("pool").get<std::string>()});
  } catch (const JSON_Value::exception& e) {
    LOG_MSG((LM_WARNING, "Ignoring unreadable '%s': %s\n", made_path_.c_str(), e.what()));
  }
  LOG_MSG((LM_WARNING,
           "Removing CAS VM '%s' (id=%s) and %d volume(s) left by an earlier attempt.\n",
           params_.target_vm_name_.c_str(), target_vm_id_.c_str(),
           static_cast<int>(created_volumes_.size())));
  remove_residuals_i();
  target_vm_id_.clear();
  created_volumes_.clear();
  unlink(made_path_.c_str());
}

void VM_Restore::finish_i(bool ok) {
  if (VM_Progress_Info* info = progress_.get()) {
    info->state = ok ? VM_Progress_Info::completed : VM_Progress_Info::failed;
    info->end_time = std::time(nullptr);
  }
  // A stop request stays visible to the job's other servants.
  if (Job_Activity* act = job_act_.get()) {
    std::int32_t state = __atomic_load_n(&act->state, __ATOMIC_RELAXED);
    const std::int32_t outcome = ok ? Job_Activity::completed : Job_Activity::failed;
    while (state != Job_Activity::cancelled &&
           !__atomic_compare_exchange_n(&act->state, &state, outcome, false, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED)) {
    }
  }
}

bool VM_Restore::restore(JSON_Value& result) {
  result = {{"code", Task_Base::Failed}};
  // Objects found bad are named in the result: another try would read them the same.
  Scope_Exit named([&] {
    if (JSON_Value bad = bad_objects_json_i(); !bad.empty())
      result["bad_objects"] = std::move(bad);
  });
  if (!init())
    return false;
  bool ok = false;
  Scope_Exit end([&] { finish_i(ok); });
  // A servant of this job that died mid-restore left its VM and volumes: they go first.
  remove_left_by_dead_attempt_i();
  JSON_Value catalogs;
  Disk_Plans disks;
  VM_Detail detail;
  if (!get_catalogs(catalogs) || !check_chain(catalogs) || !prepare_disks(catalogs, disks) ||
      !get_src_vm_detail(catalogs, detail) || !delete_existing_vm() || !create_vm(detail))
    return false;
  Scope_Exit residual([&] {
    if (!ok)
      remove_residuals_i();
    unlink(made_path_.c_str());
  });
  if (!record_made_i() || !create_disks(disks) || !restore_disks(disks))
    return false;
  if (params_.opts_.start_vm_ && !client_->start_vm(target_vm_id_, params_.target_vm_name_))
    LOG_MSG((LM_ERROR, "Failed to start restored CAS VM '%s'.\n", params_.target_vm_name_.c_str()));
  ok = true;
  result = {{"code", Task_Base::Succeeded},
            {"vm_id", target_vm_id_},
            {"storage_size", storage_size_.load()},
            {"set_size", set_size_},
            {"source_size", source_size_}};
  return true;
}

bool VM_Restore::verify(JSON_Value& result) {
  // Every disk of the chosen set, wherever it would go.
  params_.opts_.original_restore_ = true;
  bool ok = false;
  bool ready = init();
  Scope_Exit end([&] {
    if (ready)
      finish_i(ok);
  });
  JSON_Value catalogs;
  Disk_Plans disks;
  ready =
      ready && get_catalogs(catalogs) && check_chain(catalogs) && prepare_disks(catalogs, disks);
  if (ready) {
    VM_Detail detail;
    Error_Line line;
    if (!get_src_vm_detail(catalogs, detail)) {
      std::lock_guard<std::mutex> lock(mutex_);
      bad_objects_.push_back({catalogs.back().value("vm_config_path", ""), line.text()});
    }
  }
  const bool read = ready && run_disks_i(disks, "verify_CAS_disk",
                                         [this](const auto& disk) { return verify_disk_i(disk); });
  JSON_Value bad = bad_objects_json_i();
  ok = read && bad.empty();
  result = {{"code", ok ? Task_Base::Succeeded : Task_Base::Failed},
            {"vm_id", params_.source_vm_id_},
            {"storage_size", storage_size_.load()},
            {"set_size", set_size_},
            {"source_size", source_size_},
            {"bad_objects", std::move(bad)}};
  return ok;
}

JSON_Value VM_Restore::bad_objects_json_i() const {
  JSON_Value bad = JSON_Value::array();
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Bad_Object& b : bad_objects_)
    bad.push_back({{"object", b.object}, {"error", b.error}});
  return bad;
}

void VM_Restore::remove_residuals_i() {
  if (!target_vm_id_.empty() && !client_->delete_vm(target_vm_id_))
    LOG_MSG((LM_ERROR, "Failed to delete residual CAS VM '%s' (id=%s).\n",
             params_.target_vm_name_.c_str(), target_vm_id_.c_str()));
  for (const Volume& volume : created_volumes_)
    if (!client_->delete_storage_volume(params_.target_host_id_, volume.pool_name_, volume.name_))
      LOG_MSG((LM_ERROR, "Failed to delete residual storage volume '%s' on pool '%s'.\n",
               volume.name_.c_str(), volume.pool_name_.c_str()));
}

bool VM_Restore::get_catalogs(JSON_Value& catalogs) {
  RESTful_Catalog_Operator catalog(params_.backupd_host_, params_.backupd_port_,
                                   params_.backupd_ssl_, params_.access_key_, -1,
                                   params_.retry_seconds_);
  const JSON_Value query = {{"resource_uuid", params_.bak_resource_uuid_},
                            {"set_uuid", params_.catalog_uuid_}};
  JSON_Value answer;
  if (!catalog.get_view("h3ccas", "restore", query, answer) || !answer.is_array() ||
      answer.empty()) {
    LOG_MSG((LM_ERROR,
             "Failed to retrieve catalogs for CAS VM '%s' on CVK '%s' to restore to "
             "'%s'(set_uuid=%s).\n",
             params_.source_vm_name_.c_str(), params_.source_host_name_.c_str(),
             params_.timepoint_.c_str(), params_.catalog_uuid_.c_str()));
    return false;
  }
  catalogs = std::move(answer);
  const int count = static_cast<int>(catalogs.size());
  LOG_MSG((LM_INFO, "%d backup set%s required for CAS VM '%s' restored to '%s'.\n", count,
           count > 1 ? "s" : "", params_.target_vm_name_.c_str(), params_.timepoint_.c_str()));
  return true;
}

bool VM_Restore::check_chain(const JSON_Value& catalogs) const {
  const char* vm = params_.source_vm_name_.c_str();
  std::string full, previous;
  try {
    for (const JSON_Value& set : catalogs) {
      std::string uuid, type, base, incarnation;
      json_extract(json_object(set), "uuid", uuid);
      json_extract(set, "backup_type", type);
      json_extract(set, "base", base);
      json_extract(set, "incarnation", incarnation);
      if (full.empty() && (type != "full" || base != uuid || incarnation != uuid)) {
        LOG_MSG((LM_ERROR,
                 "Backup chain of CAS VM '%s' does not start with a full set: set '%s' is %s.\n",
                 vm, uuid.c_str(), type.c_str()));
        return false;
      }
      if (!full.empty() && (type != "incremental" || base != previous || incarnation != full)) {
        LOG_MSG((LM_ERROR,
                 "Backup set '%s' (%s) of CAS VM '%s' does not continue the chain after set "
                 "'%s'.\n",
                 uuid.c_str(), type.c_str(), vm, previous.c_str()));
        return false;
      }
      if (full.empty())
        full = uuid;
      previous = uuid;
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS VM '%s' catalog: %s\n", vm, e.what()));
    return false;
  }
  if (previous != params_.catalog_uuid_) {
    LOG_MSG((LM_ERROR, "Backup chain of CAS VM '%s' ends with set '%s', not with set '%s'.\n", vm,
             previous.c_str(), params_.catalog_uuid_.c_str()));
    return false;
  }
  return true;
}

bool VM_Restore::get_src_vm_detail(const JSON_Value& catalogs, VM_Detail& detail) {
  JSON_Value storages;
  std::string uri, path;
  try {
    const JSON_Value& last = json_object(catalogs.back());
    json_extract_array(last, "storages", storages);
    json_extract(last, "uri", uri);
    json_extract(last, "vm_config_path", path);
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS VM '%s' catalog: %s\n", params_.source_vm_name_.c_str(),
             e.what()));
    return false;
  }
  Storage_Pool* pool = nullptr;
  if (!get_pool(get_pool_uuid(storages), uri, pool))
    return false;
  Client_IO_Ex io;
  if (!io.connect(pool->url, pool->io_opts_)) {
    LOG_MSG((LM_ERROR, "Failed to connect to storage pool '%s': %s\n", pool->url.c_str(),
             io.error().c_str()));
    return false;
  }
  JSON_Value config;
  if (!client_io_read_json(io, path, config)) {
    LOG_MSG((LM_ERROR, "Failed to retrieve VM config from storage pool %s: %s\n", pool->url.c_str(),
             io.error().c_str()));
    return false;
  }
  return detail.load(config);
}

bool VM_Restore::delete_existing_vm() {
  const std::string& id = params_.existing_vm_id_;
  if (id.empty())
    return true;
  if (!params_.opts_.overwrite_vm_)
    return check_failed(__FILE__, __LINE__, "params_.opts_.overwrite_vm_ is false");
  if (!client_->delete_vm(id)) {
    LOG_MSG((LM_ERROR, "Failed to delete CAS VM '%s' (id=%s) on CVK '%s'.\n",
             params_.target_vm_name_.c_str(), id.c_str(), params_.target_host_name_.c_str()));
    return false;
  }
  return true;
}

bool VM_Restore::create_vm(const VM_Detail& detail) {
  const VM_Restore_Params& p = params_;
  JSON_Value body;
  try {
    std::string architecture, system;
    json_extract(json_object(detail.basic_), "architecture", architecture);
    json_extract(detail.basic_, "system", system);
    const JSON_Value &cpu = detail.cpu_, &basic = detail.basic_;
    body = {{"name", p.target_vm_name_},
            {"title", p.target_vm_name_},
            {"hostId", p.target_host_id_},
            {"memory", p.memory_mbytes_ ? std::to_string(p.memory_mbytes_)
                                        : source_text(detail.memory_, "size", "1024")},
            {"cpuSockets",
             p.cpu_count_ > 0 ? std::to_string(p.cpu_count_) : source_text(cpu, "cpuSockets", "1")},
            {"cpuCores",
             p.cpu_cores_ > 0 ? std::to_string(p.cpu_cores_) : source_text(cpu, "cpuCores", "1")},
            {"cpuShares", source_text(cpu, "cpuShares", "512")},
            {"maxCpuSocket", source_text(cpu, "maxCpuNum", "8")},
            {"blkiotune", source_text(basic, "blkiotune", "300")},
            {"autoMigrate", source_text(basic, "autoMigrate", "0")},
            {"formatEnable", "1"},
            {"storage", JSON_Value::array({{{"device", "floppy"}, {"targetBus", "fdc"}}})},
            {"osBit", architecture},
            {"system", system},
            {"osVersion", source_text(basic, "osVersion", "")},
            {"network", JSON_Value::array()}};
    JSON_Value& network = body["network"];
    if (!p.opts_.original_restore_) {
      for (const VM_Restore_Params::NIC& nic : p.nics_)
        network.push_back({{"vsId", nic.virtual_switch_id_},
                           {"vsName", nic.virtual_switch_name_},
                           {"profileId", nic.network_profile_id_},
                           {"isKernelAccelerated", "1"},
                           {"deviceModel", "virtio"}});
    } else {
      for (const JSON_Value& source : detail.networks_) {
        JSON_Value nic = JSON_Value::object();
        for (const char* key :
             {"vsId", "vsName", "profileId", "isKernelAccelerated", "deviceModel", "mac"}) {
          const JSON_Value* v = json_find(json_object(source), key);
          if (v && (key[0] != 'm' || p.opts_.reserve_mac_))
            nic[key] = *v;
        }
        network.push_back(std::move(nic));
      }
    }
  } catch (const std::exception& e) {
    LOG_MSG(
        (LM_ERROR, "Unrecognized CAS VM '%s' config: %s\n", p.target_vm_name_.c_str(), e.what()));
    return false;
  }
  if (!client_->create_vm(p.target_vm_name_, body, target_vm_id_)) {
    target_vm_id_.clear();
    LOG_MSG((LM_ERROR, "Failed to create CAS VM '%s' on CVK '%s'.\n", p.target_vm_name_.c_str(),
             p.target_host_name_.c_str()));
    return false;
  }
  return true;
}

std::string VM_Restore::get_pool_uuid(const JSON_Value& storages) const {
  if (!params_.opts_.pool_uuid_.empty())
    return params_.opts_.pool_uuid_;
  return Backup_Set_Storage_Selector(storages, Backup_Set_Storage_Selector::FIRST).pool_uuid();
}

bool VM_Restore::get_pool(const std::string& uuid, const std::string& uri, Storage_Pool*& pool) {
  // By location too: sets of one pool under another folder are read from there.
  const std::string key = uuid + '\n' + uri;
  auto found = pools_.find(key);
  if (found != pools_.end()) {
    pool = &found->second;
    return true;
  }
  Pool_Info info;
  if (!get_pool_info(&upstream_, uuid, nullptr, info, true, nullptr, params_.retry_seconds_, -1)) {
    LOG_MSG((LM_ERROR, "Failed to get details of storage pool %s.\n", uuid.c_str()));
    return false;
  }
  LOG_MSG(
      (LM_INFO, "Target storage pool %s(uuid=%s) selected.\n", info.name.c_str(), uuid.c_str()));
  Storage_Pool entry;
  entry.io_opts_ = params_.io_opts_;
  if (!set_options_by_pool(entry.io_opts_, info))
    return false;
  entry.url = string_sprintf("%s/%s", info.url.c_str(), uri.c_str());
  pool = &(pools_[key] = std::move(entry));
  return true;
}

bool VM_Restore::prepare_disks(const JSON_Value& catalogs, Disk_Plans& disks) {
  const char* vm = params_.source_vm_name_.c_str();
  std::map<std::string, std::shared_ptr<Disk_Restore_Param>> plans;
  try {
    JSON_Value vm_disks;
    json_extract_array(json_object(catalogs.back()), "vm_disks", vm_disks);
    for (const JSON_Value& entry : vm_disks) {
      std::string path;
      if (entry.is_object() && json_extract(entry, "path", path))
        plans[path] = nullptr;
    }
    for (std::size_t i = 0; i < catalogs.size(); ++i) {
      const JSON_Value& set = catalogs[i];
      JSON_Value storages, pieces;
      std::string uri, uuid;
      std::uint64_t source_size = 0;
      json_extract_array(set, "storages", storages);
      json_extract(set, "uri", uri);
      json_extract(set, "uuid", uuid);
      json_extract_array(set, "pieces", pieces);
      json_extract(set, "source_size", source_size);
      Storage_Pool* pool = nullptr;
      if (!get_pool(get_pool_uuid(storages), uri, pool))
        return false;
      for (const JSON_Value& entry : pieces) {
        if (!entry.is_object())
          continue;
        Disk_Restore_Param::Piece piece{pool, "", 0, uuid, i == 0};
        std::string object;
        json_extract(entry, "object", object);
        json_extract(entry, "size", piece.source_size_);
        json_extract(entry, "path", piece.remote_path_);
        auto plan = plans.find(object);
        if (object.empty() || plan == plans.end())
          continue;
        if (!plan->second)
          plan->second = std::make_shared<Disk_Restore_Param>();
        plan->second->source_size_ += piece.source_size_;
        plan->second->pieces_.push_back(std::move(piece));
      }
      source_size_ += source_size;
    }
    for (const JSON_Value& entry : vm_disks) {
      if (!entry.is_object())
        continue;
      const std::string path = entry.value("path", "");
      auto& plan = plans[path];
      if (!plan || plan->pieces_.empty()) {
        LOG_MSG((LM_ERROR, "Virtual disk '%s' not found in last backup set for CAS VM '%s'.\n",
                 path.c_str(), vm));
        return false;
      }
      if (!plan->src_disk_.load_from_catalog(entry))
        return false;
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS VM '%s' catalog: %s\n", vm, e.what()));
    return false;
  }
  if (params_.opts_.original_restore_) {
    for (auto& [path, plan] : plans) {
      if (!CHECK_TRUE(plan.get() != nullptr))
        return false;
      plan->target_path_ = path;
      plan->cas_pool_name_ = plan->src_disk_.pool_name_;
      plan->cas_pool_path_ = plan->src_disk_.pool_path_;
      plan->cas_pool_type_ = plan->src_disk_.pool_type_;
      plan->provisioning_mode_ = plan->src_disk_.provisioning_mode_;
      set_size_ += plan->source_size_;
      disks.push_back(std::move(plan));
    }
  } else {
    for (const VM_Restore_Params::Disk& disk : params_.disks_) {
      auto found = plans.find(disk.source_path_);
      if (found == plans.end()) {
        LOG_MSG((LM_ERROR, "Virtual disk '%s' not found in backup set for CAS VM '%s'.\n",
                 disk.source_path_.c_str(), vm));
        return false;
      }
      std::shared_ptr<Disk_Restore_Param> plan = std::move(found->second);
      plans.erase(found);
      if (!plan) {
        LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, target_disk.get() is NULL:\n%?\n"));
        return false;
      }
      set_size_ += plan->source_size_;
      if (is_cas_block_storage(disk.pool_type_))
        plan->target_path_ = disk.pool_path_ + "/" + disk.volume_name_;
      else
        plan->target_path_ = disk.pool_path_ + "/" +
                             (plan->src_disk_.file_type_ == "block" ? "blk_" : "") +
                             base_name(disk.source_path_);
      plan->cas_pool_name_ = disk.pool_name_;
      plan->cas_pool_path_ = disk.pool_path_;
      plan->cas_pool_type_ = disk.pool_type_;
      plan->provisioning_mode_ = disk.provisioning_mode_;
      disks.push_back(std::move(plan));
    }
  }
  // A VM without its disks would come back empty without anyone being told.
  if (disks.empty()) {
    LOG_MSG((LM_ERROR, "No virtual disk of CAS VM '%s' to restore.\n", vm));
    return false;
  }
  return true;
}

bool VM_Restore::check_volume_unused_i(const Disk_Restore_Param& disk) {
  std::vector<CAS_Storage_Volume> volumes;
  if (!client_->list_storage_volume(params_.target_host_id_, disk.cas_pool_name_, volumes))
    return false;
  const std::string name = base_name(disk.target_path_);
  for (const CAS_Storage_Volume& volume : volumes)
    if (volume.name_ == name && !volume.used_by_.empty()) {
      LOG_MSG((LM_ERROR,
               "Unable to restore disk '%s' of CAS VM '%s' onto volume '%s' of pool '%s', CAS VM "
               "'%s' uses it.\n",
               disk.src_disk_.path_.c_str(), params_.target_vm_name_.c_str(), name.c_str(),
               disk.cas_pool_name_.c_str(), volume.used_by_.c_str()));
      return false;
    }
  return true;
}

bool VM_Restore::create_disks(Disk_Plans& disks) {
  const VM_Restore_Params& p = params_;
  for (const auto& plan : disks) {
    if (!CHECK_TRUE(plan.get() != nullptr))
      return false;
    const VM_Disk& src = plan->src_disk_;
    if (!is_cas_block_storage(plan->cas_pool_type_)) {
      if (!create_volume(*plan))
        return false;
    } else if (src.format_ != "raw") {
      LOG_MSG((LM_ERROR,
               "Unable to restore disk '%s' of CAS VM '%s' to block storage, the disk format is "
               "NOT raw.\n",
               src.path_.c_str(), p.target_vm_name_.c_str()));
      return false;
    } else if (!check_volume_unused_i(*plan)) {
      return false;
    } else {
      plan->zero_holes_ = true;
    }
    const JSON_Value body = {{"id", target_vm_id_},
                             {"name", p.target_vm_name_},
                             {"storage",
                              {{"device", "disk"},
                               {"fileType", src.format_},
                               {"path", plan->target_path_},
                               {"targetBus", src.target_bus_},
                               {"deviceName", src.device_name_},
                               {"cacheType", src.cache_type_},
                               {"size", mib_text(src.total_bytes_)}}}};
    if (!client_->create_disk(target_vm_id_, p.target_vm_name_, body)) {
      LOG_MSG((LM_ERROR, "Failed to create disk for CAS VM '%s'.\n", p.target_vm_name_.c_str()));
      return false;
    }
  }
  return true;
}

bool VM_Restore::create_volume(Disk_Restore_Param& disk) {
  const VM_Disk& src = disk.src_disk_;
  std::string& target = disk.target_path_;
  JSON_Value body = {{"hostId", params_.target_host_id_},
                     {"spName", disk.cas_pool_name_},
                     {"volName", base_name(target)},
                     {"capacity", mib_text(src.total_bytes_)},
                     {"format", src.format_},
                     {"mode", provision_mode_to_str(disk.provisioning_mode_)}};
  // A disk whose cluster size CAS did not report gets the pool's default.
  if (src.cluster_bytes_ > 0)
    body["clusterSize"] = std::to_string(src.cluster_bytes_);
  for (int retries = 0; !client_->create_storage_volume(disk.provisioning_mode_, body); ++retries) {
    const std::string& code = client_->last_error_code();
    if ((code != "2005" && code != "55") || retries == 10) {
      LOG_MSG((LM_ERROR, "Failed to create volume '%s' on CVK(id=%s) '%s' on pool '%s'.\n",
               target.c_str(), params_.target_host_id_.c_str(), params_.target_host_name_.c_str(),
               disk.cas_pool_name_.c_str()));
      return false;
    }
    const std::string taken = base_name(target);
    if (retries == 0)
      target += "_0";
    else
      ++target.back();
    LOG_MSG((LM_INFO, "Storage volume '%s' existed, retry with volume name '%s'.\n", taken.c_str(),
             target.c_str()));
    body["volName"] = base_name(target);
  }
  created_volumes_.push_back({base_name(target), disk.cas_pool_name_});
  return record_made_i();
}

bool VM_Restore::restore_disks(const Disk_Plans& disks) {
  return run_disks_i(disks, "restore_CAS_disk",
                     [this](const auto& disk) { return restore_disk_i(disk); });
}

bool VM_Restore::run_disks_i(const Disk_Plans& disks, const char* name, const Disk_Task& task) {
  const int count = static_cast<int>(disks.size());
  succeeded_disk_ = 0;
  if (VM_Progress_Info* info = progress_.get()) {
    info->total_size = set_size_;
    info->total_virtual_disk = count;
  }
  Thread_Task_Scheduler<Disk_Restore_Param> scheduler;
  if (!scheduler.register_stop_callback([this] { return is_canceled(); }) ||
      !scheduler.enable_owner_limit(1))
    return false;
  for (const auto& disk : disks)
    if (!scheduler.enqueue_task(disk, disk ? disk->target_path_.c_str() : nullptr, 1, name))
      return false;
  const int threads = std::min(count, std::max(params_.opts_.parallel_disks_per_vm_, 1));
  LOG_MSG((LM_INFO, "Activating %d thread(s) to restore the VM, disk(s) count = %d.\n", threads,
           count));
  // Whatever becomes of a disk, it counts as processed.
  auto run = [this, &task](const std::shared_ptr<Disk_Restore_Param>& disk) {
    if (disk.get() == nullptr) {
      LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, disk.get() is NULL:\n%?\n"));
      return Task_Base::Failed;
    }
    VM_Progress_Info* info = progress_.get();
    Scope_Exit processed([info] {
      if (info)
        info->add_processed_virtual_disk();
    });
    if (!task(*disk))
      return Task_Base::Failed;
    ++succeeded_disk_;
    return Task_Base::Succeeded;
  };
  if (!scheduler.activate(threads, run))
    return false;
  scheduler.wait();
  if (is_canceled()) {
    LOG_MSG((LM_WARNING, "Restore of CAS VM '%s' stopped.\n", params_.source_vm_name_.c_str()));
    return false;
  }
  return succeeded_disk_ == static_cast<std::uint64_t>(count);
}

VM_Restore::Piece_Read VM_Restore::read_piece_i(const Disk_Restore_Param::Piece& piece,
                                                Client_IO_Ex& io,
                                                const Image_Reader::Block_Callback& sink) const {
  if (!io.open(piece.remote_path_, Client_IO_Ex::Read)) {
    LOG_MSG((LM_ERROR, "Failed to open '%s' on storage pool: %s\n", piece.remote_path_.c_str(),
             io.error().c_str()));
    return Piece_Read::Bad;
  }
  storage_size_ += io.storage_size();
  Image_Block_Reader reader(&io, buffer_size());
  // An object of another set is never applied: checked before its first block is handed on.
  bool checked = false, foreign = false;
  auto check = [&] {
    checked = true;
    std::uint8_t expected[16];
    image_set_id(piece.set_uuid_, expected);
    foreign = std::memcmp(reader.superblock().set_id, expected, sizeof expected) != 0;
    if (foreign)
      LOG_MSG((LM_ERROR, "Image object '%s' was written for backup set %s, not for set '%s'.\n",
               piece.remote_path_.c_str(),
               Hex_String_T(reader.superblock().set_id, 16).str().c_str(),
               piece.set_uuid_.c_str()));
    return !foreign;
  };
  const bool read = reader.read_blocks([&](const void* data, std::size_t n, std::uint64_t at) {
    return (checked || check()) && sink(data, n, at);
  });
  if (read) {
    io.close();
    if (!checked && !check())
      return Piece_Read::Bad;
    // An intact object of the right set may still be another piece than the catalog lists.
    if (reader.plain_bytes() != piece.source_size_) {
      LOG_MSG((LM_ERROR, "Image object '%s' holds %Q bytes of disk data, not the %Q of its set.\n",
               piece.remote_path_.c_str(), static_cast<ACE_UINT64>(reader.plain_bytes()),
               static_cast<ACE_UINT64>(piece.source_size_)));
      return Piece_Read::Bad;
    }
    return Piece_Read::Ok;
  }
  // The check has named a foreign object, the sink its own failure, the reader a damaged object.
  if (foreign)
    return Piece_Read::Bad;
  if (reader.stopped() || is_canceled())
    return Piece_Read::Stopped;
  if (!io.error().empty())
    LOG_MSG((LM_ERROR, "Failed to read from storage pool: %s\n", io.error().c_str()));
  return Piece_Read::Bad;
}

bool VM_Restore::read_disk_i(const Disk_Restore_Param& disk,
                             const Image_Reader::Block_Callback& sink,
                             const std::function<bool()>& base_done, bool every_piece) const {
  Client_IO_Ex io;
  const Storage_Pool* connected = nullptr;
  bool base = true, ok = true;
  for (const Disk_Restore_Param::Piece& piece : disk.pieces_) {
    if (base && !piece.base_) {
      base = false;
      if (!base_done())
        return false;
    }
    if (piece.source_size_ == 0 && !every_piece)
      continue;
    if (piece.pool_ != connected) {
      if (!CHECK_TRUE(piece.pool_ != nullptr))
        return false;
      if (!io.connect(piece.pool_->url, piece.pool_->io_opts_)) {
        LOG_MSG((LM_ERROR, "Failed to connect to storage pool: %s\n", io.error().c_str()));
        return false;
      }
      connected = piece.pool_;
    }
    Error_Line line;
    const Piece_Read read = read_piece_i(piece, io, sink);
    if (read == Piece_Read::Stopped)
      return false;
    if (read == Piece_Read::Bad) {
      std::lock_guard<std::mutex> lock(mutex_);
      bad_objects_.push_back({piece.remote_path_, line.text()});
      if (!every_piece)
        return false;
      ok = false;
    }
  }
  return (!base || base_done()) && ok;
}

bool VM_Restore::restore_disk_i(const Disk_Restore_Param& disk) const {
  VM_Progress_Info* info = progress_.get();
  const VM_Restore_Params& p = params_;
  const char* vm = p.target_vm_name_.c_str();
  LOG_MSG((LM_INFO,
           "Restroing CAS VM '%s' disk '%s':\n  source VM='%s'\n  source path='%s'\n  size=%s\n",
           vm, disk.target_path_.c_str(), p.source_vm_name_.c_str(), disk.src_disk_.path_.c_str(),
           size_to_str(disk.source_size_).c_str()));
  // An empty disk needs no write, unless it replaces what an existing volume holds.
  if (disk.source_size_ == 0 && !(disk.zero_holes_ && disk.src_disk_.total_bytes_ > 0))
    return true;
  CVD_Connection conn;
  if (!conn.connect(p.cvm_, p.cvd_target_addr_.empty() ? p.target_host_ip_ : p.cvd_target_addr_,
                    p.target_vm_name_))
    return false;
  CVD_Disk_Handle handle =
      conn.open(unify_path(disk.target_path_, disk.cas_pool_type_ == "rbd", nullptr), nullptr,
                CVD_OPEN_READ_WRITE);
  if (!handle)
    return false;
  auto write = [&](const void* data, std::size_t n, std::uint64_t offset) {
    if (cvd_disk_write(handle.get(), offset, n, data) != static_cast<std::int64_t>(n)) {
      LOG_MSG((LM_ERROR, "Failed to write data to CAS VM '%s'.\n", vm));
      return false;
    }
    return true;
  };
  // Ranges of the disk the full set wrote, merged where they meet; noted until its holes are
  // zeroed.
  std::vector<Block> covered;
  bool noting = disk.zero_holes_;
  auto sink = [&](const void* data, std::size_t n, std::uint64_t offset) {
    if (noting) {
      if (!covered.empty() && covered.back().offset_ + covered.back().length_ == offset)
        covered.back().length_ += n;
      else
        covered.push_back({offset, n});
    }
    if (!write(data, n, offset))
      return false;
    if (info)
      info->add_processed_size(n);
    return !is_canceled();
  };
  auto zero_holes = [&] {
    if (!noting)
      return true;
    noting = false;
    std::sort(covered.begin(), covered.end(),
              [](const Block& a, const Block& b) { return a.offset_ < b.offset_; });
    covered.push_back({disk.src_disk_.total_bytes_, 0});
    const std::vector<char> zeros(buffer_size());
    std::uint64_t at = 0;
    for (const Block& block : covered) {
      for (; at < block.offset_; at += std::min<std::uint64_t>(zeros.size(), block.offset_ - at))
        if (is_canceled() ||
            !write(zeros.data(), std::min<std::uint64_t>(zeros.size(), block.offset_ - at), at))
          return false;
      at = std::max(at, block.offset_ + block.length_);
    }
    return true;
  };
  return read_disk_i(disk, sink, zero_holes, false);
}

bool VM_Restore::verify_disk_i(const Disk_Restore_Param& disk) const {
  VM_Progress_Info* info = progress_.get();
  LOG_MSG((LM_INFO, "Verifying backup of CAS VM '%s' disk '%s', size=%s.\n",
           params_.source_vm_name_.c_str(), disk.src_disk_.path_.c_str(),
           size_to_str(disk.source_size_).c_str()));
  auto sink = [&](const void*, std::size_t n, std::uint64_t) {
    if (info)
      info->add_processed_size(n);
    return !is_canceled();
  };
  return read_disk_i(
      disk, sink, [] { return true; }, true);
}

}  // namespace h3ccas
