// The worker side of the task scheduler: a pool of ACE threads that take tasks from a queue, run
// them and report each one back to the dispatcher.
#pragma once

#include "host/core/log.h"

#include <ace/Message_Queue_T.h>
#include <ace/Synch_Traits.h>
#include <ace/Task.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <utility>

namespace h3ccas {

// Threads fed through a queue of task pointers. The queue never owns a task: the dispatcher
// keeps every handed-over task alive until it is reported finished (or the threads have ended).
template <class Impl>
class Task_Worker : public ACE_Task_Base {
 public:
  // Called on a worker thread after each run, with the outcome stored in the task.
  using Finished = std::function<void(Impl* task)>;

  // No high-water mark: the dispatcher hands tasks over under its lock, so a push must never block.
  Task_Worker() : queue_(std::numeric_limits<size_t>::max(), std::numeric_limits<size_t>::max()) {}
  ~Task_Worker() override {
    shutdown();
    wait();
  }
  Task_Worker(const Task_Worker&) = delete;
  Task_Worker& operator=(const Task_Worker&) = delete;

  void set_finished(Finished finished) { finished_ = std::move(finished); }

  // Starts n threads; -1 with errno set when they could not all start (those started are
  // stopped and joined again).
  int open_threads(int n) {
    if (activate(THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED, n) == 0)
      return 0;
    int saved = errno;
    shutdown();
    wait();
    errno = saved;
    return -1;
  }

  bool push(Impl* task) { return queue_.enqueue_tail(task) != -1; }

  // Threads blocked on the queue return at once; tasks still queued are never run.
  void shutdown() { queue_.deactivate(); }

  int svc() override {
    // The take blocks without a time-out: shutdown() is what ends it.
    Impl* task = nullptr;
    while (queue_.dequeue_head(task) != -1) {
      LOG_MSG((LM_DEBUG, "Processing task, id: %d, name %s, count: %d.\n", task->id_,
               task->name_.c_str(), static_cast<int>(task->enqueued_count_)));
      process(*task);
      finished_(task);
    }
    return 0;
  }

 protected:
  // Runs the task once and stores its outcome in it.
  virtual void process(Impl& task) = 0;

 private:
  ACE_Message_Queue_Ex<Impl, ACE_MT_SYNCH> queue_;
  Finished finished_;
};

// Runs each task's work item through the function given at activation.
template <class Impl>
class Thread_Task_Worker : public Task_Worker<Impl> {
 public:
  using Run_Function = typename Impl::Run_Function;

  ~Thread_Task_Worker() override {
    // Join before run_ goes: the threads may be inside it.
    this->shutdown();
    this->wait();
  }

  bool installed() const { return static_cast<bool>(run_); }
  void install(Run_Function run) { run_ = std::move(run); }

 protected:
  void process(Impl& task) override { task.run(run_); }

 private:
  Run_Function run_;
};

}  // namespace h3ccas
