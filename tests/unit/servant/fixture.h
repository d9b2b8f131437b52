// What the servant tests share: a fresh BRIMLET_ROOT with a service configuration that loads the
// test module, and the environment put back afterwards.
#pragma once

#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <map>
#include <optional>
#include <string>

// Writes the test module's manifest into `dir` ("agent.only" is its one agent method) and a
// service configuration at `conf_path` that loads it.
void write_servant_conf(const Temp_Dir& dir, const std::string& conf_path);

// The process has ended and been reaped.
inline bool process_gone(pid_t pid) {
  return kill(pid, 0) != 0 && errno == ESRCH;
}

class Servant_Fixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Sets a variable of this process until the test ends.
  void set_env(const char* name, const std::string& value);

  Temp_Dir dir_;
  const std::string conf_ = dir_.file("svc.json");

 private:
  std::map<std::string, std::optional<std::string>> saved_env_;
};
