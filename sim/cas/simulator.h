// The running simulator's shared state: the world (changeable through the control API), the
// digest verifier, the asynchronous tasks, the request log and the disk images. Every member
// function is thread-safe.
#pragma once

#include "sim/cas/digest.h"
#include "sim/cas/disk_store.h"
#include "sim/cas/request_log.h"
#include "sim/cas/tasks.h"
#include "sim/cas/world.h"

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace cas_sim {

class Simulator {
 public:
  // `data_dir`: where state that outlives a request lives (the disk images); may be empty.
  Simulator(World world, std::string data_dir);

  World world() const;
  // Runs `f` on the world under the lock and returns what it returns: a read of a large
  // inventory without copying it. `f` must not call back into the simulator.
  template <class F>
  auto with_world(F&& f) const {
    std::lock_guard<std::mutex> lock(mutex_);
    settle_i();
    return f(static_cast<const World&>(world_));
  }
  // The same for a change of the world (the CVM's own operations).
  template <class F>
  auto change_world(F&& f) {
    std::lock_guard<std::mutex> lock(mutex_);
    settle_i();
    return f(world_);
  }
  // The status of VM `vm_id` becomes `status` at `when`: state changes take time on a CVM.
  void change_status_at(std::int64_t vm_id, std::string status,
                        std::chrono::steady_clock::time_point when);
  Knobs knobs() const;
  std::string version() const;
  std::vector<Operator> operators() const;
  // False for an unknown login name.
  bool password_of(const std::string& login_name, std::string& password) const;
  // A partial update of the knobs, the version and the operators; see apply_knobs().
  bool change_knobs(const JSON_Value& changes, std::string& error);

  // Returns the id given to the fault.
  std::int64_t add_fault(Fault fault);
  // The first fault (in the order added) that matches the request, counting the hit; a fault
  // whose count runs out is removed.
  bool take_fault(const std::string& method, const std::string& path, const std::string& body,
                  Fault& fault);
  // Removes one fault by id, or every fault for id 0; returns how many went.
  std::size_t remove_faults(std::int64_t id);
  std::vector<Fault> faults() const;

  Digest_Verifier& digest() { return digest_; }
  Request_Log& requests() { return requests_; }
  Task_Engine& tasks() { return tasks_; }
  Disk_Store& disks() { return disks_; }
  const std::string& data_dir() const { return data_dir_; }

 private:
  // Applies the status changes that are due.
  void settle_i() const;

  mutable std::mutex mutex_;
  mutable World world_;  // changes that come due are applied by readers too
  struct Status_Change {
    std::int64_t vm_id;
    std::string status;
    std::chrono::steady_clock::time_point when;
  };
  mutable std::vector<Status_Change> status_changes_;
  std::int64_t last_fault_id_ = 0;
  Digest_Verifier digest_;
  Request_Log requests_;
  Task_Engine tasks_;
  const std::string data_dir_;
  Disk_Store disks_{*this};
};

}  // namespace cas_sim
