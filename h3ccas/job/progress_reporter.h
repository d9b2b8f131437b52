// Per-VM progress of a CAS job: each VM's servant writes a small memory-mapped record, and the
// job's thread in the agent reads them all and hands the list to the job's event handler.
#pragma once

#include "host/core/mem_map.h"
#include "host/job/activity.h"
#include "host/job/event_handler.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

namespace h3ccas {

// The contents of a VM's progress file (native byte order). The servant writes every field; the
// agent only sets `state` to pending when it creates the file.
struct VM_Progress_Info {
  enum State : std::int32_t { pending = 0, running = 1, completed = 2, failed = 3 };

  std::uint64_t total_size;      // bytes to transfer for this VM
  std::uint64_t processed_size;  // bytes transferred so far
  std::int32_t total_virtual_disk;
  std::int32_t processed_virtual_disk;
  std::int32_t state;
  std::int64_t start_time;  // seconds since the epoch
  std::int64_t end_time;    // seconds since the epoch

  void reset() { *this = VM_Progress_Info{}; }

  // A servant's disk workers count their bytes and disks from several threads at once; the
  // agent reads each field on its own while they do. The fields are naturally aligned, so these
  // stay lock-free between processes too.
  void add_processed_size(std::uint64_t bytes) {
    __atomic_add_fetch(&processed_size, bytes, __ATOMIC_RELAXED);
  }
  void add_processed_virtual_disk() {
    __atomic_add_fetch(&processed_virtual_disk, 1, __ATOMIC_RELAXED);
  }
  template <class T>
  static T load(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
  }
};

static_assert(std::is_trivially_copyable<VM_Progress_Info>::value &&
                  std::is_standard_layout<VM_Progress_Info>::value &&
                  sizeof(VM_Progress_Info) == 48,
              "VM_Progress_Info is shared between processes");

// "<root>/var/opt/quorvex/brimlet5/h3c-cas/progress/<job id>/<VM uuid>"
struct VM_Progress_Info_Conf {
  static constexpr const char* dir_pattern = "/var/opt/quorvex/brimlet5/$COMPONENT/progress";
  static constexpr const char* component = "h3c-cas";
};

using VM_Progress_Info_Handle = Mem_Map_Handle<VM_Progress_Info, VM_Progress_Info_Conf, 4096>;

// The agent-side reader. VMs are added first, then the reporter is activated once, then updates
// are pushed; the mappings are released when it is destroyed. Its calls may come from several
// threads (the job's and the servant scheduler's).
class Progress_Reporter {
 public:
  // Both must outlive the reporter.
  Progress_Reporter(Job_Event_Handler& handler, const Job_Activity& activity);
  Progress_Reporter(const Progress_Reporter&) = delete;
  Progress_Reporter& operator=(const Progress_Reporter&) = delete;

  // A VM whose status starts as `status`, "pending" when empty. Refused (false after one log
  // line) once activate() has been called, even when that failed or found no VM.
  bool add_vm(const std::string& uuid, const std::string& name, const std::string& status = "");
  // Creates (or reopens) the progress file of every VM and marks it pending. Only once; false
  // after one log line when a file cannot be mapped.
  bool activate(const std::string& job_id);
  // Reads the records and hands the list to the handler; false when the handler refuses it.
  bool push_update() { return push_update_i(false); }
  // The last update: every VM that did not complete is reported failed.
  bool flush() { return push_update_i(true); }

 private:
  struct VM_Progress_Wrapper {
    VM_Job_Progress* entry;
    VM_Progress_Info_Handle handle;  // closed once the VM has completed
  };

  bool push_update_i(bool final);

  std::mutex mutex_;  // guards everything below
  bool activated_ = false;
  Job_Event_Handler& handler_;
  const Job_Activity& activity_;
  std::vector<VM_Job_Progress> entries_;
  std::vector<VM_Progress_Wrapper> wrapper_;  // parallel to entries_ once activated
};

}  // namespace h3ccas
