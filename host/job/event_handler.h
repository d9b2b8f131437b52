// How a running job reports to the agent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Progress of one VM of a job, as the agent publishes it.
struct VM_Job_Progress {
  enum State : std::int32_t { pending = 0, running = 1, completed = 2, failed = 3 };

  std::string uuid;
  std::string name;
  std::string status = "pending";  // usually the name of `state`; see vm_job_state_name
  std::uint64_t total_bytes = 0;
  std::uint64_t processed_bytes = 0;
  std::int32_t virtual_disk_count = 0;
  std::int32_t processed_virtual_disk_count = 0;
  std::int64_t start_time = 0;  // seconds since the epoch; 0 when not started
  std::int64_t end_time = 0;    // seconds since the epoch; 0 while not ended
  std::int32_t state = pending;
};

// "pending", "running", "completed", "failed"; nullptr for any other value.
const char* vm_job_state_name(std::int32_t state);
// The state named `name`; pending for a name that is none of the above.
std::int32_t vm_job_state_from_name(const std::string& name);

class Job;

// The agent's side of a running job. Called only from the job's own thread; implementations
// must not throw.
class Job_Event_Handler {
 public:
  virtual ~Job_Event_Handler() = default;

  // A run passed its precondition and starts its pre-action and body.
  virtual void handle_start_job(Job& job) {}
  // The run ended: every step succeeded; the job was stopped (state 8); anything else.
  virtual void handle_success(Job& job) {}
  virtual void handle_canceled(Job& job) {}
  virtual void handle_failure(Job& job) {}

  // The whole per-VM progress list of the job (same entries in the same order on every call) and
  // the job's activity state. `final` is set on the last call of a run, once every VM has ended.
  // False when the handler could not take the update (it has logged why); the job goes on.
  virtual bool handle_vm_progress(const std::vector<VM_Job_Progress>& progress, int activity_state,
                                  bool final) = 0;
};
