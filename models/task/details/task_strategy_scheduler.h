// The dispatcher of the task scheduler and the admission strategies it asks before a task joins
// an owner's queue and before it leaves it for the workers.
#pragma once

#include "host/core/log.h"

#include <ace/Task.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace h3ccas {

// Admission policy. Each public operation forwards to its virtual _i form; the base admits
// everything. Used only under the dispatcher's lock.
template <class Impl>
class Queue_Strategy {
 public:
  virtual ~Queue_Strategy() = default;

  // May the task join its owner's queue?
  bool enqueue_able(const Impl& task) { return enqueue_able_i(task); }
  // May the task at the top of its owner's queue leave it now?
  bool dequeue_able(const Impl& task) { return dequeue_able_i(task); }
  // May the task just taken from its queue go to the workers? A refusal puts it back.
  bool call_able(const Impl& task) { return call_able_i(task); }

  void notify_enqueued(const Impl& task) {
    ++task_enqueued_count_;
    notify_enqueued_i(task);
  }
  void notify_dequeued(const Impl& task) {
    ++task_dequeued_count_;
    notify_dequeued_i(task);
  }
  // The task was taken from its queue but refused by call_able, and goes back.
  void notify_break(const Impl& task) { notify_break_i(task); }
  // A task handed to the workers has run (or could not be handed over).
  void notify_finished(const Impl& task) { notify_finished_i(task); }

  void reset(int task_enqueued_count, int task_dequeued_count) {
    task_enqueued_count_ = task_enqueued_count;
    task_dequeued_count_ = task_dequeued_count;
  }
  int task_enqueued_count() const { return task_enqueued_count_; }
  int task_dequeued_count() const { return task_dequeued_count_; }

 protected:
  virtual bool enqueue_able_i(const Impl& task) { return true; }
  virtual bool dequeue_able_i(const Impl& task) { return true; }
  virtual bool call_able_i(const Impl& task) { return true; }
  virtual void notify_enqueued_i(const Impl& task) {}
  virtual void notify_dequeued_i(const Impl& task) {}
  virtual void notify_break_i(const Impl& task) {}
  virtual void notify_finished_i(const Impl& task) {}

 private:
  int task_enqueued_count_ = 0;
  int task_dequeued_count_ = 0;
};

// All members must agree to a question; every notification reaches every member, in the order
// they were added.
template <class Impl>
class Queue_Strategy_Impl : public Queue_Strategy<Impl> {
 public:
  void add_strategy(std::unique_ptr<Queue_Strategy<Impl>> strategy) {
    strategies_.push_back(std::move(strategy));
  }

 protected:
  using Base = Queue_Strategy<Impl>;

  bool enqueue_able_i(const Impl& task) override { return all(&Base::enqueue_able, task); }
  bool dequeue_able_i(const Impl& task) override { return all(&Base::dequeue_able, task); }
  bool call_able_i(const Impl& task) override { return all(&Base::call_able, task); }
  void notify_enqueued_i(const Impl& task) override { each(&Base::notify_enqueued, task); }
  void notify_dequeued_i(const Impl& task) override { each(&Base::notify_dequeued, task); }
  void notify_break_i(const Impl& task) override { each(&Base::notify_break, task); }
  void notify_finished_i(const Impl& task) override { each(&Base::notify_finished, task); }

 private:
  bool all(bool (Base::*ask)(const Impl&), const Impl& task) {
    return std::all_of(strategies_.begin(), strategies_.end(),
                       [&](const std::unique_ptr<Base>& s) { return ((*s).*ask)(task); });
  }
  void each(void (Base::*tell)(const Impl&), const Impl& task) {
    for (auto& s : strategies_)
      ((*s).*tell)(task);
  }

  std::vector<std::unique_ptr<Base>> strategies_;
};

// At most limit_per_owner_ tasks of one owner run at once.
template <class Impl>
class Owner_Limit_Queue_Strategy : public Queue_Strategy<Impl> {
 public:
  using Queue_Strategy<Impl>::reset;
  void reset(unsigned limit_per_owner) { limit_per_owner_ = limit_per_owner; }

