#include "host/servant/servant.h"

#include "host/core/log.h"

#include <ace/Process.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

using Clock = std::chrono::steady_clock;

// The servant finds its channel here (SERVANT_ENV_FD says so too).
constexpr int CHANNEL_FD = 3;
// A longer log line is handed on in pieces.
constexpr std::size_t LOG_LINE_MAX = 64 * 1024;
// What a servant may take to accept a request when the call itself has no time limit.
constexpr int SEND_TIMEOUT_MS = 60 * 1000;

int ms_left(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() < 0 ? 0 : static_cast<int>(std::min<long long>(left.count(), INT_MAX));
}

// Plumbs the servant's descriptors between fork and exec, where only async-signal-safe calls are
// allowed: stdin from /dev/null, stdout and stderr into the log pipe, the channel as descriptor 3,
// and nothing else of ours (a stray copy of another servant's channel would hide that servant's
// end from us).
class Servant_Process : public ACE_Process {
 public:
  Servant_Process(int in, int log, int channel) : in_(in), log_(log), channel_(channel) {}

 protected:
  void child(pid_t) override {
    // Copies above the targets first, so that no dup2 overwrites a source still needed.
    int in = fcntl(in_, F_DUPFD, 10);
    int log = fcntl(log_, F_DUPFD, 10);
    int channel = fcntl(channel_, F_DUPFD, 10);
    if (in < 0 || log < 0 || channel < 0 || dup2(in, 0) < 0 || dup2(log, 1) < 0 ||
        dup2(log, 2) < 0 || dup2(channel, CHANNEL_FD) < 0)
      _exit(127);
    if (syscall(SYS_close_range, CHANNEL_FD + 1, ~0U, 0) != 0) {
      close(in);
      close(log);
      close(channel);
    }
  }

 private:
  int in_, log_, channel_;
};

bool set_nonblocking(int fd) {
  int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// ACE splits the command line at blanks and quotes.
bool fits_command_line(const std::string& s) {
  return !s.empty() && s.find_first_of(" \t\n\"'") == std::string::npos;
}

}  // namespace

int prepend_process_options_env(ACE_Process_Options& options, const char* name, const char* value) {
  if (!name || !*name || std::strchr(name, '=') || !value) {
    errno = EINVAL;
    return -1;
  }
  const std::size_t name_len = std::strlen(name);
  const char* current = nullptr;
  // The child takes the last assignment of a name, so the last one set on the options counts.
  for (char* const* e = options.env_argv(); e && *e; ++e)
    if (std::strncmp(*e, name, name_len) == 0 && (*e)[name_len] == '=')
      current = *e + name_len + 1;
  if (!current && options.inherit_environment())
    current = std::getenv(name);
  std::string joined = value;
  if (current && *current)
    joined.append(":").append(current);
  errno = 0;
  if (options.setenv(name, "%s", joined.c_str()) != 0) {
    if (errno == 0)
      errno = ENOBUFS;  // the options' environment buffer is full
    return -1;
  }
  return 0;
}

Servant::Servant() {
  reset(nullptr, nullptr, nullptr, nullptr, nullptr);
}

Servant::~Servant() {
  stop();
}

std::string Servant::default_program() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0)
    return "brimlet-servant";
  std::string path(self, static_cast<std::size_t>(n));
  return path.substr(0, path.rfind('/') + 1) + "brimlet-servant";
}

void Servant::reset(const char* starter, const char* conf_path, const char* work_dir,
                    const char* program, const char* label) {
  stop();
  options_ = std::make_unique<ACE_Process_Options>(true, 4 * PATH_MAX);
  starter_ = starter ? starter : "";
  conf_path_ = conf_path ? conf_path : "";
  work_dir_ = work_dir ? work_dir : "";
  program_ = program ? program : "";
  label_ = label && *label ? label : "servant";
  flags_ = 0;
  stop_grace_ = 0;
  log_callback_ = nullptr;
  exit_status_ = -1;
}

void Servant::set_log_msg_callback(Log_Msg_Callback callback) {
  log_callback_ = std::move(callback);
}

void Servant::set_flags(unsigned flags) {
  flags_ = flags;
}

ACE_Process_Options& Servant::get_process_options() {
  return *options_;
}

