// CAS's asynchronous tasks: an operation answers {"msgId": ...} at once, and the client polls
// /cas/casrs/message/{msgId} until the task reports itself completed with its result.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace cas_sim {

struct Task_Outcome {
  std::string result = "0";  // "0" succeeded; any other text failed
  std::string fail_msg;
  std::string target_id;  // the id of what the task created; empty: nothing
};

struct Task_Progress {
  bool completed = false;
  int percent = 0;       // grows with the time spent, 100 once completed
  Task_Outcome outcome;  // told once completed
};

// Tasks run on the clock alone: each completes `duration` after its start. Thread-safe.
class Task_Engine {
 public:
  using Clock = std::chrono::steady_clock;

  // Returns the task's message id, a decimal number.
  std::string start(std::chrono::milliseconds duration, Task_Outcome outcome,
                    Clock::time_point now = Clock::now());
  // False for an unknown message id.
  bool progress(const std::string& msg_id, Task_Progress& out,
                Clock::time_point now = Clock::now()) const;

 private:
  struct Task {
    Clock::time_point start;
    Clock::duration duration;
    Task_Outcome outcome;
  };

  mutable std::mutex mutex_;
  std::uint64_t last_id_ = 0;
  std::map<std::string, Task> tasks_;
};

}  // namespace cas_sim
