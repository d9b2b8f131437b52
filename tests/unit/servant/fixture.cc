#include "tests/unit/servant/fixture.h"

#include "host/core/json.h"

std::string write_servant_conf(const Temp_Dir& dir, const std::string& conf_path) {
  JSON_Value methods = JSON_Value::object();
  for (const char* m : TEST_SERVANT_METHODS)
    methods[m] = "Servant_Test_Handler";
  JSON_Value manifest = {{"name", "servant_test"},
                         {"library", SERVANT_TEST_MODULE_PATH},
                         {"jsonrpc", {{"agent.only", "Servant_Test_Handler"}}},
                         {"servant_jsonrpc", methods}};
  const std::string manifest_path = dir.file("servant_test.module.json");
  write_text_file(manifest_path, manifest.dump());
  write_text_file(conf_path, JSON_Value{{"modules", {manifest_path}}}.dump());
  return conf_path;
}
