// The CAS module's "h3ccas.exec": its answers, in process with the libcvd stand-in or without a
// library, and as the agent meets it through a real brimlet-servant loading the built module.
#include "h3ccas/common.h"
#include "h3ccas/servant/exec_handler.h"
#include "host/core/paths.h"
#include "host/servant/servant.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <ace/Process.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace h3ccas {
namespace {

class Recording_Channel : public JSON_RPC_Channel {
 public:
  int send(const JSON_RPC_Object& obj) override {
    sent.push_back(obj.to_json());
    return 0;
  }
  std::vector<JSON_Value> sent;
};

class Exposed_Exec_Handler : public Exec_Handler {
 public:
  using Exec_Handler::Exec_Handler;
  using Exec_Handler::handle_object_i;
};

JSON_Value error(int code, const char* message) {
  return {{"code", code}, {"message", message}};
}

// Valid parameters of each action, as the agent sends them.
JSON_Value exec_params(const std::string& action) {
  CVM_Info cvm;
  EXPECT_TRUE(cvm.load({{"host", "127.0.0.1"},
                        {"port", 8443},
                        {"ssl", true},
                        {"username", "admin"},
                        {"password", "pw"}},
                       false));
  VM_Backup_Params backup;
  VM_Restore_Params restore;
  backup.cvm_ = restore.cvm_ = cvm;
  JSON_Value params = action == "restore" ? restore.dump() : backup.dump();
  params["action"] = action;
  return params;
}

class Exec_Handler_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("BRIMLET_ROOT", dir_.path().c_str(), 1);
    write_text_file(dir_.file("cvd.conf"), "network_timeout = 86460;\n");
    setenv("CAS_CVD_SDK_CONF_PATH", dir_.file("cvd.conf").c_str(), 1);
  }
  void TearDown() override {
    unsetenv("BRIMLET_ROOT");
    unsetenv("CAS_CVD_SDK_PATH");
    unsetenv("CAS_CVD_SDK_CONF_PATH");
  }

  // The one answer's error (or result) to a request with `params`.
  JSON_Value answer(const JSON_Value& params) {
    auto chn = std::make_shared<Recording_Channel>();
    auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", params, 7);
    EXPECT_EQ(handler_.handle_object_i(chn, req), 0) << params;
    if (chn->sent.size() != 1)
      return "answers: " + std::to_string(chn->sent.size());
    const JSON_Value& sent = chn->sent[0];
    EXPECT_EQ(sent["id"], 7);
    if (!sent.contains("error"))
      return sent["result"];
    EXPECT_TRUE(sent["error"]["data"].is_null()) << sent;
    return error(sent["error"]["code"], sent["error"].value("message", "").c_str());
  }

  Temp_Dir dir_;
  CVD_Loader loader_;
  Exposed_Exec_Handler handler_{loader_};
};

// The servant keeps answering while libcvd is missing; only well-formed requests need it.
TEST_F(Exec_Handler_Test, AnswersEachRequestWithOrWithoutLibcvd) {
  const JSON_Value load_failed = error(-32603, "Failed to load CAS libcvd.");
  const JSON_Value not_string =
      error(-32602, "Invalid params: 'action' is expected as string in params.");
  JSON_Value bad_backup = exec_params("backup");
  bad_backup.erase("cvd_target_addr");
  JSON_Value bad_restore = exec_params("restore");
  bad_restore["disks"] = JSON_Value::array({JSON_Value{{"source_path", "/vms/images/web01"}}});
  struct Case {
    bool libcvd;
    JSON_Value params, answer;
  };
  const Case cases[] = {
      {false, JSON_Value::array({1}), error(-32602, "Invalid params: params type must be object.")},
      {false, JSON_Value::object(), not_string},
      {false, {{"action", 5}}, not_string},
      {false, exec_params("backup"), load_failed},
      {false, exec_params("restore"), load_failed},
      {false, {{"action", "verify"}}, load_failed},
      {true, {{"action", "verify"}}, error(-32602, "Invalid value on params.action.")},
      {true, {{"action", "Backup"}}, error(-32602, "Invalid value on params.action.")},
      {true, bad_backup, error(-32602, "")},
      {true, bad_restore, error(-32602, "")},
      {true, exec_params("backup"), error(-32603, "VM backup is not available yet.")},
      {true, exec_params("restore"), error(-32603, "VM restore is not available yet.")},
  };
  Log_Capture log;
  for (const Case& c : cases) {
    setenv("CAS_CVD_SDK_PATH", c.libcvd ? BRIMLET_LIB_DIR "/libcvd.so" : "/nowhere/libcvd.so", 1);
    EXPECT_EQ(answer(c.params), c.answer) << c.params;
    EXPECT_EQ(loader_.inited(), c.libcvd) << c.params;
  }
  EXPECT_TRUE(log.contains("Invalid CAS backup params: missing key 'cvd_target_addr'.\n"));
  EXPECT_TRUE(
      log.contains("Invalid CAS VM restore params for disks: missing key 'target_pool_name'.\n"));
  // libcvd was initialised once for all the requests, with the servant's configuration.
  std::string sdk_log;
  read_file(dir_.path() + "/var/log/brimlet5/cvd-sdk.log", sdk_log);
  EXPECT_EQ(sdk_log.find("libcvd ready"), sdk_log.rfind("libcvd ready")) << sdk_log;
  EXPECT_NE(sdk_log.find("starter["), std::string::npos) << sdk_log;
  EXPECT_NE(sdk_log.find("network_timeout = 86460 s"), std::string::npos) << sdk_log;
}

TEST_F(Exec_Handler_Test, NothingIsSentForResponsesOrAbsentRequesters) {
  Log_Capture log;
  auto chn = std::make_shared<Recording_Channel>();
  EXPECT_EQ(handler_.handle_object_i(chn, std::make_shared<JSON_RPC_Response>(JSON_Value(3))), -1);
  EXPECT_TRUE(log.contains("obj is not JSON-RPC request!\n"));
  auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", exec_params("backup"), 4);
  EXPECT_EQ(handler_.handle_object_i(nullptr, req), -1);
  EXPECT_TRUE(log.contains("Abort handling JSON-RPC request, requester has gone.\n"));
  EXPECT_TRUE(chn->sent.empty());
  EXPECT_FALSE(loader_.inited());
}

// The module's manifest gives the servant the method; a missing library fails each request and
// leaves the servant serving.
TEST(Cas_Exec_Servant, ServedByTheModuleInARealServant) {
  Temp_Dir dir;
  const std::string conf = dir.file("svc.json");
  write_text_file(conf, JSON_Value{{"modules", {BRIMLET_LIB_DIR "/h3ccas.module.json"}}}.dump());
  Servant servant;
  servant.reset("tester", conf.c_str(), nullptr, nullptr, "web01");
  servant.get_process_options().setenv("CAS_CVD_SDK_PATH", "%s", dir.file("libcvd.so").c_str());
  servant.get_process_options().setenv("BRIMLET_ROOT", "%s", dir.path().c_str());
  ASSERT_TRUE(servant.start());
  for (int i = 0; i < 2; ++i) {
    auto resp = servant.call("h3ccas.exec", exec_params("backup"), 30);
    ASSERT_NE(resp, nullptr);
    EXPECT_EQ(error(resp->error()["code"], resp->error().value("message", "").c_str()),
              error(-32603, "Failed to load CAS libcvd."));
  }
  EXPECT_EQ(kill(servant.pid(), 0), 0);
}

}  // namespace
}  // namespace h3ccas
