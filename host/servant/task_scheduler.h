// Runs tasks, each as one JSON-RPC request to a servant process of its own: at most N servants at
// once, at most M per owner (for a CAS job: the CVK the VM runs on), retries with a count and an
// interval, and a stop callback that ends waiting work and running servants.
//
// A servant that crashes, hangs past the time limit, is stopped or answers garbage is a failed
// run: the result handler receives a null response. The handler's answer decides what follows:
// 0 succeeded, 2 failed and may run again (within the retry count, after the interval), anything
// else failed.
#pragma once

#include "host/core/json.h"
#include "host/jsonrpc/jsonrpc.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Servant;

struct Servant_Task {
  JSON_Value params;
  std::string owner;
  std::string label;  // for log lines; "#<n>" when none was given
  int attempt = 0;    // 0 on the first run, then 1, 2, ... on retries
};

class Servant_Task_Scheduler {
 public:
  // Prepares the servant of a task before it starts (Servant::reset and the environment); false
  // fails the run.
  using Setup = std::function<bool(Servant& servant, const Servant_Task& task)>;
  using Result_Handler =
      std::function<int(const Servant_Task& task, std::shared_ptr<JSON_RPC_Response> response)>;
  // True when the work should stop. Polled about every 100 ms from the scheduler's threads.
  using Stop_Callback = std::function<bool()>;

  explicit Servant_Task_Scheduler(const char* method);
  // Stops (as the stop callback would) and joins.
  ~Servant_Task_Scheduler();
  Servant_Task_Scheduler(const Servant_Task_Scheduler&) = delete;
  Servant_Task_Scheduler& operator=(const Servant_Task_Scheduler&) = delete;

  // Settings, before activate(); false after one log line when out of range or too late.
  bool register_stop_callback(Stop_Callback callback);
  bool enable_owner_limit(int per_owner);
  bool enable_retry(int count, int interval_seconds);
  // Limit of one servant's run in seconds (0, the default: none; a VM may take hours).
  bool set_time_limit(int seconds);

  // Starts `servants` worker threads, each running one servant at a time.
  bool activate(int servants, Setup setup, Result_Handler handler);
  // Queues a task (after activate). False once stopped or waited for.
  bool enqueue_task(JSON_Value params, const std::string& owner, const char* label = nullptr);
  // Tasks are queued or running.
  bool is_running() const;
  // No more tasks come: waits until every queued task has finished (or the stop callback ended
  // them) and joins the threads. Queued tasks that never ran get no result.
  void wait();

  int succeeded() const { return succeeded_; }
  int failed() const { return failed_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    Servant_Task task;
    Clock::time_point not_before;
  };

  void run();
  // The next task that may start now; false when the threads should end.
  bool take(Entry& entry);
  std::shared_ptr<JSON_RPC_Response> run_servant(const Servant_Task& task);
  void finish(Entry entry, int result);
  bool stop_requested();
  void stop_locked();
  bool settable(const char* what) const;

  const std::string method_;
  Stop_Callback stop_callback_;
  int per_owner_ = 0;  // 0: no limit
  int retry_count_ = 0;
  int retry_interval_ = 0;
  int time_limit_ = 0;
  Setup setup_;
  Result_Handler handler_;

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Entry> queue_;
  std::map<std::string, int> running_per_owner_;
  int running_ = 0;
  int enqueued_ = 0;
  bool active_ = false;
  bool closed_ = false;
  std::atomic<bool> stopped_{false};
  std::atomic<int> succeeded_{0}, failed_{0};
  std::vector<std::thread> threads_;
};
