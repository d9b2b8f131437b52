#include "host/module/module.h"
#include "host/jsonrpc/jsonrpc.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

namespace {
const std::string lib_dir = BRIMLET_LIB_DIR;

// Bad manifests and missing factories: one line each. (That objects keep the library loaded is
// checked with the CAS module.)
TEST(Module, BadManifestsAreRefusedWithOneLine) {
  Temp_Dir dir;
  const std::string lib = lib_dir + "/libh3ccas.so";
  const std::string head = R"({"name":"m","library":")" + lib + "\"";
  const std::pair<std::string, std::string> bad[] = {
      {"not json", "Invalid module manifest '" + dir.file("m.json") + "': "},
      {R"({"library":")" + lib + "\"}", "missing key 'name'"},
      {head + R"(,"jsonrpc":{"m.say":5}})", "'m.say' is expected as string"},
      {head + R"(,"jsonrpc":{"m.say":"Nope"}})", "Module 'm' does not export '_make_Nope'."},
      {head + R"(,"instance_handler":"Gone"})", "Module 'm' does not export '_make_Gone'."},
      {R"({"name":"m","library":"libnothere.so"})",
       "Failed to load module library '" + dir.path() + "/libnothere.so'"}};
  for (const auto& [text, message] : bad) {
    write_text_file(dir.file("m.json"), text);
    Log_Capture log;
    EXPECT_EQ(Module::load(dir.file("m.json")), nullptr) << text;
    EXPECT_TRUE(log.count() == 1 && log.contains(message)) << log.text();
  }
  Log_Capture log;
  EXPECT_EQ(Module::load(dir.file("absent.json")), nullptr);
  // A module without the object asked for says so.
  write_text_file(dir.file("m.json"), head + "}");
  auto m = Module::load(dir.file("m.json"));
  ASSERT_NE(m, nullptr);
  EXPECT_TRUE(!m->make_json_rpc_handler("m.say") && !m->make_instance_handler());
  EXPECT_EQ(log.count(), 3u) << log.text();
  for (const char* line :
       {"Failed to read module manifest", "Module 'm' serves no method 'm.say' in 'jsonrpc'.",
        "Module 'm' has no instance handler."})
    EXPECT_TRUE(log.contains(line)) << line;
}
}  // namespace
