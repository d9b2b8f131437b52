// Jobs: one object per job definition, run by a module's executor in a thread of its own. The
// module makes jobs through its Job_Creator and fills the run (Default_Job_T, job_t.h); the host
// starts, stops and watches them through Job.
#pragma once

#include "host/core/json.h"
#include "host/core/log.h"
#include "host/job/activity.h"
#include "host/job/definition.h"
#include "host/job/event_handler.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// States of a job (Job::state()).
enum Job_State : int {
  JOB_IDLE = 0,                 // made, not started
  JOB_PRECONDITION_FAILED = 1,  // the precondition said no: the run did nothing
  JOB_STARTING = 2,             // started, its thread not yet running the body
  JOB_RUNNING = 3,              // pre-action and body
  JOB_PAUSED = 4,
  JOB_POST_ACTION = 6,
  JOB_STOPPED = 8,  // a stop was requested; the run winds down and ends cancelled
  JOB_SUCCEEDED = 9,
  JOB_FAILED = 10,
  JOB_INACTIVE = 17,  // nothing to do: the run did nothing
  JOB_ABORTED = 20,
  JOB_SWITCHED = 23,
};

// "idle", "precondition_failed", "starting", "running", "paused", "post_action", "stopped",
// "succeeded", "failed", "inactive", "aborted", "switched"; "unknown" for any other value.
const char* job_state_name(int state);

using Job_Args = std::map<std::string, std::string>;
// Where a job's log lines go (the run's log file): one line as it is to be written, with or
// without its "\n" (a servant's log line, a script's output line, a formatted line of the job's
// own thread). Servant::Log_Msg_Callback takes the same.
using Job_Log_Callback = std::function<void(const std::string& line)>;

class Job {
 public:
  explicit Job(std::shared_ptr<const Job_Definition> def);
  // Waits for a run still going (stop it first).
  virtual ~Job();
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  // Set by the host before start(): who hears about the run, where its log goes, its run id.
  void set_event_handler(std::shared_ptr<Job_Event_Handler> handler);
  void set_log_callback(Job_Log_Callback callback);
  void set_run_id(const std::string& run_id) { run_id_ = run_id; }

  // Opens the job's activity record, marks it running and starts the run in a thread of its own
  // (start_i). -1 after one log line when the job is running already or cannot start.
  int start(const Job_Args* args = nullptr);
  // Requests; 0 when taken, -1 when this kind of job does not support it.
  // A run being stopped is cancelled in its activity record at once, so that its servants and
  // readers of the record need not wait for it to wind down.
  int stop(const Job_Args* args = nullptr);
  int pause(const Job_Args* args = nullptr) { return pause_i(args); }
  int resume(const Job_Args* args = nullptr) { return resume_i(args); }
  int abort(const Job_Args* args = nullptr) { return abort_i(args); }
  int remove(bool flag, const Job_Args* args = nullptr) { return remove_i(flag, args); }
  int rollback() { return rollback_i(); }
  int update(std::shared_ptr<const Job_Definition> def) { return update_i(std::move(def)); }

  const Job_Definition& definition() const { return *def_; }
  std::shared_ptr<const Job_Definition> definition_ptr() const { return def_; }
  const std::string& run_id() const { return run_id_; }
  Job_Event_Handler& event_handler() const { return *handler_; }
  // Forwards a line to the run's log (and nowhere else); for servants and scripts.
  const Job_Log_Callback& log_callback() const { return log_callback_; }
  // The shared activity record; open from start() until the job is destroyed.
  Job_Activity_Handle& activity() { return activity_; }

  int state() const;
  // Sets the state and wakes every waiter of the state event.
  void state_i(int state);
  // Waits until the state changes or `limit` passes; the state then.
  int wait_state_event(std::chrono::milliseconds limit);
  // Waits until `until(state)` holds (checked first) or `limit` passes; the state then.
  int wait_state(std::chrono::milliseconds limit, const std::function<bool(int)>& until);
  // Between start() and complete().
  bool is_running() const;
  // Waits until the run has completed and its thread has ended. The owner of a job keeps it at
  // least until then.
  void wait();