 protected:
  bool dequeue_able_i(const Impl& task) override {
    auto it = running_.find(task.owner_);
    return (it == running_.end() ? 0 : it->second) < limit_per_owner_;
  }
  void notify_dequeued_i(const Impl& task) override { ++running_[task.owner_]; }
  void notify_finished_i(const Impl& task) override {
    auto it = running_.find(task.owner_);
    if (!CHECK_TRUE(it != running_.end()))
      return;
    if (--it->second == 0)
      running_.erase(it);
  }

 private:
  unsigned limit_per_owner_ = 1;
  std::map<std::string, unsigned> running_;  // owner -> its tasks now running
};

// Hands waiting tasks to the worker. Owners are walked in ascending order and a walk hands at
// most one task per owner, so a busy owner cannot starve the others; within an owner a higher
// weight goes first and equal weights go in enqueue order (a retried task queues anew, behind).
//
// The dispatcher thread ends when stopped (stop() or the stop callback) or, once finish() has
// said that no more tasks come, when none waits or runs. Tasks still waiting then are dropped
// unrun, and every later enqueue is refused.
//
// Impl: the task (Basic_Task fields). Worker: a Task_Worker<Impl>. Strategy: the composite.
template <class Impl, class Worker, class Strategy>
class Task_Strategy_Scheduler : public ACE_Task_Base {
 public:
  Task_Strategy_Scheduler() {
    worker_.set_finished([this](Impl* task) { finished(task); });
  }
  ~Task_Strategy_Scheduler() override {
    stop();
    finish();
  }
  Task_Strategy_Scheduler(const Task_Strategy_Scheduler&) = delete;
  Task_Strategy_Scheduler& operator=(const Task_Strategy_Scheduler&) = delete;

  Worker& worker() { return worker_; }

  void add_strategy(std::unique_ptr<Queue_Strategy<Impl>> strategy) {
    std::lock_guard<std::mutex> lock(mutex_);
    strategy_.add_strategy(std::move(strategy));
  }

  // True once the work should stop. Polled on the dispatcher thread under its lock, at each
  // wake-up and at least every 3 seconds, so it must not call into the scheduler.
  void register_stop_callback(std::function<bool()> callback) {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_callback_ = std::move(callback);
  }

  // Starts n worker threads and the dispatcher thread. False after one log line.
  bool start(int n_worker_threads) {
    if (worker_.open_threads(n_worker_threads) == -1) {
      LOG_MSG((LM_ERROR, "Failed to activate thread pool worker, errno=%d.\n", errno));
      return false;
    }
    if (activate() == -1) {
      int saved = errno;
      worker_.shutdown();
      worker_.wait();
      LOG_MSG((LM_ERROR, "Failed to activate thread pool scheduler, errno=%d.\n", saved));
      return false;
    }
    return true;
  }

