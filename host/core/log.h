// Logging: every message goes through ACE_Log_Msg. LOG_MSG sets the source file and line
// (repository-relative, see CMakeLists.txt) before the message, so %N and %l work in formats.
#pragma once

#include <ace/Log_Msg.h>
#include <ace/Log_Priority.h>

#include <cstdint>
#include <functional>
#include <string>

// LOG_MSG((LM_ERROR, "Failed to open '%s': %m.\n", path));
#define LOG_MSG(X) ACE_DEBUG(X)

// Check of an internal precondition. False after one emergency line with a stack trace:
//   if (!CHECK_TRUE(obj != nullptr)) return false;
#define CHECK_TRUE(cond) (static_cast<bool>(cond) || ::check_failed(__FILE__, __LINE__, #cond))

bool check_failed(const char* file, int line, const char* condition);

// Receives every formatted log line (already ended by "\n") that passes the priority mask.
using Log_Sink = std::function<void(ACE_Log_Priority priority, const std::string& line)>;

struct Log_Options {
  std::string program;  // prefixed to each line
  std::string file;     // appended to; empty: none
  bool to_stderr = true;
  bool debug = false;  // LM_DEBUG and LM_TRACE pass only when set
};

// Process-wide: applies to every thread, whoever created it. Safe to call again.
bool open_log(const Log_Options& options);

// A sink stays registered until remove_log_sink(id). Sinks run under the log lock: keep them short
// and never log from one.
int add_log_sink(Log_Sink sink);
void remove_log_sink(int id);

// The tag of the calling thread (0 unless set). A sink can take the lines of one piece of work by
// its tag, also from the threads the work starts when they take the tag of their starter.
std::uint64_t log_thread_tag();
void set_log_thread_tag(std::uint64_t tag);

// "ERROR", "WARNING", ... for a priority.
const char* log_priority_name(ACE_Log_Priority priority);
