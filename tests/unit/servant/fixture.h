// What the servant tests share: a fresh BRIMLET_ROOT with a service configuration that loads the
// test module, and the environment put back afterwards.
#pragma once

#include "host/core/json.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <list>
#include <string>

// The test module's manifest in `dir` ("agent.only" its one agent method) and a service
// configuration at `conf_path` that loads it.
inline void write_servant_conf(const Temp_Dir& dir, const std::string& conf_path) {
  JSON_Value methods = JSON_Value::object();
  for (const char* m : {"echo", "log", "hang", "crash", "flaky", "garbage"})
    methods[m] = "Servant_Test_Handler";
  const std::string manifest = dir.file("servant_test.module.json");
  write_text_file(manifest, JSON_Value{{"name", "servant_test"},
                                       {"library", SERVANT_TEST_MODULE_PATH},
                                       {"jsonrpc", {{"agent.only", "Servant_Test_Handler"}}},
                                       {"servant_jsonrpc", methods}}
                                .dump());
  write_text_file(conf_path, JSON_Value{{"modules", {manifest}}}.dump());
}

inline bool process_gone(pid_t pid) {
  return kill(pid, 0) != 0 && errno == ESRCH;
}

class Servant_Fixture : public ::testing::Test {
 protected:
  void SetUp() override { write_servant_conf(dir_, conf_), set_env("BRIMLET_ROOT", dir_.path()); }
  void TearDown() override {
    while (!env_.empty())  // the latest first, so the oldest value comes back
      env_.pop_back();
  }
  // Sets a variable of this process until the test ends.
  void set_env(const char* name, const std::string& value) { env_.emplace_back(name, value); }

  Temp_Dir dir_;
  const std::string conf_ = dir_.file("svc.json");
  std::list<Scoped_Env> env_;
};
