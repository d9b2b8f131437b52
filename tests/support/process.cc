#include "tests/support/process.h"

#include "host/core/paths.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

extern char** environ;

namespace {
using S = std::string;
using Clock = std::chrono::steady_clock;

std::vector<char*> to_argv(std::vector<S>& items) {
  std::vector<char*> out;
  for (auto& s : items)
    out.push_back(&s[0]);
  out.push_back(nullptr);
  return out;
}

std::vector<S> merged_env(const std::vector<S>& extra) {
  std::vector<S> env;
  for (char** e = environ; *e; ++e) {
    S entry = *e;
    bool overridden = false;
    for (const auto& x : extra)
      if (x.substr(0, x.find('=') + 1) == entry.substr(0, entry.find('=') + 1))
        overridden = true;
    if (!overridden)
      env.push_back(entry);
  }
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

S program_path(const S& name) {
  return name.find('/') == S::npos ? bin_path(name) : name;
}

// Forks and execs; the child's stdin/stdout/stderr come from the given descriptors (-1: keep).
pid_t spawn(const std::vector<S>& argv_in, const std::vector<S>& env_in, int in_fd, int out_fd,
            int err_fd) {
  std::vector<S> argv = argv_in;
  argv[0] = program_path(argv[0]);
  std::vector<S> env = merged_env(env_in);
  auto a = to_argv(argv);
  auto e = to_argv(env);
  pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    for (int i : {0, 1, 2})
      if (int fd = i == 0 ? in_fd : i == 1 ? out_fd : err_fd; fd >= 0)
        dup2(fd, i);
    execve(a[0], a.data(), e.data());
    fprintf(stderr, "exec %s: %s\n", a[0], strerror(errno));
    _exit(127);
  }
  return pid;
}
}  // namespace

S bin_path(const S& name) {
  return S(BRIMLET_BIN_DIR) + "/" + name;
}
Test_Process::~Test_Process() {
  stop();
}

bool Test_Process::start(const std::vector<S>& argv, const std::vector<S>& env, const S& log_file) {
  int fd = -1;
  if (!log_file.empty())
    fd = open(log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  pid_ = spawn(argv, env, -1, fd, fd);
  if (fd >= 0)
    close(fd);
  status_ = -1;
  return pid_ > 0;
}

bool Test_Process::running() {
  if (pid_ <= 0)
    return false;
  int st = 0;
  if (waitpid(pid_, &st, WNOHANG) == pid_) {
    status_ = st, pid_ = -1;
    return false;
  }
  return true;
}

bool Test_Process::wait_ready(const S& ready_file, JSON_Value& ready, int timeout_seconds) {
  auto deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
  while (Clock::now() < deadline) {
    S text;
    if (read_file(ready_file, text) &&
        !(ready = JSON_Value::parse(text, nullptr, false)).is_discarded())
      return true;
    if (!running())
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

int Test_Process::stop() {
  if (pid_ <= 0)
    return status_;
  kill(pid_, SIGTERM);
  auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    if (!running())
      return status_;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill_now();
  return status_;
}

void Test_Process::kill_now() {
  if (pid_ <= 0)
    return;
  kill(pid_, SIGKILL);
  int st = 0;
  waitpid(pid_, &st, 0), status_ = st, pid_ = -1;
}

Run_Result run_program(const std::vector<S>& argv, const S& input, const std::vector<S>& env,
                       int timeout_seconds) {
  Run_Result result;
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) || pipe2(out_pipe, O_CLOEXEC) || pipe2(err_pipe, O_CLOEXEC))
    return result;
  pid_t pid = spawn(argv, env, in_pipe[0], out_pipe[1], err_pipe[1]);
  for (int fd : {in_pipe[0], out_pipe[1], err_pipe[1]})
    close(fd);
  if (pid <= 0) {
    for (int fd : {in_pipe[1], out_pipe[0], err_pipe[0]})
      close(fd);
    return result;
  }
  // The input is small (passwords, answers): written up front, then stdin is closed.
  signal(SIGPIPE, SIG_IGN);
  if (!input.empty()) {
    ssize_t ignored = write(in_pipe[1], input.data(), input.size());
    (void)ignored;
  }
  close(in_pipe[1]);
  auto deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  S* sinks[2] = {&result.out, &result.err};
  int open_fds = 2;
  while (open_fds > 0 && Clock::now() < deadline) {
    if (poll(fds, 2, 100) <= 0)
      continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP)))
        continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<std::size_t>(n));
      } else {
        close(fds[i].fd), fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  for (auto& f : fds)
    if (f.fd >= 0)
      close(f.fd);
  if (open_fds > 0)
    kill(pid, SIGKILL);
  int st = 0;
  waitpid(pid, &st, 0);
  result.exit_code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return result;
}