bool Servant::start() {
  if (!CHECK_TRUE(pid_ < 0))
    return false;
  const std::string program = program_.empty() ? default_program() : program_;
  if (!fits_command_line(program) || !fits_command_line(conf_path_)) {
    LOG_MSG((LM_ERROR,
             "Cannot start servant '%s': program '%s' and configuration '%s' must be given, "
             "without blanks or quotes.\n",
             label_.c_str(), program.c_str(), conf_path_.c_str()));
    return false;
  }
  if (access(program.c_str(), X_OK) != 0) {
    LOG_MSG((LM_ERROR, "Cannot start servant '%s', program '%s': %m.\n", label_.c_str(),
             program.c_str()));
    return false;
  }
  int pair[2], pipe_fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    LOG_MSG((LM_ERROR, "Failed to create the channel of servant '%s': %m.\n", label_.c_str()));
    return false;
  }
  Unique_Fd channel(pair[0]), child_channel(pair[1]);
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) {
    LOG_MSG((LM_ERROR, "Failed to create the log pipe of servant '%s': %m.\n", label_.c_str()));
    return false;
  }
  Unique_Fd log_fd(pipe_fds[0]), child_log(pipe_fds[1]);
  Unique_Fd null_fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!null_fd || !set_nonblocking(channel.get()) || !set_nonblocking(log_fd.get())) {
    LOG_MSG((LM_ERROR, "Failed to prepare descriptors of servant '%s': %m.\n", label_.c_str()));
    return false;
  }

  ACE_Process_Options& o = *options_;
  o.command_line("%s --config %s%s", program.c_str(), conf_path_.c_str(),
                 flags_ & DEBUG_LOG ? " --debug" : "");
  if (o.setenv(SERVANT_ENV_FD, "%d", CHANNEL_FD) != 0 ||
      o.setenv(SERVANT_ENV_LABEL, "%s", label_.c_str()) != 0 ||
      o.setenv(SERVANT_ENV_STARTER, "%s", starter_.c_str()) != 0) {
    LOG_MSG((LM_ERROR, "Failed to set the environment of servant '%s'.\n", label_.c_str()));
    return false;
  }
  if (!work_dir_.empty())
    o.working_directory(work_dir_.c_str());

  Servant_Process process(null_fd.get(), child_log.get(), child_channel.get());
  pid_t pid = process.spawn(o);
  if (pid == ACE_INVALID_PID) {
    LOG_MSG(
        (LM_ERROR, "Failed to start servant '%s' (%s): %m.\n", label_.c_str(), program.c_str()));
    return false;
  }
  pid_ = pid;
  exit_status_ = -1;
  channel_ = std::move(channel);
  log_fd_ = std::move(log_fd);
  LOG_MSG((LM_DEBUG, "Started servant '%s' (pid %d) for '%s'.\n", label_.c_str(), pid_,
           starter_.c_str()));
  return true;
}

std::shared_ptr<JSON_RPC_Response> Servant::call(const std::string& method,
                                                 const JSON_Value& params, int timeout_seconds,
                                                 const std::function<bool()>& cancelled) {
  if (pid_ < 0 || !channel_) {
    LOG_MSG((LM_ERROR, "Servant '%s' is not running, cannot call '%s'.\n", label_.c_str(),
             method.c_str()));
    return nullptr;
  }
  const bool limited = timeout_seconds > 0;
  const auto deadline = Clock::now() + std::chrono::seconds(limited ? timeout_seconds : 0);
  const JSON_Value id = next_id_++;
  const JSON_RPC_Request request(method, params, id);
  if (!write_frame(channel_.get(), frame_text(request),
                   limited ? ms_left(deadline) : SEND_TIMEOUT_MS)) {
    LOG_MSG((LM_ERROR, "Failed to send '%s' to servant '%s' (pid %d): %m.\n", method.c_str(),
             label_.c_str(), pid_));
    stop();
    return nullptr;
  }

  Frame_Decoder decoder;
  const pid_t pid = pid_;
  bool stopping = false;
  auto stop_deadline = Clock::now();
  for (;;) {
    pollfd fds[2] = {{channel_.get(), POLLIN, 0}, {log_fd_.get(), POLLIN, 0}};
    int wait_ms = limited ? std::min(100, ms_left(deadline)) : 100;
    if (poll(fds, log_fd_ ? 2 : 1, wait_ms) < 0 && errno != EINTR) {
      LOG_MSG((LM_ERROR, "Failed to wait for servant '%s': %m.\n", label_.c_str()));
      stop();
      return nullptr;
    }
    if (log_fd_ && fds[1].revents)
      read_log();
    if (fds[0].revents) {
      char buf[65536];
      ssize_t n = read(channel_.get(), buf, sizeof buf);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        stop();
        LOG_MSG((LM_ERROR, "Servant '%s' (pid %d) ended without answering '%s': %s.\n",
                 label_.c_str(), pid, method.c_str(), exit_text().c_str()));
        return nullptr;
      }
      if (n > 0 && !decoder.feed(buf, static_cast<std::size_t>(n))) {
        LOG_MSG((LM_ERROR, "Servant '%s' (pid %d) sent a malformed frame for '%s'.\n",
                 label_.c_str(), pid, method.c_str()));
        stop();
        return nullptr;
      }
      std::string text;
      if (decoder.next(text)) {
        int code = 0;
        std::string message;
        JSON_Value value = JSON_Value::parse(text, nullptr, false);
        auto obj = value.is_discarded() ? nullptr : parse_json_rpc(value, code, message);
        if (!obj || obj->is_request() || obj->id() != id) {
          LOG_MSG((LM_ERROR, "Servant '%s' (pid %d) answered '%s' with no response to it: %.200s\n",
                   label_.c_str(), pid, method.c_str(), text.c_str()));
          stop();
          return nullptr;
        }
        // Log lines written before the answer are already in the pipe.
        if (log_fd_)
          read_log();
        return std::static_pointer_cast<JSON_RPC_Response>(obj);
      }
    }
    if (!stopping && cancelled && cancelled())
      stopping = true, stop_deadline = Clock::now() + std::chrono::seconds(stop_grace_);
    if (stopping && Clock::now() >= stop_deadline) {
      LOG_MSG((LM_WARNING, "Servant '%s' (pid %d) stopped while running '%s'.\n", label_.c_str(),
               pid, method.c_str()));
      stop();
      return nullptr;
    }
    if (limited && ms_left(deadline) == 0) {
      LOG_MSG((LM_ERROR, "Servant '%s' (pid %d) did not answer '%s' within %d seconds.\n",
               label_.c_str(), pid, method.c_str(), timeout_seconds));
      stop();
      return nullptr;
    }
  }
}

