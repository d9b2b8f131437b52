// Templates a module instantiates for its executors: the executor sequence (precondition,
// pre-action, body, post-action, events), the job that runs one executor per run, the job that
// also takes stop/pause/switch/abort requests, and the creator that picks the job by the
// definition's type.
#pragma once

#include "host/job/job.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <new>
#include <optional>

// The body of one run of a job. S and O are the module's source and options records; H the event
// handler type (Job_Event_Handler or a class derived from it that the host gives the job). A new
// executor is made for every run and destroyed when the run ends.
template <class S, class O, class H = Job_Event_Handler>
class Job_Executor_T {
 public:
  explicit Job_Executor_T(Job& job)
      : job_(job),
        def_(job.definition_ptr()),
        act_(job.activity()),
        src_(std::dynamic_pointer_cast<S>(def_->source)),
        opts_(std::dynamic_pointer_cast<O>(def_->options)),
        handler_(static_cast<H&>(job.event_handler())) {}
  virtual ~Job_Executor_T() = default;

  virtual bool remove() { return true; }
  virtual bool setup_ondemand() { return true; }
  virtual bool remove_ondemand() { return true; }
  virtual bool update(const Job_Definition&) { return true; }
  virtual bool rollback() { return true; }
  virtual bool execute_i(const Job_Args* args) = 0;
  // The pre-action script; succeeds when it did (or its failure is ignored) and the job is still
  // running afterwards.
  virtual bool execute_pre_action() {
    bool ok = execute_script(def_->pre_action, job_, job_.log_callback()) ||
              def_->ignore_pre_action_failure;
    return ok && job_.state() == JOB_RUNNING;
  }
  // The post-action script, run in state JOB_POST_ACTION; its failure may be ignored.
  virtual bool execute_post_action() {
    if (def_->post_action.empty())
      return true;
    // A stopped job stays stopped: the run still ends cancelled.
    if (job_.state() != JOB_POST_ACTION && job_.state() != JOB_STOPPED)
      job_.state_i(JOB_POST_ACTION);
    return execute_script(def_->post_action, job_, job_.log_callback()) ||
           def_->ignore_post_action_failure;
  }
  virtual bool check_condition() { return true; }
  virtual bool is_active(const Job_Args*) { return true; }

  // One run: false when it failed or was cancelled (the events say which). A run with nothing to
  // do (inactive) or whose precondition said no counts as done.
  bool execute(const Job_Args* args) {
    if (!src_)
      return check_failed(__FILE__, __LINE__, "src_ is NULL");
    if (!is_active(args)) {
      stamp_last_run();
      job_.state_i(JOB_INACTIVE);
      return true;
    }
    if (!execute_script(def_->precondition, job_, job_.log_callback()) || !check_condition()) {
      stamp_last_run();
      job_.state_i(JOB_PRECONDITION_FAILED);
      return true;
    }
    job_.state_i(JOB_RUNNING);
    handler_.handle_start_job(job_);
    bool body = execute_pre_action() && execute_i(args);
    bool post = (body || def_->run_post_action_always) ? execute_post_action() : false;
    if (body && post) {
      handler_.handle_success(job_);
      return true;
    }
    if (job_.state() == JOB_STOPPED)
      handler_.handle_canceled(job_);
    else
      handler_.handle_failure(job_);
    return false;
  }

  bool is_canceled() const { return job_.state() == JOB_STOPPED; }

 protected:
  void stamp_last_run() {
    if (act_.get())
      act_->last_run_time = std::time(nullptr);
  }

  Job& job_;
  std::shared_ptr<const Job_Definition> def_;
  Job_Activity_Handle& act_;
  std::shared_ptr<S> src_;
  std::shared_ptr<O> opts_;
  H& handler_;
};

// A job whose runs are executed by a fresh E(job) each: E::execute(args) is the run.
template <class E>
class Default_Job_T : public Job {
 public:
  using Job::Job;

 protected:
  int start_i(const Job_Args* args) override {
    std::optional<Job_Args> copy;
    if (args && !args->empty())
      copy = *args;
    return spawn([this, copy] { run_i(copy ? &*copy : nullptr); });
  }
  // Aborting is cooperative: the executor sees the state between its steps.
  int abort_i(const Job_Args*) override {
    state_i(JOB_STOPPED);
    return 0;
  }
  int remove_i(bool, const Job_Args*) override {
    if (definition().schedule_type == Job_Definition::On_Demand && !run_fresh(&E::remove_ondemand))
      return -1;
    return run_fresh(&E::remove) ? 0 : -1;
  }
  int rollback_i() override { return run_fresh(&E::rollback) ? 0 : -1; }
  void run_i(const Job_Args* args) override {
    register_thread();
    if (Job_Activity* act = activity().get())
      Job_Activity::set_text(act->job_uid, definition().uid);
    bool ok = false;
    {
      std::unique_ptr<E> executor(new (std::nothrow) E(*this));
      if (executor)
        ok = executor->execute(args);
      else
        LOG_MSG((LM_ERROR, "Out of memory for a run of job '%s'.\n", definition().uid.c_str()));
    }
    complete(ok);
  }

 private:
  bool run_fresh(bool (E::*step)()) {
    std::unique_ptr<E> executor(new (std::nothrow) E(*this));
    return executor && ((*executor).*step)();
  }
};

// A job that also takes requests while it runs: they set the state the executor watches.
template <class E>
class Controllable_Job_T : public Default_Job_T<E> {
 public:
  using Default_Job_T<E>::Default_Job_T;
  int switch_job(const Job_Args* = nullptr) {
    this->state_i(JOB_SWITCHED);
    return 0;
  }

 protected:
  int stop_i(const Job_Args*) override { return request(JOB_STOPPED); }
  int pause_i(const Job_Args*) override { return request(JOB_PAUSED); }
  int resume_i(const Job_Args*) override { return request(JOB_RUNNING); }
  int abort_i(const Job_Args* args) override {
    return args ? Default_Job_T<E>::abort_i(args) : request(JOB_ABORTED);
  }

 private:
  int request(int state) {
    if (!this->is_running())
      return -1;
    this->state_i(state);
    return 0;
  }
};

// Makes a B job for a backup definition (type 1) and an R job for a restore (type 2).
template <class B, class R>
class Default_Job_Creator_T : public Job_Creator {
 public:
  std::shared_ptr<Job> create(std::shared_ptr<const Job_Definition> def) override {
    Job* job = nullptr;
    if (def && def->type == Job_Definition::Backup)
      job = new (std::nothrow) B(def);
    else if (def && def->type == Job_Definition::Restore)
      job = new (std::nothrow) R(def);
    else
      return nullptr;
    if (!job) {
      errno = ENOMEM;
      return nullptr;
    }
    return std::shared_ptr<Job>(job);
  }
};
