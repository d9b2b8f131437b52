// The CAS module's "h3ccas.exec" as the agent meets it: served by the built module in a real
// brimlet-servant, with the libcvd stand-in (which reads the servant's configuration) or without
// a library.
#include "h3ccas/common.h"
#include "host/core/paths.h"
#include "host/servant/servant.h"
#include "tests/unit/servant/fixture.h"

#include <ace/Process.h>

namespace {
using Exec_Servant_Test = Servant_Fixture;

TEST_F(Exec_Servant_Test, ServedByTheModuleInARealServant) {
  write_text_file(conf_, JSON_Value{{"modules", {BRIMLET_LIB_DIR "/h3ccas.module.json"}}}.dump());
  // A job's network time-out may exceed a day.
  write_text_file(dir_.file("cvd.conf"), "network_timeout = 86460;\n");
  const std::pair<std::string, const char*> cases[] = {
      {BRIMLET_LIB_DIR "/libcvd.so", ""},  // the run fails: the job has no activity record
      {dir_.file("libcvd.so"), "Failed to load CAS libcvd."},
  };
  h3ccas::VM_Backup_Params backup;
  ASSERT_TRUE(backup.cvm_.load(
      {{"host", "h"}, {"port", 8443}, {"ssl", true}, {"username", "a"}, {"password", "pw"}},
      false));
  JSON_Value params = backup.dump();
  params["action"] = "backup";
  for (const auto& [library, message] : cases) {
    Servant servant;
    servant.reset("tester", conf_.c_str(), nullptr, nullptr, "web01");
    ACE_Process_Options& options = servant.get_process_options();
    options.setenv("CAS_CVD_SDK_PATH", "%s", library.c_str());
    options.setenv("CAS_CVD_SDK_CONF_PATH", "%s", dir_.file("cvd.conf").c_str());
    ASSERT_TRUE(servant.start());
    // Each request fails alike, and the servant goes on serving.
    for (int i = 0; i < 2; ++i) {
      auto resp = servant.call("h3ccas.exec", params, 30);
      ASSERT_NE(resp, nullptr);
      if (*message)
        EXPECT_EQ(resp->error(),
                  (JSON_Value{{"code", -32603}, {"message", message}, {"data", nullptr}}));
      else
        EXPECT_EQ(resp->result().dump(),
                  R"({"code":1,"set_size":0,"source_size":0,"storage_size":0,"vm_id":""})");
    }
    EXPECT_EQ(kill(servant.pid(), 0), 0);
  }
  // libcvd was initialised once for both requests, with the servant's configuration.
  std::string sdk_log;
  read_file(dir_.path() + "/var/log/brimlet5/cvd-sdk.log", sdk_log);
  EXPECT_EQ(sdk_log.find("libcvd ready"), sdk_log.rfind("libcvd ready")) << sdk_log;
  EXPECT_NE(sdk_log.find("starter["), std::string::npos) << sdk_log;
  EXPECT_NE(sdk_log.find("network_timeout = 86460 s"), std::string::npos) << sdk_log;
}
}  // namespace
