#include "host/servant/task_scheduler.h"

#include "host/core/log.h"
#include "host/servant/servant.h"

namespace {

// How often waiting threads look at the stop callback and at retry times.
constexpr auto TICK = std::chrono::milliseconds(100);

}  // namespace

Servant_Task_Scheduler::Servant_Task_Scheduler(const char* method)
    : method_(method ? method : "") {}

Servant_Task_Scheduler::~Servant_Task_Scheduler() {
  stopped_ = true;
  cv_.notify_all();
  for (auto& t : threads_)
    t.join();
}

bool Servant_Task_Scheduler::settable(const char* what) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (active_) {
    LOG_MSG(
        (LM_ERROR, "Cannot set %s of servant tasks '%s' once they run.\n", what, method_.c_str()));
    return false;
  }
  return true;
}

bool Servant_Task_Scheduler::register_stop_callback(Stop_Callback callback) {
  if (!settable("the stop callback"))
    return false;
  stop_callback_ = std::move(callback);
  return true;
}

bool Servant_Task_Scheduler::enable_owner_limit(int per_owner) {
  if (!settable("the owner limit"))
    return false;
  if (per_owner < 1) {
    LOG_MSG((LM_ERROR, "Invalid servant limit per owner %d.\n", per_owner));
    return false;
  }
  per_owner_ = per_owner;
  return true;
}

bool Servant_Task_Scheduler::enable_retry(int count, int interval_seconds) {
  if (!settable("retries"))
    return false;
  if (count < 0 || interval_seconds < 0) {
    LOG_MSG((LM_ERROR, "Invalid servant task retry count %d or interval %d.\n", count,
             interval_seconds));
    return false;
  }
  retry_count_ = count;
  retry_interval_ = interval_seconds;
  return true;
}

bool Servant_Task_Scheduler::set_time_limit(int seconds) {
  if (!settable("the time limit"))
    return false;
  if (seconds < 0) {
    LOG_MSG((LM_ERROR, "Invalid servant time limit %d.\n", seconds));
    return false;
  }
  time_limit_ = seconds;
  return true;
}

bool Servant_Task_Scheduler::activate(int servants, Setup setup, Result_Handler handler) {
  if (!settable("the servant count"))
    return false;
  if (servants < 1 || !setup || !handler || method_.empty()) {
    LOG_MSG((LM_ERROR,
             "Invalid servant tasks '%s': %d servants, set-up and result handler needed.\n",
             method_.c_str(), servants));
    return false;
  }
  setup_ = std::move(setup);
  handler_ = std::move(handler);
  std::lock_guard<std::mutex> lock(mutex_);
  active_ = true;
  // The workers log as the work that started them, so that its log has their lines too.
  const std::uint64_t tag = log_thread_tag();
  for (int i = 0; i < servants; ++i)
    threads_.emplace_back([this, tag] {
      set_log_thread_tag(tag);
      run();
    });
  return true;
}

bool Servant_Task_Scheduler::enqueue_task(JSON_Value params, const std::string& owner,
                                          const char* label) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!active_ || closed_ || stopped_) {
    LOG_MSG((LM_ERROR, "Servant tasks '%s' take no more work.\n", method_.c_str()));
    return false;
  }
  Entry e;
  e.task.params = std::move(params);
  e.task.owner = owner;
  ++enqueued_;
  e.task.label = label && *label ? label : "#" + std::to_string(enqueued_);
  e.not_before = Clock::now();
  queue_.push_back(std::move(e));
  cv_.notify_one();
  return true;
}

bool Servant_Task_Scheduler::is_running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_ && (!queue_.empty() || running_ > 0);
}

void Servant_Task_Scheduler::wait() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }
  cv_.notify_all();
  for (auto& t : threads_)
    t.join();
  threads_.clear();
}

bool Servant_Task_Scheduler::stop_requested() {
  if (stopped_)
    return true;
  if (stop_callback_ && stop_callback_()) {
    stopped_ = true;
    cv_.notify_all();
    return true;
  }
  return false;
}

void Servant_Task_Scheduler::stop_locked() {
  if (queue_.empty())
    return;
  LOG_MSG((LM_INFO, "Servant tasks '%s' stopped, %d not run.\n", method_.c_str(),
           static_cast<int>(queue_.size())));
  queue_.clear();
  cv_.notify_all();
}

bool Servant_Task_Scheduler::take(Entry& entry) {
  for (;;) {
    // The callback is the caller's code: asked outside our lock.
    bool stop = stop_requested();
    std::unique_lock<std::mutex> lock(mutex_);
    if (stop) {
      stop_locked();
      return false;
    }
    // A running task may still come back for a retry, so the threads stay until none runs.
    if (closed_ && queue_.empty() && running_ == 0)
      return false;
    const auto now = Clock::now();
    auto wake = now + TICK;
    for (auto it = queue_.begin(); it != queue_.end(); ++it) {
      auto owner = running_per_owner_.find(it->task.owner);
      if (per_owner_ > 0 && owner != running_per_owner_.end() && owner->second >= per_owner_)
        continue;
      if (it->not_before > now) {
        wake = std::min(wake, it->not_before);
        continue;
      }
      entry = std::move(*it);
      queue_.erase(it);
      ++running_;
      ++running_per_owner_[entry.task.owner];
      return true;
    }
    cv_.wait_until(lock, wake);
  }
}

std::shared_ptr<JSON_RPC_Response> Servant_Task_Scheduler::run_servant(const Servant_Task& task) {
  Servant servant;
  if (!setup_(servant, task) || !servant.start())
    return nullptr;
  auto response =
      servant.call(method_, task.params, time_limit_, [this] { return stop_requested(); });
  // Ended before the handler runs, so that the servant's last log lines come first.
  servant.stop();
  return response;
}

void Servant_Task_Scheduler::finish(Entry entry, int result) {
  std::lock_guard<std::mutex> lock(mutex_);
  --running_;
  if (--running_per_owner_[entry.task.owner] == 0)
    running_per_owner_.erase(entry.task.owner);
  if (result == 0) {
    ++succeeded_;
  } else if (result == 2 && !stopped_ && entry.task.attempt < retry_count_) {
    ++entry.task.attempt;
    LOG_MSG((LM_WARNING, "Servant task '%s' failed, retry %d of %d in %d seconds.\n",
             entry.task.label.c_str(), entry.task.attempt, retry_count_, retry_interval_));
    entry.not_before = Clock::now() + std::chrono::seconds(retry_interval_);
    queue_.push_back(std::move(entry));
  } else {
    ++failed_;
  }
  cv_.notify_all();
}

void Servant_Task_Scheduler::run() {
  Entry entry;
  while (take(entry)) {
    auto response = run_servant(entry.task);
    int result = handler_(entry.task, std::move(response));
    finish(std::move(entry), result);
  }
}
