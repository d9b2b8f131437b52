// Child processes for tests: start a program, wait for its ready file, stop it.
#pragma once

#include "host/core/json.h"

#include <sys/types.h>

#include <string>
#include <vector>

// Path of a built program ("cas-sim" -> "<build>/bin/cas-sim").
std::string bin_path(const std::string& name);

// A program running in the background; stopped (SIGTERM, then SIGKILL after 10 s) when destroyed.
class Test_Process {
 public:
  Test_Process() = default;
  ~Test_Process();
  Test_Process(const Test_Process&) = delete;
  Test_Process& operator=(const Test_Process&) = delete;

  // argv[0] is a program of bin_path() unless it contains '/'. `env` entries ("K=V") are added to
  // the test's environment. stdout and stderr go to `log_file` (appended) when given.
  bool start(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
             const std::string& log_file = "");
  // Waits until `ready_file` holds valid JSON. False when the child exits first or on time-out.
  bool wait_ready(const std::string& ready_file, JSON_Value& ready, int timeout_seconds = 30);
  bool running();
  // SIGTERM and wait; the exit status as from waitpid (or -1 when not started).
  int stop();
  void kill_now();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

struct Run_Result {
  int exit_code = -1;  // -1 when killed or not started
  std::string out;
  std::string err;
};

// Runs a program to completion with `input` on its stdin; killed after `timeout_seconds`.
Run_Result run_program(const std::vector<std::string>& argv, const std::string& input = "",
                       const std::vector<std::string>& env = {}, int timeout_seconds = 120);