void Servant::stop() {
  channel_.reset();
  if (pid_ >= 0 && !wait_exit(2000)) {
    kill(pid_, SIGTERM);
    if (!wait_exit(3000)) {
      kill(pid_, SIGKILL);
      wait_exit(-1);
    }
  }
  if (log_fd_)
    read_log();
  log_fd_.reset();
  if (!log_partial_.empty())
    forward_log_line(log_partial_);
  log_partial_.clear();
}

bool Servant::wait_exit(int ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(ms < 0 ? 0 : ms);
  for (;;) {
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_ || (r < 0 && errno != EINTR)) {
      // ECHILD: someone else reaped it (SIGCHLD ignored); it has ended all the same.
      exit_status_ = r == pid_ ? status : 0;
      pid_ = -1;
      return true;
    }
    if (ms >= 0 && ms_left(deadline) == 0)
      return false;
    int wait_ms = ms < 0 ? 20 : std::min(20, ms_left(deadline));
    if (log_fd_) {
      pollfd p{log_fd_.get(), POLLIN, 0};
      if (poll(&p, 1, wait_ms) > 0 && !read_log())
        log_fd_.reset();
    } else {
      usleep(static_cast<useconds_t>(wait_ms) * 1000);
    }
  }
}

bool Servant::read_log() {
  char buf[8192];
  // Bounded, so that a servant that logs without pause cannot hold the caller here.
  for (int round = 0; round < 16; ++round) {
    ssize_t n = read(log_fd_.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return errno == EAGAIN || errno == EWOULDBLOCK;
    if (n == 0) {
      log_fd_.reset();
      return false;
    }
    log_partial_.append(buf, static_cast<std::size_t>(n));
    std::size_t start = 0;
    for (std::size_t nl; (nl = log_partial_.find('\n', start)) != std::string::npos; start = nl + 1)
      forward_log_line(log_partial_.substr(start, nl - start));
    log_partial_.erase(0, start);
    if (log_partial_.size() >= LOG_LINE_MAX) {
      forward_log_line(log_partial_);
      log_partial_.clear();
    }
  }
  return true;
}

void Servant::forward_log_line(const std::string& line) {
  if (log_callback_)
    log_callback_(line);
  else
    LOG_MSG((LM_INFO, "Servant '%s': %s\n", label_.c_str(), line.c_str()));
}

std::string Servant::exit_text() const {
  if (exit_status_ < 0)
    return "still running";
  if (WIFSIGNALED(exit_status_))
    return "killed by signal " + std::to_string(WTERMSIG(exit_status_));
  return "exit status " + std::to_string(WEXITSTATUS(exit_status_));
}
