// What the servant tests share: a service configuration that loads the test module.
#pragma once

#include "tests/support/temp_dir.h"

#include <signal.h>

#include <cerrno>
#include <string>

// The test module's methods, as its manifest lists them for servants.
constexpr const char* TEST_SERVANT_METHODS[] = {"echo",  "env",   "log",     "hang",
                                                "crash", "flaky", "garbage", "gather"};

// Writes the test module's manifest into `dir` ("agent.only" is its one agent method) and a
// service configuration at `conf_path` that loads it; the configuration's path.
std::string write_servant_conf(const Temp_Dir& dir, const std::string& conf_path);

// The process has ended and been reaped.
inline bool process_gone(pid_t pid) {
  return kill(pid, 0) != 0 && errno == ESRCH;
}
