// Log lines written while a Log_Capture lives, for tests that check what was reported.
#pragma once

#include "host/core/log.h"

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class Log_Capture {
 public:
  Log_Capture();
  ~Log_Capture();
  Log_Capture(const Log_Capture&) = delete;
  Log_Capture& operator=(const Log_Capture&) = delete;

  // Every captured line, in order, each ending in "\n".
  std::string text() const;
  bool contains(const std::string& piece) const { return text().find(piece) != std::string::npos; }
  // Lines of one priority (LM_ERROR, LM_WARNING, ...).
  std::vector<std::string> lines(ACE_Log_Priority priority) const;
  std::size_t count(ACE_Log_Priority priority) const { return lines(priority).size(); }
  std::size_t count() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<ACE_Log_Priority, std::string>> lines_;
  int id_;
};
