// The common base of the CAS job executors: one job per CVM at a time, the option checks both
// executors share, the VM outcomes their servants report concurrently, and the order of a run's
// steps, which the backup and restore executors fill in.
#pragma once

#include "h3ccas/common.h"
#include "host/job/job_t.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class JSON_RPC_Object;

namespace h3ccas {

// How often a job waiting for another job of its CVM tries again.
constexpr std::chrono::seconds job_guard_retry_period{5};

// Takes the job mutex of CVM `key` for `job`, logging "Waiting for other jobs of this CAS(%s) to
// be completed.\n" before each wait. Empty when the job was stopped or aborted while waiting.
Job_Mutex::Guard make_job_guard(Job& job, const std::string& key);

// The option checks of a CAS job `def`. Each returns whether the value is valid; an invalid one
// is logged once, at error level, as "Invalid value '%s' of option '%s' of CAS
// job(uuid=%s, name=%s).\n".
bool check_opt(const Job_Definition& def, const std::string& value, const char* option, bool valid);
// low <= value <= high.
bool check_range(const Job_Definition& def, std::int64_t value, const char* option,
                 std::int64_t low, std::int64_t high);
// A read or write buffer: 65536..8388608 bytes and a multiple of 4096.
bool check_buffer_size(const Job_Definition& def, int size, const char* option);
// "debug", "info", "warn" or "error", as written.
bool check_cvd_sdk_log_level(const Job_Definition& def, const std::string& level);
// "compression_level" for compression method `method` (a Client_IO_Base::Compression value): 0
// (the codec's default) or within the codec's levels; any level for "none" or an unknown method,
// which the storage layer replaces anyway. Checked once per job, so that a bad level fails the
// job before any servant starts instead of failing every VM.
bool check_compression_level(const Job_Definition& def, int method, int level);

// The outcomes of a job's VMs: every VM is added before the first servant starts; then the
// servants' result handlers, on the scheduler's threads, record results concurrently.
class VM_Results {
 public:
  // False after one log line for a VM added twice.
  bool add(const std::string& vm_id, VM_History history);
  // A VM's servant finished: on success its sizes count into the totals. False after one log line
  // for a VM that was never added.
  bool record(const std::string& vm_id, bool succeeded, std::uint64_t storage_size,
              std::uint64_t source_size, std::uint64_t set_size);
  // Further fields of a VM's entry in the job result, beside its history: "bad_objects" (the
  // objects its servant found damaged, [{"object", "error"}]) and "type" (the backup it made).
  void record_fields(const std::string& vm_id, const JSON_Value& fields);
  int succeeded() const { return succeeded_; }
  std::uint64_t storage_size() const { return storage_size_; }
  std::uint64_t source_size() const { return source_size_; }
  std::uint64_t set_size() const { return set_size_; }
  // The job result's JSON form of the outcomes (see VM_Histories::eject); the table is left empty.
  JSON_Value eject();

 private:
  std::mutex mutex_;  // guards histories_ and fields_
  VM_Histories histories_;
  std::unordered_map<std::string, JSON_Value> fields_;
  std::atomic<int> succeeded_{0};
  std::atomic<std::uint64_t> storage_size_{0}, source_size_{0}, set_size_{0};
};

// Folds the servant's `response` for VM `vm_id` into `results`: 0 succeeded, 2 failed and may be
// retried, 1 failed for good (a job being stopped, damaged objects, which another try reads the
// same, a result without "storage_size", "source_size", "set_size" and "vm_id", logged as
// "Unrecognized CAS VM <action> response: %s.\n", or no answer unless `retry_lost`).
int fold_servant_result(VM_Results& results, const std::string& vm_id,
                        const std::shared_ptr<JSON_RPC_Object>& response, const char* action,
                        bool canceled, bool retry_lost);

// One VM of a run.
struct VM_Task {
  std::string owner;  // the CVK whose servants the per-host limit counts
  std::string vm_id;  // the VM in the results and the progress file its servant writes
  std::string vm_name;
  VM_History history;
  JSON_Value request;  // null: refused before any servant, and failed
  std::string label;   // of the scheduler's task; empty: none
};

// How a run's servants are run.
struct Servant_Run {
  const char* action;  // "backup", "restore", "verify": the summary line's word
  const char* id_key;  // the request's key of VM_Task::vm_id
  int parallel_vms = 1;
  int parallel_vms_per_host = 1;
  int retry_count = 0;
  int retry_interval = 0;  // seconds
  int cvd_sdk_network_timeout = 0;
  std::string cvd_sdk_log_level;
};

using VM_Result_Handler =
    std::function<int(const std::string& vm_id, const std::shared_ptr<JSON_RPC_Object>& response)>;

// Runs a servant ("h3ccas.exec") per task with a request until each has ended or `job` is stopped,
// pushing the VMs' progress every 10 seconds, then sets the job's totals and its "h3c-cas"
// result. True when every task's VM succeeded.
bool run_servants(Job& job, Job_Event_Handler& handler, VM_Results& results,
                  std::vector<VM_Task>& tasks, const Servant_Run& run,
                  const VM_Result_Handler& handle);

// S and O are the job's source and options records, H its event handler.
template <class S, class O, class H = Job_Event_Handler>
class Executor_Base : public Job_Executor_T<S, O, H> {
 public:
  using Job_Executor_T<S, O, H>::Job_Executor_T;

  // The run's body: the CVM's job guard is held from the first step to the last; the steps run in
  // order and the first false ends the body with false (a stop while waiting for the guard too).
  bool execute_i(const Job_Args* args) override {
    Job_Mutex::Guard guard = make_job_guard(this->job_, this->def_->host_id);
    if (!guard)
      return false;
    return init() && resolve_entries() && resolve_options() && run_vms(args);
  }

 protected:
  // Connects to the CVM of the job.
  virtual bool init() = 0;
  // The VMs the job's source names.
  virtual bool resolve_entries() = 0;
  // The job's options, checked with the checks below.
  virtual bool resolve_options() = 0;
  // Runs a servant per VM until every one has ended or the job is stopped.
  virtual bool run_vms(const Job_Args* args) = 0;

  bool check_opt(const std::string& value, const char* option, bool valid) const {
    return h3ccas::check_opt(*this->def_, value, option, valid);
  }
  bool check_range(std::int64_t value, const char* option, std::int64_t low,
                   std::int64_t high) const {
    return h3ccas::check_range(*this->def_, value, option, low, high);
  }
  bool check_buffer_size(int size, const char* option) const {
    return h3ccas::check_buffer_size(*this->def_, size, option);
  }
  bool check_cvd_sdk_log_level(const std::string& level) const {
    return h3ccas::check_cvd_sdk_log_level(*this->def_, level);
  }
  bool check_compression_level(int method, int level) const {
    return h3ccas::check_compression_level(*this->def_, method, level);
  }

  bool run_servants(std::vector<VM_Task>& tasks, const Servant_Run& run,
                    const VM_Result_Handler& handle) {
    return h3ccas::run_servants(this->job_, this->handler_, results_, tasks, run, handle);
  }

  VM_Results results_;
};

}  // namespace h3ccas
