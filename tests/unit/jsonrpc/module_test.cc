#include "host/module/module.h"
#include "host/jsonrpc/jsonrpc.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace {

class Capture_Channel : public JSON_RPC_Channel {
 public:
  int send(const JSON_RPC_Object& obj) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_ = obj.to_json();
    cv_.notify_all();
    return 0;
  }
  JSON_Value wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait_for(lock, std::chrono::seconds(30), [this] { return !sent_.is_null(); });
    return sent_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  JSON_Value sent_;
};

std::string manifest(const Temp_Dir& dir, const std::string& text) {
  std::string path = dir.file("echo.module.json");
  write_text_file(path, text);
  return path;
}

TEST(Module, LoadsByManifestAndMakesObjectsThroughFactories) {
  Temp_Dir dir;
  auto m =
      Module::load(manifest(dir, std::string(R"({"name":"echo","library":")") + ECHO_MODULE_PATH +
                                     R"(","instance_handler":"Echo_Instances",
                                             "jsonrpc":{"echo.say":"Echo_Handler"}})"));
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->name(), "echo");
  EXPECT_EQ(m->json_rpc_methods(), std::vector<std::string>{"echo.say"});
  EXPECT_EQ(m->make_json_rpc_handler("echo.other"), nullptr);

  auto handler = m->make_json_rpc_handler("echo.say");
  ASSERT_NE(handler, nullptr);
  auto chn = std::make_shared<Capture_Channel>();
  auto req = std::make_shared<JSON_RPC_Request>("echo.say", JSON_Value{{"x", 1}}, 7);
  EXPECT_EQ(handler->handle_object(chn, req), 0);
  JSON_Value answer = chn->wait();
  EXPECT_EQ(answer["id"], 7);
  EXPECT_EQ(answer["result"]["echo"]["x"], 1);
  EXPECT_EQ(answer["result"]["live"], 1);

  auto instances = m->make_instance_handler();
  ASSERT_NE(instances, nullptr);
  std::map<std::string, std::shared_ptr<Instance>> found;
  EXPECT_EQ(instances->probe_instances(found), 0);
  EXPECT_EQ(found.count("Echo"), 1u);

  // Objects go back through the module's destroyer, and keep the library loaded meanwhile.
  m.reset();
  handler.reset();
  stop_json_rpc_workers();
}

TEST(Module, RefusesBadManifestsAndMissingFactories) {
  Temp_Dir dir;
  const std::string lib = ECHO_MODULE_PATH;
  const std::string bad[] = {
      "not json",
      R"({"library":")" + lib + R"("})",
      R"({"name":"echo","library":")" + lib + R"(","jsonrpc":{"echo.say":5}})",
      R"({"name":"echo","library":")" + lib + R"(","jsonrpc":{"echo.say":"No_Such_Handler"}})",
      R"({"name":"echo","library":")" + lib + R"(","instance_handler":"Missing"})",
      R"({"name":"echo","library":"libnothere.so"})",
  };
  for (const auto& text : bad)
    EXPECT_EQ(Module::load(manifest(dir, text)), nullptr) << text;
  EXPECT_EQ(Module::load(dir.file("absent.json")), nullptr);
}

}  // namespace