  // The run's result: members set by the executor ("h3c-cas": per-VM histories, ...).
  void set_result(const std::string& key, JSON_Value value);
  JSON_Value result() const;
  // Whether the last run ended well: the state it ended in was succeeded, precondition failed or
  // inactive.
  bool succeeded() const;
  // When the last run started and ended (seconds since the epoch; 0 while it runs).
  std::int64_t start_time() const;
  std::int64_t end_time() const;

 protected:
  virtual int handle_exception(int) { return 0; }
  virtual int start_i(const Job_Args* args) = 0;
  virtual int stop_i(const Job_Args*) { return -1; }
  virtual int pause_i(const Job_Args*) { return -1; }
  virtual int resume_i(const Job_Args*) { return -1; }
  virtual int abort_i(const Job_Args*) { return -1; }
  virtual int remove_i(bool, const Job_Args*) { return 0; }
  virtual int update_i(std::shared_ptr<const Job_Definition> def);
  virtual int rollback_i() { return -1; }
  virtual void run_i(const Job_Args* args) = 0;

  // For start_i: runs `body` in the job's thread (joined by wait()). -1 after one log line.
  int spawn(std::function<void()> body);
  // For run_i: the calling thread runs the job (its log lines, and those of the threads that take
  // its log tag, go to the run's log too).
  void register_thread();
  // For run_i: the run ended; `ok` is the executor's answer. Sets the final state (stopped and
  // aborted runs keep theirs; precondition failed and inactive too), closes the activity record's
  // run and wakes wait().
  void complete(bool ok);

 private:
  std::shared_ptr<const Job_Definition> def_;
  std::shared_ptr<Job_Event_Handler> handler_;
  Job_Log_Callback log_callback_;
  std::string run_id_;
  Job_Activity_Handle activity_;
  int log_sink_ = -1;
  std::uint64_t log_tag_ = 0;  // of the threads whose lines go to the run's log

  mutable std::mutex mutex_;
  std::condition_variable state_cv_;
  int state_ = JOB_IDLE;
  unsigned state_changes_ = 0;
  bool running_ = false;
  std::mutex thread_mutex_;  // guards runner_
  std::thread runner_;
  JSON_Value result_ = JSON_Value::object();
  std::int64_t start_time_ = 0, end_time_ = 0;
};

// Made by a module: the job object of a definition.
class Job_Creator {
 public:
  virtual ~Job_Creator() = default;
  // Null for a definition this module cannot run (errno ENOMEM when out of memory).
  virtual std::shared_ptr<Job> create(std::shared_ptr<const Job_Definition> def) = 0;
};

// Named mutexes shared by the whole process: jobs of one protected entry (one CVM) serialise on
// the mutex of its name.
class Job_Mutex {
 public:
  // Held until destroyed or released; empty when not held.
  class Guard {
   public:
    Guard() = default;
    explicit Guard(std::shared_ptr<Job_Mutex> m) : mutex_(std::move(m)) {}
    Guard(Guard&&) = default;
    Guard& operator=(Guard&& other);
    ~Guard() { release(); }
    explicit operator bool() const { return mutex_ != nullptr; }
    void release();

   private:
    std::shared_ptr<Job_Mutex> mutex_;
  };

  // The mutex of `name`, the same object for every caller while anyone holds it.
  static std::shared_ptr<Job_Mutex> get(const std::string& name);
  bool try_lock();
  void unlock();

  // The mutex of `name` for `job`: taken at once if free; otherwise `waiting` is called (to log
  // why), the job's state event is awaited for at most `period`, and the lock is tried again,
  // until it is held (a guard) or the job is stopped or aborted (an empty guard).
  static Guard acquire(const std::string& name, Job& job, std::chrono::milliseconds period,
                       const std::function<void()>& waiting);

 private:
  std::mutex mutex_;
};

// Runs `script` with /bin/sh -c, its output (stdout and stderr) going line by line to `log` as
// written (or to the process log at information level when `log` is empty). The environment gets
// BRIMLET_JOB_UID, BRIMLET_JOB_NAME and BRIMLET_RUN_ID of `job`. True when it exits with 0;
// otherwise false after one log line with the exit status. An empty script succeeds at once.
bool execute_script(const std::string& script, const Job& job, const Job_Log_Callback& log);
