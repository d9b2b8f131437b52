#include "h3ccas/job/restore_executor.h"

#include "host/core/identity.h"
#include "host/core/log.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <cstdio>

namespace h3ccas {

bool Restore_Executor::init() {
  if (!cvm_.load_from_server(def_->host_id)) {
    LOG_MSG((LM_ERROR, "Failed to get CVM info, uuid = %s.\n", def_->host_id.c_str()));
    return false;
  }
  client_ = std::make_unique<RESTful_Client>(cvm_);
  return true;
}

bool Restore_Executor::resolve_entries() {
  LOG_MSG((LM_INFO, "Resolving CAS restoration entries.\n"));
  const JSON_Value& source = src_->value();
  try {
    json_extract(json_object(source), "verify", verify_, false);
    // Verifying reads the backup sets only: CAS need not know the VMs any more.
    if (!verify_) {
      std::vector<VM_Info> vms;
      if (!client_->list_host(hosts_)) {
        LOG_MSG((LM_ERROR, "Failed to list CAS CVK hosts.\n"));
        return false;
      }
      if (!client_->list_all_vm(vms)) {
        LOG_MSG((LM_ERROR, "Failed to list CAS VMs.\n"));
        return false;
      }
      for (const VM_Info& vm : vms)
        vm_ids_[boost::algorithm::to_lower_copy(vm.name_)] = vm.id_;
      json_extract(json_object(opts_->value()), "original_restore", vm_opts_.original_restore_);
      json_extract(opts_->value(), "overwrite_vm", vm_opts_.overwrite_vm_);
    }
    JSON_Value entries;
    json_extract_array(source, "entries", entries);
    for (const auto& entry : entries) {
      auto params = std::make_shared<VM_Restore_Params>();
      VM_Restore_Params& p = *params;
      json_extract(json_object(entry), "source_host_id", p.source_host_id_);
      json_extract(entry, "source_host_name", p.source_host_name_);
      json_extract(entry, "source_vm_id", p.source_vm_id_);
      json_extract(entry, "source_vm_name", p.source_vm_name_);
      json_extract(entry, "timepoint", p.timepoint_);
      json_extract(entry, "catalog_uuid", p.catalog_uuid_);
      // The sets' resource is the CVM that backed them up: this job's unless the entry says.
      p.bak_resource_uuid_ = def_->host_id;
      json_extract(entry, "bak_resource_uuid", p.bak_resource_uuid_, false);
      if (verify_ || vm_opts_.original_restore_) {
        // Back where it came from (a verify only names the source).
        p.target_host_id_ = p.source_host_id_;
        p.target_host_name_ = p.source_host_name_;
        p.target_vm_name_ = p.source_vm_name_;
        auto host = hosts_.find(p.target_host_id_);
        if (host != hosts_.end())
          p.target_host_ip_ = host->second.ip_;
        else if (!verify_) {
          LOG_MSG((LM_ERROR, "CVK(id=%s) not found on CAS.\n", p.target_host_id_.c_str()));
          return false;
        }
      } else {
        JSON_Value disks, nics;
        json_extract(entry, "target_host_id", p.target_host_id_);
        json_extract(entry, "target_host_ip", p.target_host_ip_);
        json_extract(entry, "target_host_name", p.target_host_name_);
        json_extract(entry, "target_vm_name", p.target_vm_name_);
        json_extract(entry, "cpu_count", p.cpu_count_);
        json_extract(entry, "cpu_cores", p.cpu_cores_);
        json_extract(entry, "memory_mbytes", p.memory_mbytes_);
        json_extract_array(entry, "disks", disks);
        json_extract_array(entry, "networks", nics);
        if (!p.load_disks(disks) || !p.load_nics(nics))
          return false;
      }
      vm_entries_[p.target_host_id_].push_back(std::move(params));
    }
  } catch (const JSON_Error& e) {
    LOG_MSG((LM_ERROR, "Invalid CAS job definition at options or source.entries: %s\n", e.what()));
    return false;
  }
  for (const auto& [host_id, vms] : vm_entries_) {
    if (vms.empty())
      return check_failed(__FILE__, __LINE__, "vms is empty");
    const int n = static_cast<int>(vms.size());
    LOG_MSG((LM_INFO, "%d VM%s to be %s CVK '%s'.\n", n, n > 1 ? "s are" : " is",
             verify_ ? "verified from" : "restored to", vms.front()->target_host_name_.c_str()));
    total_vm_ += n;
  }
  if (total_vm_ == 0) {
    LOG_MSG((LM_ERROR, "No CAS VM to %s in job(uuid=%s, name=%s).\n", action(), def_->uid.c_str(),
             def_->name.c_str()));
    return false;
  }
  return true;
}

bool Restore_Executor::resolve_options() {
  LOG_MSG((LM_INFO, "Resolving CAS restoration options.\n"));
  const JSON_Value& o = opts_->value();
  try {
    json_extract(json_object(o), "parallel_vms", parallel_vms_, false);
    json_extract(o, "parallel_vms_per_host", parallel_vms_per_host_, false);
    json_extract(o, "cvd_sdk_log_level", cvd_sdk_log_level_);
    json_extract(o, "cvd_sdk_network_timeout", cvd_sdk_network_timeout_);
    json_extract(o, "write_buffer_size", vm_opts_.write_buffer_size_);
    json_extract(o, "parallel_disks_per_vm", vm_opts_.parallel_disks_per_vm_, false);
    // A verify starts no VM and keeps no address; a restore over the original must say whether
    // it keeps the cards' addresses.
    json_extract(o, "reserve_mac", vm_opts_.reserve_mac_, vm_opts_.original_restore_);
    std::string network;
    if (json_extract(o, "cvk_preferred_network", network, false))
      cvk_preferred_network_ = network;
    json_extract(o, "start_vm", vm_opts_.start_vm_, !verify_);
    json_extract(src_->value(), "pool_uuid", vm_opts_.pool_uuid_, false);
  } catch (const JSON_Error& e) {
    LOG_MSG((LM_ERROR, "Invalid options in CAS job(uuid=%s, name=%s) definition: %s.\n",
             def_->uid.c_str(), def_->name.c_str(), e.what()));
    return false;
  }
  if (!check_buffer_size(vm_opts_.write_buffer_size_, "write_buffer_size") ||
      !check_range(parallel_vms_, "parallel_vms", 1, 64) ||
      !check_range(vm_opts_.parallel_disks_per_vm_, "parallel_disks_per_vm", 1, 5) ||
      !check_cvd_sdk_log_level(cvd_sdk_log_level_) ||
      !check_opt(std::to_string(cvd_sdk_network_timeout_), "cvd_sdk_network_timeout",
                 cvd_sdk_network_timeout_ > 0))
    return false;
  if (parallel_vms_ > total_vm_)
    parallel_vms_ = total_vm_;
  if (parallel_vms_per_host_ > parallel_vms_)
    parallel_vms_per_host_ = parallel_vms_;
  LOG_MSG((LM_INFO,
           "CAS restoration options:\n  parallel_vms=%d\n  parallel_vms_per_host=%d\n"
           "  parallel_disks_per_vm=%d\n  write_buffer_size=%d\n  cvd_sdk_log_level=%s\n"
           "  cvd_sdk_network_timeout=%d\n  original_restore=%d\n  start_vm=%d\n"
           "  reserve_MAC=%d\n  overwrite_vm_with_same_name=%d\n  pool_uuid=%s\n"
           "  cvk_preferred_network=%s\n",
           parallel_vms_, parallel_vms_per_host_, vm_opts_.parallel_disks_per_vm_,
           vm_opts_.write_buffer_size_, cvd_sdk_log_level_.c_str(), cvd_sdk_network_timeout_,
           vm_opts_.original_restore_, vm_opts_.start_vm_, vm_opts_.reserve_mac_,
           vm_opts_.overwrite_vm_, vm_opts_.pool_uuid_.c_str(),
           cvk_preferred_network_ ? cvk_preferred_network_->c_str() : ""));
  return cvk_target_addr_selector_.set_preferred_network(cvk_preferred_network_);
}

bool Restore_Executor::validate_vm_name(VM_Restore_Params& entry) {
  auto found = vm_ids_.find(boost::algorithm::to_lower_copy(entry.target_vm_name_));
  if (found == vm_ids_.end())
    return true;
  if (vm_opts_.overwrite_vm_) {
    entry.existing_vm_id_ = found->second;
    return true;
  }
  LOG_MSG((LM_ERROR, "Unable to restore CAS VM '%s', the case insensitive name has been used.\n",
           entry.target_vm_name_.c_str()));
  return false;
}

bool Restore_Executor::make_vm_request(VM_Restore_Params& params, JSON_Value& request) {
  params.cvm_ = cvm_;
  params.io_opts_ = io_opts_;
  params.opts_ = vm_opts_;
  params.def_id_ = def_->uid;
  params.access_key_ = Host_Manager::instance()->access_key();
  const WebSocket_Options& server = *WebSocket_Options::instance();
  params.backupd_host_ = server.host;
  params.backupd_port_ = server.port;
  params.backupd_ssl_ = server.ssl;
  params.retry_seconds_ = static_cast<int>(def_->max_seconds_retry);
  // As for a backup: the CVK's management address unless a preferred network gives another. A
  // verify never reaches a disk service.
  if (!verify_ && (!cvk_preferred_network_ || !cvk_target_addr_selector_.select(
                                                  *client_, params.target_host_name_,
                                                  params.target_host_id_, params.cvd_target_addr_)))
    params.cvd_target_addr_ = params.target_host_ip_;
  request = params.dump();
  request["action"] = action();
  return true;
}

int Restore_Executor::handle_vm_result(const std::string& vm_id,
                                       const std::shared_ptr<JSON_RPC_Object>& response) {
  // A servant that died is tried again: the next one removes what it left on CAS.
  return fold_servant_result(results_, vm_id, response, action(), is_canceled(), true);
}

Servant_Run Restore_Executor::servant_run() const {
  // Retried at once, up to 3 times, whatever the definition says: a restore that failed left
  // nothing behind to wait for.
  return {action(), "source_vm_id",           parallel_vms_,     parallel_vms_per_host_, 3,
          0,        cvd_sdk_network_timeout_, cvd_sdk_log_level_};
}

bool Restore_Executor::run_vms(const Job_Args*) {
  std::vector<VM_Task> tasks;
  for (auto& [host_id, vms] : vm_entries_)
    for (auto& params : vms) {
      VM_Task task{host_id,
                   params->source_vm_id_,
                   params->target_vm_name_,
                   {params->target_host_ip_, params->target_vm_name_},
                   {},
                   {}};
      // A name taken by another VM fails that VM before any servant starts.
      if (verify_ || validate_vm_name(*params)) {
        char label[300];
        snprintf(label, sizeof label, verify_ ? "verify_vm_%s" : "restore_vm_%s",
                 params->target_vm_name_.c_str());
        task.label = label;
        if (!make_vm_request(*params, task.request))
          return false;
      }
      tasks.push_back(std::move(task));
    }
  return run_servants(tasks, servant_run(), [this](const std::string& vm_id, const auto& response) {
    return handle_vm_result(vm_id, response);
  });
}

}  // namespace h3ccas
