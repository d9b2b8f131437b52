// A pool of threads running one function over many work items, at most a given number of items
// of one owner at a time, items whose run asks for it enqueued again:
//
//   Thread_Task_Scheduler<Chunk> scheduler;
//   scheduler.enable_owner_limit(1);             // optional, before activate
//   scheduler.register_stop_callback(cancelled);  // optional, before activate
//   scheduler.activate(4, [](const std::shared_ptr<Chunk>& c) { return copy(*c); });
//   for (auto& chunk : chunks)
//     scheduler.enqueue_task(chunk, chunk->disk_path.c_str(), 1, "backup");
//   scheduler.wait();  // no more items: returns when all ran or the scheduler stopped
#pragma once

#include "host/core/log.h"
#include "models/task/details/task_strategy_scheduler.h"
#include "models/task/details/task_worker.h"

#include <atomic>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace h3ccas {

class Task_Base {
 public:
  // Outcome of one run. Retry: failed, and the task is enqueued again as if new.
  enum Error { Succeeded = 0, Failed = 1, Retry = 2 };

  virtual ~Task_Base() = default;
};

// A task's bookkeeping, kept by the dispatcher.
template <class Impl>
class Basic_Task : public Task_Base {
 public:
  int id_ = 0;
  std::string name_;   // for log lines
  std::string owner_;  // tasks of one owner share its limit; "" is an owner too
  int weight_ = 0;     // higher goes first among one owner's waiting tasks
  Error error_ = Succeeded;
  unsigned enqueued_count_ = 0;  // first enqueues, retries included
  std::time_t last_enqueue_time_ = 0;
  std::time_t last_finished_time_ = 0;
};

// A task run on a worker thread; Impl provides item(), the work item handed to the run function.
template <class Impl>
class Thread_Task : public Basic_Task<Impl> {
 public:
  template <class Run>
  void run(const Run& run) {
    this->error_ = run(static_cast<Impl&>(*this).item());
  }
};

template <class T>
class Thread_Task_Scheduler {
 public:
  class Thread_Task_Impl : public Thread_Task<Thread_Task_Impl> {
   public:
    using Run_Function = std::function<Task_Base::Error(const std::shared_ptr<T>&)>;

    explicit Thread_Task_Impl(std::shared_ptr<T> item) : item_(std::move(item)) {}
    const std::shared_ptr<T>& item() const { return item_; }

   private:
    std::shared_ptr<T> item_;
  };
  using Run_Function = typename Thread_Task_Impl::Run_Function;

  Thread_Task_Scheduler() = default;
  // Stops: waiting items are dropped, running ones finish first.
  ~Thread_Task_Scheduler() = default;
  Thread_Task_Scheduler(const Thread_Task_Scheduler&) = delete;
  Thread_Task_Scheduler& operator=(const Thread_Task_Scheduler&) = delete;

  // Before activate. False after one log line.
  bool enable_owner_limit(unsigned limit_per_owner) {
    if (limit_per_owner < 1) {
      LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, limit_per_owner%s < 1%s:\n%?\n",
               shown(limit_per_owner).c_str(), ""));
      return false;
    }
    auto strategy = std::make_unique<Owner_Limit_Queue_Strategy<Thread_Task_Impl>>();
    strategy->reset(limit_per_owner);
    scheduler_.add_strategy(std::move(strategy));
    return true;
  }

  // A predicate that, once true, stops the scheduler: waiting items are dropped. It is polled
  // under the scheduler's lock at least every 3 seconds and must not call the scheduler. Before
  // activate: a running dispatcher may already have polled the old one. False after one log line.
  bool register_stop_callback(std::function<bool()> callback) {
    if (!CHECK_TRUE(callback))
      return false;
    if (scheduler_.worker().installed()) {
      LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, worker_ is true:\n%?\n"));
      return false;
    }
    scheduler_.register_stop_callback(std::move(callback));
    return true;
  }

  // Starts the worker threads and the dispatcher; once only. False after one log line.
  bool activate(int n_worker_threads, Run_Function run) {
    if (n_worker_threads < 1) {
      LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, n_worker_threads%s < 1%s:\n%?\n",
               shown(n_worker_threads).c_str(), ""));
      return false;
    }
    auto& worker = scheduler_.worker();
    if (worker.installed()) {
      LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, worker_ is true:\n%?\n"));
      return false;
    }
    if (!CHECK_TRUE(run))
      return false;
    worker.install(std::move(run));
    return scheduler_.start(n_worker_threads);
  }

  // Owner and name are taken when given and not empty. False when the item is null, or once
  // the scheduler has stopped or been waited for.
  bool enqueue_task(const std::shared_ptr<T>& params, const char* owner = nullptr, int weight = 0,
                    const char* name = nullptr) {
    if (params.get() == nullptr) {
      LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, params.get() is NULL:\n%?\n"));
      return false;
    }
    auto task = std::make_shared<Thread_Task_Impl>(params);
    task->id_ = ++last_id_;
    task->weight_ = weight;
    if (owner != nullptr && *owner != '\0')
      task->owner_ = owner;
    if (name != nullptr && *name != '\0')
      task->name_ = name;
    return scheduler_.enqueue(std::move(task));
  }

  // No more items: returns once every item has run (retries included) or the scheduler has
  // stopped, and its threads have ended.
  void wait() { scheduler_.finish(); }

 private:
  // The value beside its name in a failed check.
  static std::string shown(long long value) { return "(" + std::to_string(value) + ")"; }

  Task_Strategy_Scheduler<Thread_Task_Impl, Thread_Task_Worker<Thread_Task_Impl>,
                          Queue_Strategy_Impl<Thread_Task_Impl>>
      scheduler_;
  std::atomic<int> last_id_{0};
};

}  // namespace h3ccas
