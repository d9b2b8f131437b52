#include "host/core/log.h"

#include "host/core/text.h"

#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>

namespace {

class Log_Backend : public ACE_Log_Msg_Backend {
 public:
  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }

  ssize_t log(ACE_Log_Record& record) override {
    auto priority = static_cast<ACE_Log_Priority>(record.type());
    ACE_Log_Msg* msg = ACE_Log_Msg::instance();
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

    std::string text = record.msg_data();
    if (text.empty() || text.back() != '\n')
      text += '\n';
    std::lock_guard<std::mutex> lock(mutex_);
    std::string line = string_sprintf(
        "%s.%03ld %s[%d:%ld] %s %s:%d ", stamp, now.tv_nsec / 1000000, program_.c_str(), getpid(),
        static_cast<long>(syscall(SYS_gettid)), log_priority_name(priority),
        msg->file() ? msg->file() : "?", msg->linenum());
    line += text;
    if (file_) {
      fputs(line.c_str(), file_);
      fflush(file_);
    }
    if (to_stderr_)
      fputs(line.c_str(), stderr);
    for (auto& [id, sink] : sinks_)
      sink(priority, line);
    return static_cast<ssize_t>(line.size());
  }

  bool configure(const Log_Options& options) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_)
      fclose(file_);
    file_ = nullptr;
    if (!options.file.empty()) {
      file_ = fopen(options.file.c_str(), "ae");
      if (!file_)
        return false;
    }
    program_ = options.program.empty() ? "" : options.program + " ";
    to_stderr_ = options.to_stderr;
    return true;
  }

  int add(Log_Sink sink) {
    std::lock_guard<std::mutex> lock(mutex_);
    sinks_.emplace(++last_id_, std::move(sink));
    return last_id_;
  }

  void remove(int id) {
    std::lock_guard<std::mutex> lock(mutex_);
    sinks_.erase(id);
  }

 private:
  std::mutex mutex_;
  FILE* file_ = nullptr;
  std::string program_;
  bool to_stderr_ = true;
  std::map<int, Log_Sink> sinks_;
  int last_id_ = 0;
};

Log_Backend& backend() {
  static Log_Backend* b = new Log_Backend;  // lives until exit: threads may log during shutdown
  return *b;
}

void install_backend() {
  static std::once_flag once;
  std::call_once(once, [] {
    ACE_Log_Msg::msg_backend(&backend());
    ACE_LOG_MSG->open(nullptr, ACE_Log_Msg::CUSTOM);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  });
}

// Messages logged before open_log() still reach stderr in the common format.
struct Early_Install {
  Early_Install() { install_backend(); }
} early_install;

}  // namespace

bool check_failed(const char* file, int line, const char* condition) {
  int saved = errno;
  ACE_Log_Msg* msg = ACE_Log_Msg::instance();
  msg->conditional_set(file, line, 0, saved);
  msg->log(LM_EMERGENCY, "Unexpected error in %N:%l, %s:\n%?\n", condition);
  errno = saved;
  return false;
}

bool open_log(const Log_Options& options) {
  install_backend();
  if (!backend().configure(options)) {
    LOG_MSG((LM_ERROR, "Failed to open log file '%s': %m.\n", options.file.c_str()));
    return false;
  }
  u_long mask = LM_INFO | LM_NOTICE | LM_WARNING | LM_STARTUP | LM_ERROR | LM_CRITICAL | LM_ALERT |
                LM_EMERGENCY | LM_SHUTDOWN;
  if (options.debug)
    mask |= LM_DEBUG | LM_TRACE;
  ACE_Log_Msg::instance()->priority_mask(mask, ACE_Log_Msg::PROCESS);
  return true;
}

int add_log_sink(Log_Sink sink) {
  install_backend();
  return backend().add(std::move(sink));
}

void remove_log_sink(int id) {
  backend().remove(id);
}

namespace {
thread_local std::uint64_t t_log_tag = 0;
}  // namespace

std::uint64_t log_thread_tag() {
  return t_log_tag;
}

void set_log_thread_tag(std::uint64_t tag) {
  t_log_tag = tag;
}

const char* log_priority_name(ACE_Log_Priority priority) {
  switch (priority) {
    case LM_TRACE:
      return "TRACE";
    case LM_DEBUG:
      return "DEBUG";
    case LM_INFO:
      return "INFO";
    case LM_NOTICE:
      return "NOTICE";
    case LM_WARNING:
      return "WARNING";
    case LM_STARTUP:
      return "STARTUP";
    case LM_ERROR:
      return "ERROR";
    case LM_CRITICAL:
      return "CRITICAL";
    case LM_ALERT:
      return "ALERT";
    case LM_EMERGENCY:
      return "EMERGENCY";
    case LM_SHUTDOWN:
      return "SHUTDOWN";
    default:
      return "LOG";
  }
}
