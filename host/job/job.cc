#include "host/job/job.h"

#include "host/core/unique_fd.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

extern char** environ;

const char* job_state_name(int state) {
  switch (state) {
    case JOB_IDLE:
      return "idle";
    case JOB_PRECONDITION_FAILED:
      return "precondition_failed";
    case JOB_STARTING:
      return "starting";
    case JOB_RUNNING:
      return "running";
    case JOB_PAUSED:
      return "paused";
    case JOB_POST_ACTION:
      return "post_action";
    case JOB_STOPPED:
      return "stopped";
    case JOB_SUCCEEDED:
      return "succeeded";
    case JOB_FAILED:
      return "failed";
    case JOB_INACTIVE:
      return "inactive";
    case JOB_ABORTED:
      return "aborted";
    case JOB_SWITCHED:
      return "switched";
    default:
      return "unknown";
  }
}

Job::Job(std::shared_ptr<const Job_Definition> def) : def_(std::move(def)) {}

Job::~Job() {
  if (runner_.joinable())
    runner_.join();
  if (log_sink_ >= 0)
    remove_log_sink(log_sink_);
}

void Job::set_event_handler(std::shared_ptr<Job_Event_Handler> handler) {
  handler_ = std::move(handler);
}

void Job::set_log_callback(Job_Log_Callback callback) {
  log_callback_ = std::move(callback);
}

int Job::start(const Job_Args* args) {
  if (!CHECK_TRUE(handler_ != nullptr))
    return -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_) {
      LOG_MSG((LM_ERROR, "Job '%s' is running already.\n", def_->uid.c_str()));
      return -1;
    }
  }
  if (!activity_.get() && !open_job_activity(activity_, def_->uid, true))
    return -1;
  Job_Activity& act = *activity_.get();
  act.state = Job_Activity::running;
  act.start_time = std::time(nullptr);
  act.end_time = 0;
  act.total_size = act.processed_size = act.stored_size = 0;
  act.set_size = act.source_size = 0;
  std::string previous = Job_Activity::text(act.run_id);
  if (!Job_Activity::set_text(act.run_id, run_id_) ||
      !Job_Activity::set_text(act.previous_run_id, previous))
    return -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = true;
    result_ = JSON_Value::object();
    start_time_ = act.start_time;
    end_time_ = 0;
  }
  state_i(JOB_STARTING);
  if (start_i(args) != 0) {
    complete(false);
    return -1;
  }
  return 0;
}

int Job::stop(const Job_Args* args) {
  if (stop_i(args) != 0)
    return -1;
  std::lock_guard<std::mutex> lock(mutex_);
  if (Job_Activity* act = activity_.get();
      act && running_ && (state_ == JOB_STOPPED || state_ == JOB_ABORTED))
    act->state = Job_Activity::cancelled;
  return 0;
}

int Job::update_i(std::shared_ptr<const Job_Definition> def) {
  if (is_running())
    return -1;
  def_ = std::move(def);
  return 0;
}

int Job::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

void Job::state_i(int state) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = state;
    ++state_changes_;
  }
  state_cv_.notify_all();
}

int Job::wait_state_event(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  unsigned seen = state_changes_;
  state_cv_.wait_for(lock, limit, [&] { return state_changes_ != seen; });
  return state_;
}

int Job::wait_state(std::chrono::milliseconds limit, const std::function<bool(int)>& until) {
  std::unique_lock<std::mutex> lock(mutex_);
  state_cv_.wait_for(lock, limit, [&] { return until(state_); });
  return state_;
}

bool Job::is_running() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

void Job::wait() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    state_cv_.wait(lock, [&] { return !running_; });
  }
  std::lock_guard<std::mutex> lock(thread_mutex_);
  if (runner_.joinable() && runner_.get_id() != std::this_thread::get_id())
    runner_.join();
}

void Job::set_result(const std::string& key, JSON_Value value) {
  std::lock_guard<std::mutex> lock(mutex_);
  result_[key] = std::move(value);
}

JSON_Value Job::result() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return result_;
}

bool Job::succeeded() const {
  int s = state();
  return s == JOB_SUCCEEDED || s == JOB_PRECONDITION_FAILED || s == JOB_INACTIVE;
}

std::int64_t Job::start_time() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return start_time_;
}

std::int64_t Job::end_time() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return end_time_;
}

int Job::spawn(std::function<void()> body) {
  std::lock_guard<std::mutex> lock(thread_mutex_);
  if (runner_.joinable())
    runner_.join();  // the thread of a run that has completed
  try {
    runner_ = std::thread(std::move(body));
  } catch (const std::exception& e) {
    LOG_MSG(
        (LM_ERROR, "Failed to start a thread for job '%s': %s.\n", def_->uid.c_str(), e.what()));
    return -1;
  }
  return 0;
}

