#include "tests/unit/servant/fixture.h"

#include "host/core/json.h"

#include <cstdlib>

void write_servant_conf(const Temp_Dir& dir, const std::string& conf_path) {
  JSON_Value methods = JSON_Value::object();
  for (const char* m : {"echo", "log", "hang", "crash", "flaky", "garbage"})
    methods[m] = "Servant_Test_Handler";
  JSON_Value manifest = {{"name", "servant_test"},
                         {"library", SERVANT_TEST_MODULE_PATH},
                         {"jsonrpc", {{"agent.only", "Servant_Test_Handler"}}},
                         {"servant_jsonrpc", methods}};
  const std::string manifest_path = dir.file("servant_test.module.json");
  write_text_file(manifest_path, manifest.dump());
  write_text_file(conf_path, JSON_Value{{"modules", {manifest_path}}}.dump());
}

void Servant_Fixture::SetUp() {
  write_servant_conf(dir_, conf_);
  set_env("BRIMLET_ROOT", dir_.path());
}

void Servant_Fixture::TearDown() {
  for (const auto& [name, value] : saved_env_)
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
}

void Servant_Fixture::set_env(const char* name, const std::string& value) {
  const char* old = getenv(name);
  saved_env_.emplace(name, old ? std::optional<std::string>(old) : std::nullopt);
  setenv(name, value.c_str(), 1);
}
