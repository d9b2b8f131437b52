// A job kind for the job tests, built into the test binary and into a test module: its options
// say what the body does.
#pragma once

#include "host/job/job_t.h"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace job_test {
struct Test_Source : Job_Source {
  JSON_Value value_;
  void set_value(JSON_Value v) override { value_ = std::move(v); }
  void generate(yajl_gen gen) const override { yajl_gen_json(gen, value_); }
};
struct Test_Options : Job_Options {
  JSON_Value value_;
  void set_value(JSON_Value v) override { value_ = std::move(v); }
  int generate(yajl_gen gen) override { return yajl_gen_json(gen, value_); }
};

// Bodies that block or wait for a job mutex count themselves here.
inline std::mutex g_mutex;
inline std::condition_variable g_cv;
inline int g_blocked = 0;
inline bool g_hold = false;  // a stopped "block" run waits while this is set

// Options: "vms" (names reported running, then completed), "fail", "block" (until stopped),
// "mutex" (taken first, as executors take their entry's).
struct Test_Executor : Job_Executor_T<Test_Source, Test_Options> {
  using Job_Executor_T::Job_Executor_T;
  bool execute_i(const Job_Args*) override {
    const JSON_Value& o = opts_->value_;
    Job_Mutex::Guard guard;
    if (o.contains("mutex") &&
        !(guard = Job_Mutex::acquire(o["mutex"], job_, std::chrono::hours(1), [] {
            LOG_MSG((LM_INFO, "Waiting.\n"));
            std::lock_guard<std::mutex> lock(g_mutex);
            ++g_blocked;
            g_cv.notify_all();
          })))
      return false;
    std::vector<VM_Job_Progress> vms;
    for (const auto& name : o.value("vms", JSON_Value::array()))
      vms.push_back({name, name, "running", 10, 5});
    handler_.handle_vm_progress(vms, 1, false);
    if (o.value("block", false)) {
      std::unique_lock<std::mutex> lock(g_mutex);
      ++g_blocked;
      g_cv.notify_all();
      lock.unlock();
      job_.wait_state(std::chrono::hours(1), [](int s) { return s == JOB_STOPPED; });
      lock.lock();
      g_cv.wait(lock, [] { return !g_hold; });
      return false;
    }
    for (auto& vm : vms)
      vm.status = "completed", vm.processed_bytes = 10;
    handler_.handle_vm_progress(vms, 2, true);
    job_.set_result("test", {{"vms", vms.size()}});
    LOG_MSG((LM_INFO, "Body of %s.\n", src_->value_.dump().c_str()));
    return !o.value("fail", false);
  }
};
}  // namespace job_test
