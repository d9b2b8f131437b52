// The CAS module's "h3ccas.exec" as the agent meets it: through a real brimlet-servant that loads
// the built module by its manifest.
#include "h3ccas/common.h"
#include "host/core/paths.h"
#include "host/servant/servant.h"
#include "tests/support/temp_dir.h"

#include <ace/Process.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

namespace {

class Cas_Exec_Servant : public ::testing::Test {
 protected:
  void SetUp() override {
    conf_ = dir_.file("svc.json");
    write_text_file(conf_, JSON_Value{{"modules", {BRIMLET_LIB_DIR "/h3ccas.module.json"}}}.dump());
  }

  // A servant whose libcvd is `sdk`, as init_servant would point it there.
  void start(const std::string& sdk) {
    servant_.reset("tester", conf_.c_str(), nullptr, nullptr, "web01");
    servant_.get_process_options().setenv("CAS_CVD_SDK_PATH", "%s", sdk.c_str());
    servant_.get_process_options().setenv("BRIMLET_ROOT", "%s", dir_.path().c_str());
    ASSERT_TRUE(servant_.start());
  }

  // The error {"code", "message"} the servant answers `params` with.
  JSON_Value error_of(const JSON_Value& params) {
    auto resp = servant_.call("h3ccas.exec", params, 30);
    if (!resp)
      return "no answer";
    if (!resp->is_error())
      return resp->result();
    return {{"code", resp->error()["code"]}, {"message", resp->error()["message"]}};
  }

  static JSON_Value error(int code, const char* message) {
    return {{"code", code}, {"message", message}};
  }

  Temp_Dir dir_;
  std::string conf_;
  Servant servant_;
};

TEST_F(Cas_Exec_Servant, WithoutItsDiskLibraryEveryActionFailsAndTheServantKeepsServing) {
  start(dir_.file("nowhere/libcvd.so"));
  EXPECT_EQ(error_of({"backup"}), error(-32602, "Invalid params: params type must be object."));
  EXPECT_EQ(error_of({{"action", 1}}),
            error(-32602, "Invalid params: 'action' is expected as string in params."));
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(error_of({{"action", "backup"}}), error(-32603, "Failed to load CAS libcvd."));
  EXPECT_EQ(kill(servant_.pid(), 0), 0);
}

TEST_F(Cas_Exec_Servant, ChecksTheActionAndItsParameters) {
  start(BRIMLET_LIB_DIR "/libcvd.so");
  EXPECT_EQ(error_of({{"action", "verify"}}), error(-32602, "Invalid value on params.action."));
  EXPECT_EQ(error_of({{"action", "backup"}, {"vm_name", "web01"}}), error(-32602, ""));
  EXPECT_EQ(error_of({{"action", "restore"}}), error(-32602, ""));

  h3ccas::VM_Backup_Params params;
  ASSERT_TRUE(params.cvm_.load({{"host", "127.0.0.1"},
                                {"port", 443},
                                {"ssl", true},
                                {"username", "admin"},
                                {"password", "p"}},
                               false));
  JSON_Value request = params.dump();
  request["action"] = "backup";
  EXPECT_EQ(error_of(request), error(-32603, "VM backup is not available yet."));
}

}  // namespace
