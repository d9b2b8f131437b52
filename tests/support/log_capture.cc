#include "tests/support/log_capture.h"

Log_Capture::Log_Capture() {
  id_ = add_log_sink([this](ACE_Log_Priority priority, const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(priority, line);
  });
}
Log_Capture::~Log_Capture() {
  remove_log_sink(id_);
}

std::string Log_Capture::text() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const auto& line : lines_)
    all += line.second;
  return all;
}

std::vector<std::string> Log_Capture::lines(ACE_Log_Priority priority) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> found;
  for (const auto& line : lines_)
    if (line.first == priority)
      found.push_back(line.second);
  return found;
}

std::size_t Log_Capture::count() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_.size();
}
