// One VM's backup inside a servant: residual snapshots cleared, online (through a CAS snapshot,
// with a CBTer for the next incremental run) or offline (the VM shut off), then the disks, the
// VM's configuration and the backup set in the catalog.
#pragma once

#include "h3ccas/servant/chunk_transfer.h"
#include "host/job/activity.h"

#include <memory>
#include <string>
#include <vector>

namespace h3ccas {

class VM_Backup : public Backup_Transfer {
 public:
  // Names of the snapshots and CBTers this product makes begin with it.
  static constexpr const char* snapshot_label = "Brimlet5";

  explicit VM_Backup(VM_Backup_Params params, std::unique_ptr<RESTful_Client> client = nullptr);

  // The whole run; `result` always receives "code", "storage_size", "set_size", "source_size",
  // "vm_id" and "backup_type" (the backup made: "full" or "incremental"). A skipped VM counts as
  // a success.
  bool backup(JSON_Value& result);
  // The job was stopped: its activity record says so.
  bool is_canceled() const override;

  bool init();
  bool check_vm_capabilities();
  bool offline_backup_i();
  bool online_backup_i();
  // Deletes every snapshot left by an earlier run (its name begins with the label).
  bool delete_residual_snapshot();
  bool prepare_offline_backup();
  bool wait_for_vm_stop();

  Job_Activity_Handle job_act_;
  VM_Progress_Info_Handle progress_handle_;
  bool skip_backup_ = false;

 protected:
  // Between two looks at a stopping VM.
  virtual void pause(unsigned seconds);

 private:
  bool delete_residual_snapshot_i(const Snapshot_Info& node);
  // Deletes the CBTers of runs that ended without deleting their snapshots (a CBTer has the name
  // of its run's snapshot); the base backup's stays.
  void delete_residual_CBTers();
  std::string snapshot_name() const;

  std::vector<std::string> residual_snapshots_;  // deleted by init()
};

}  // namespace h3ccas