  // A first enqueue. False when stopped or refused by the strategy.
  bool enqueue(std::shared_ptr<Impl> task) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!enqueue_i(Waiting{std::move(task), 0}, false))
      return false;
    signal_.notify_one();
    return true;
  }

  void stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    signal_.notify_one();
  }

  // No more tasks come from outside: returns once the dispatcher and worker threads have ended.
  void finish() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closing_ = true;
      signal_.notify_one();
    }
    ACE_Task_Base::wait();
    worker_.wait();
    stopped_ = true;
  }

  int svc() override {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopped_i() && !(closing_ && waiting_.empty() && running_.empty())) {
      if (walk())
        continue;  // something went to the workers: there may be more to hand over
      signal_.wait_until(lock, std::chrono::steady_clock::now() + std::chrono::seconds(3));
    }
    if (stopped_)
      LOG_MSG((LM_INFO, "Task scheduler stopped.\n"));
    stopped_ = true;
    waiting_.clear();
    worker_.shutdown();
    return 0;
  }

 private:
  struct Waiting {
    std::shared_ptr<Impl> task;
    std::uint64_t order;  // among first enqueues, for ties of weight
  };
  // Priority queue order: true when a runs after b.
  struct Later {
    bool operator()(const Waiting& a, const Waiting& b) const {
      if (a.task->weight_ != b.task->weight_)
        return a.task->weight_ < b.task->weight_;
      return a.order > b.order;
    }
  };
  using Owner_Queue = std::priority_queue<Waiting, std::vector<Waiting>, Later>;

  bool stopped_i() {
    if (!stopped_ && stop_callback_ && stop_callback_())
      stopped_ = true;
    return stopped_;
  }

  // again: the task goes back after a refusal of call_able, keeping its place and admission.
  bool enqueue_i(Waiting waiting, bool again) {
    if (stopped_)
      return false;
    Impl& task = *waiting.task;
    if (!again) {
      task.error_ = Impl::Succeeded;
      if (!strategy_.enqueue_able(task)) {
        LOG_MSG((LM_ERROR, "Failed to enqueue task, id: %d, name: %s, count: %d.\n", task.id_,
                 task.name_.c_str(), static_cast<int>(task.enqueued_count_)));
        return false;
      }
      strategy_.notify_enqueued(task);
      ++task.enqueued_count_;
      task.last_enqueue_time_ = std::time(nullptr);
      waiting.order = ++enqueue_order_;
      LOG_MSG((LM_DEBUG, "Enqueueing task, id: %d, name: %s, count: %d.\n", task.id_,
               task.name_.c_str(), static_cast<int>(task.enqueued_count_)));
    }
    waiting_[task.owner_].push(std::move(waiting));
    return true;
  }

  // One walk over the owners; true when a task went to the workers.
  bool walk() {
    bool handed = false;
    for (auto it = waiting_.begin(); it != waiting_.end();) {
      Owner_Queue& queue = it->second;
      Waiting top = queue.top();
      if (!strategy_.dequeue_able(*top.task)) {
        ++it;
        continue;
      }
      queue.pop();
      if (!strategy_.call_able(*top.task)) {
        strategy_.notify_break(*top.task);
        enqueue_i(std::move(top), true);
        break;
      }
      strategy_.notify_dequeued(*top.task);
      hand_over(std::move(top.task));
      handed = true;
      it = queue.empty() ? waiting_.erase(it) : std::next(it);
    }
    return handed;
  }

  void hand_over(std::shared_ptr<Impl> task) {
    Impl* raw = task.get();
    running_.emplace(raw, std::move(task));
    if (worker_.push(raw))
      return;
    LOG_MSG((LM_ERROR, "Failed to hand over task, id: %d, name: %s, count: %d.\n", raw->id_,
             raw->name_.c_str(), static_cast<int>(raw->enqueued_count_)));
    strategy_.notify_finished(*raw);
    running_.erase(raw);
  }

  // On a worker thread, after the run.
  void finished(Impl* raw) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = running_.find(raw);
    if (!CHECK_TRUE(it != running_.end()))
      return;
    std::shared_ptr<Impl> task = std::move(it->second);
    running_.erase(it);
    strategy_.notify_finished(*task);
    task->last_finished_time_ = std::time(nullptr);
    int id = task->id_;
    const char* name = task->name_.c_str();
    int count = static_cast<int>(task->enqueued_count_);
    switch (task->error_) {
      case Impl::Succeeded:
        LOG_MSG((LM_DEBUG, "Task succeeded, id: %d, name: %s, count: %d.\n", id, name, count));
        break;
      case Impl::Retry:
        LOG_MSG((LM_DEBUG, "Task failed, id: %d, name: %s, count: %d, enqueuing again.\n", id, name,
                 count));
        enqueue_i(Waiting{std::move(task), 0}, false);
        break;
      default:
        LOG_MSG((LM_DEBUG, "Task failed, id: %d, name: %s, count: %d.\n", id, name, count));
        break;
    }
    signal_.notify_one();
  }

  std::atomic<bool> stopped_{false};
  bool closing_ = false;  // finish() was called
  std::function<bool()> stop_callback_;
  Strategy strategy_;
  std::map<std::string, Owner_Queue> waiting_;  // owner -> its waiting tasks; never empty queues
  std::unordered_map<Impl*, std::shared_ptr<Impl>> running_;  // handed to the worker
  std::uint64_t enqueue_order_ = 0;
  std::mutex mutex_;
  std::condition_variable signal_;
  Worker worker_;
};

}  // namespace h3ccas
