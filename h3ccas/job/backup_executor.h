// The agent-side body of a CAS backup job: resolves the job's hosts and VMs and its options, hands
// one parameters record per VM to a servant ("h3ccas.exec", action "backup"), follows their
// progress and folds their results into the job's totals and result.
#pragma once

#include "h3ccas/common.h"
#include "h3ccas/job/defs.h"
#include "h3ccas/job/executor_base.h"
#include "h3ccas/restful_client.h"
#include "host/catalog/pool_info.h"
#include "host/jsonrpc/jsonrpc.h"

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace h3ccas {

class Backup_Executor : public Executor_Base<Backup_Source, Backup_Options> {
 public:
  using Executor_Base::Executor_Base;

  // The scheduler's result handler for the servant of VM `vm_id`: 0 succeeded, 2 failed and may
  // be retried, 1 failed for good.
  int handle_vm_result(const std::string& vm_id, const std::shared_ptr<JSON_RPC_Object>& response);

 protected:
  bool init() override;
  bool resolve_entries() override;
  bool resolve_options() override;
  bool run_vms(const Job_Args* args) override;

  // Every VM of CVK `id` that is not excluded.
  bool add_host_entry(const std::string& id, const std::string& name);
  // One VM of CVK `host_id`, unless excluded. `vm_id` empty: looked up on the CVK by uuid.
  bool add_vm_entry(const std::string& host_id, const std::string& name, const std::string& title,
                    const std::string& uuid, std::string vm_id);
  // Completes the record of one VM with what the job gives every VM, and its servant request.
  bool make_vm_request(VM_Backup_Params& params, JSON_Value& request);

  using VM_Map = std::unordered_map<std::string, std::shared_ptr<VM_Backup_Params>>;

  std::unique_ptr<RESTful_Client> client_;
  std::unordered_map<std::string, CVK_Host> hosts_;
  std::unordered_map<std::string, VM_Map> vm_entries_;                 // by CVK id, then VM id
  std::unordered_map<std::string, std::vector<VM_Info>> vms_of_host_;  // listed once per CVK
  Client_IO_Base::Options io_opts_;
  Pool_Info pool_info_;
  std::string cvm_version_;
  int total_vm_ = 0;
  int parallel_vms_ = 2;
  int parallel_vms_per_host_ = 2;
  std::string cvd_sdk_log_level_;
  int cvd_sdk_network_timeout_ = 0;
  VM_Backup_Params::Options vm_opts_;
  std::vector<std::string> excluded_;  // wildcard patterns of VM names and titles
  std::optional<std::string> cvk_preferred_network_;
  CVK_Target_Addr_Selector cvk_target_addr_selector_;
};

}  // namespace h3ccas
