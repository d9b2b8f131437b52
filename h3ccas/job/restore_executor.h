// The agent-side body of a CAS restore job: resolves the job's entries (one backup set each, and
// where its VM goes) and its options, hands one parameters record per VM to a servant
// ("h3ccas.exec", action "restore"), follows their progress and folds their results into the
// job's totals and result. A source with "verify": true reads every entry's chain through the
// servant action "verify" instead, which writes nothing: no target, no name check.
#pragma once

#include "h3ccas/common.h"
#include "h3ccas/job/defs.h"
#include "h3ccas/job/executor_base.h"
#include "h3ccas/restful_client.h"
#include "host/jsonrpc/jsonrpc.h"

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace h3ccas {

class Restore_Executor : public Executor_Base<Restore_Source, Restore_Options> {
 public:
  using Executor_Base::Executor_Base;

  // The scheduler's result handler for the servant of source VM `vm_id`: 0 succeeded, 2 failed
  // and may be retried, 1 failed for good.
  int handle_vm_result(const std::string& vm_id, const std::shared_ptr<JSON_RPC_Object>& response);

 protected:
  bool init() override;
  bool resolve_entries() override;
  bool resolve_options() override;
  bool run_vms(const Job_Args* args) override;

  // The target name is free, ignoring case, or the job overwrites the VM holding it (whose id
  // `entry` then carries). False after one log line.
  bool validate_vm_name(VM_Restore_Params& entry);
  // Completes the record of one VM with what the job gives every VM, and its servant request.
  bool make_vm_request(VM_Restore_Params& params, JSON_Value& request);
  const char* action() const { return verify_ ? "verify" : "restore"; }
  // How the job's servants run.
  Servant_Run servant_run() const;

  using Entries = std::vector<std::shared_ptr<VM_Restore_Params>>;

  std::unique_ptr<RESTful_Client> client_;
  CVM_Info cvm_;
  std::unordered_map<std::string, CVK_Host> hosts_;
  std::unordered_map<std::string, Entries> vm_entries_;  // by target CVK id
  std::unordered_map<std::string, std::string> vm_ids_;  // lower-case name -> id, all CAS VMs
  Client_IO_Base::Options io_opts_;
  bool verify_ = false;
  int total_vm_ = 0;
  int parallel_vms_ = 2;
  int parallel_vms_per_host_ = 2;
  std::string cvd_sdk_log_level_;
  int cvd_sdk_network_timeout_ = 0;
  VM_Restore_Params::Options vm_opts_;
  std::optional<std::string> cvk_preferred_network_;
  CVK_Target_Addr_Selector cvk_target_addr_selector_;
};

}  // namespace h3ccas