void Job::register_thread() {
  static std::atomic<std::uint64_t> last_tag{0};
  if (log_sink_ < 0)
    log_tag_ = ++last_tag;
  set_log_thread_tag(log_tag_);
  if (log_sink_ < 0 && log_callback_)
    log_sink_ = add_log_sink([this, tag = log_tag_](ACE_Log_Priority, const std::string& line) {
      // Sinks run on the logging thread: lines of this job's thread and of the threads that
      // took its tag belong to its run.
      if (log_thread_tag() == tag)
        log_callback_(line);
    });
}

void Job::complete(bool ok) {
  int final_state;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != JOB_STOPPED && state_ != JOB_ABORTED && state_ != JOB_PRECONDITION_FAILED &&
        state_ != JOB_INACTIVE)
      state_ = ok ? JOB_SUCCEEDED : JOB_FAILED;
    final_state = state_;
    // Under the lock, so that a stop request does not overwrite the final state.
    if (Job_Activity* act = activity_.get()) {
      act->state = final_state == JOB_STOPPED || final_state == JOB_ABORTED
                       ? Job_Activity::cancelled
                   : ok && final_state != JOB_FAILED ? Job_Activity::completed
                                                     : Job_Activity::failed;
      act->end_time = act->last_run_time = std::time(nullptr);
    }
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    end_time_ = std::time(nullptr);
    if (log_sink_ >= 0)
      remove_log_sink(log_sink_);
    log_sink_ = -1;
    running_ = false;
    ++state_changes_;
  }
  state_cv_.notify_all();
}

Job_Mutex::Guard& Job_Mutex::Guard::operator=(Guard&& other) {
  if (this != &other) {
    release();
    mutex_ = std::move(other.mutex_);
  }
  return *this;
}

void Job_Mutex::Guard::release() {
  if (mutex_)
    mutex_->unlock();
  mutex_.reset();
}

std::shared_ptr<Job_Mutex> Job_Mutex::get(const std::string& name) {
  static std::mutex registry_mutex;
  static std::map<std::string, std::weak_ptr<Job_Mutex>> registry;
  std::lock_guard<std::mutex> lock(registry_mutex);
  std::shared_ptr<Job_Mutex> m = registry[name].lock();
  if (!m) {
    m = std::make_shared<Job_Mutex>();
    registry[name] = m;
  }
  for (auto it = registry.begin(); it != registry.end();)
    it = it->second.expired() ? registry.erase(it) : std::next(it);
  return m;
}

bool Job_Mutex::try_lock() {
  return mutex_.try_lock();
}

void Job_Mutex::unlock() {
  mutex_.unlock();
}

Job_Mutex::Guard Job_Mutex::acquire(const std::string& name, Job& job,
                                    std::chrono::milliseconds period,
                                    const std::function<void()>& waiting) {
  std::shared_ptr<Job_Mutex> m = get(name);
  while (!m->try_lock()) {
    if (waiting)
      waiting();
    auto ended = [](int state) { return state == JOB_STOPPED || state == JOB_ABORTED; };
    if (ended(job.wait_state(period, ended)))
      return Guard();
  }
  return Guard(std::move(m));
}

bool execute_script(const std::string& script, const Job& job, const Job_Log_Callback& log) {
  if (script.empty())
    return true;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    LOG_MSG((LM_ERROR, "Failed to make a pipe for a script of job '%s': %m.\n",
             job.definition().uid.c_str()));
    return false;
  }
  Unique_Fd read_end(fds[0]), write_end(fds[1]);
  std::vector<std::string> env_text = {"BRIMLET_JOB_UID=" + job.definition().uid,
                                       "BRIMLET_JOB_NAME=" + job.definition().name,
                                       "BRIMLET_RUN_ID=" + job.run_id()};
  std::vector<char*> env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "BRIMLET_JOB_", 12) != 0 && std::strncmp(*e, "BRIMLET_RUN_ID=", 15) != 0)
      env.push_back(*e);
  for (auto& e : env_text)
    env.push_back(e.data());
  env.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), 2);
  const char* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  pid_t pid;
  int err = posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), env.data());
  posix_spawn_file_actions_destroy(&actions);
  write_end.reset();
  if (err != 0) {
    errno = err;
    LOG_MSG((LM_ERROR, "Failed to run a script of job '%s': %m.\n", job.definition().uid.c_str()));
    return false;
  }
  std::string pending;
  auto emit = [&](std::string line) {
    line += "\n";
    if (log)
      log(line);
    else
      LOG_MSG((LM_INFO, "%s", line.c_str()));
  };
  char buf[4096];
  ssize_t n;
  while ((n = read(read_end.get(), buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
    pending.append(buf, static_cast<std::size_t>(n > 0 ? n : 0));
    for (std::size_t eol; (eol = pending.find('\n')) != std::string::npos;) {
      emit(pending.substr(0, eol));
      pending.erase(0, eol + 1);
    }
  }
  if (!pending.empty())
    emit(pending);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
    return true;
  LOG_MSG((LM_ERROR, "Script of job '%s' failed (%s %d): %s\n", job.definition().uid.c_str(),
           WIFEXITED(status) ? "exit status" : "signal",
           WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status), script.c_str()));
  return false;
}
