#include "sim/cas/tasks.h"

namespace cas_sim {

std::string Task_Engine::start(std::chrono::milliseconds duration, Task_Outcome outcome,
                               Clock::time_point now) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string id = std::to_string(++last_id_);
  tasks_[id] = Task{now, duration, std::move(outcome)};
  return id;
}

bool Task_Engine::progress(const std::string& msg_id, Task_Progress& out,
                           Clock::time_point now) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = tasks_.find(msg_id);
  if (it == tasks_.end())
    return false;
  const Task& task = it->second;
  Clock::duration spent = now - task.start;
  out = Task_Progress{};
  if (spent >= task.duration) {
    out.completed = true;
    out.percent = 100;
    out.outcome = task.outcome;
  } else {
    // Never 100 before completion, as a client may take 100 for done.
    out.percent =
        spent.count() <= 0 ? 0 : static_cast<int>(99 * spent.count() / task.duration.count());
  }
  return true;
}

}  // namespace cas_sim
