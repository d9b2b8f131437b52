#include "h3ccas/servant/utils.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "tests/support/log_capture.h"
#include "tests/unit/servant/fixture.h"

#include <ace/Process.h>
#include <sys/stat.h>

#include <vector>

namespace {
using Servant_Utils_Test = Servant_Fixture;

TEST_F(Servant_Utils_Test, CvdSdkConfIsAFreshPrivateFileAndServantResultIsTheResultObject) {
  const std::pair<int, const char*> cases[] = {{5, "info"}, {1, ""}};
  std::string first;
  for (const auto& [minutes, level] : cases) {
    std::string path, content;
    ASSERT_TRUE(h3ccas::create_cvd_sdk_conf(minutes, level, path) && read_file(path, content));
    EXPECT_EQ(content, "network_timeout = " + std::to_string(minutes * 60) + ";\nlog_level = \"" +
                           level + "\";\n");
    EXPECT_EQ(path.rfind(dir_.path() + "/var/opt/quorvex/brimlet5/tmp/", 0), 0u) << path;
    EXPECT_EQ(path.substr(path.size() - 5), ".conf");
    struct stat st {};
    EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600) << path;
    EXPECT_NE(path, first);
    first = path;
  }
  // No place to write it: false, and no path handed out.
  set_env("BRIMLET_ROOT", conf_);
  std::string path;
  EXPECT_TRUE(!h3ccas::create_cvd_sdk_conf(5, "info", path) && path.empty()) << path;
  auto response = [](JSON_Value result) {
    auto r = std::make_shared<JSON_RPC_Response>(JSON_Value(1));
    r->set_result(std::move(result));
    return r;
  };
  auto error = std::make_shared<JSON_RPC_Response>(JSON_Value(1));
  error->set_error(JSON_RPC_INTERNAL_ERROR, "Failed to load CAS libcvd.");
  const std::pair<std::shared_ptr<JSON_RPC_Object>, const char*> failures[] = {
      {nullptr, "resp.get() is NULL"},
      {error, "Failed to exec in CAS servant, errnum=-32603, Failed to load CAS libcvd."},
      {std::make_shared<JSON_RPC_Request>("h3ccas.exec", JSON_Value::object(), 1),
       "Unknown response type '1' for CAS JSON-RPC in servant."},
      {response(JSON_Value::array({1})), "r.result is not object!"},
      {response("done"), "r.result is not object!"},
  };
  for (const auto& [resp, message] : failures) {
    Log_Capture log;
    JSON_Value result = "untouched";
    EXPECT_FALSE(h3ccas::get_servant_result(resp, result)) << message;
    EXPECT_EQ(result, "untouched");
    EXPECT_TRUE(log.count() == 1 && log.contains(message)) << message << log.text();
  }
  Log_Capture log;
  JSON_Value answer = {{"code", 0}, {"vm_id", "12"}, {"storage_size", 1024}};
  JSON_Value result;
  EXPECT_TRUE(h3ccas::get_servant_result(response(answer), result));
  EXPECT_EQ(std::tuple(result, log.text()), std::tuple(answer, ""));
}

TEST_F(Servant_Utils_Test, InitServantGivesTheServantItsConfigurationLabelAndEnvironment) {
  set_env("LD_LIBRARY_PATH", "/usr/lib/inherited");
  std::string lines;
  Servant servant;
  ASSERT_TRUE(h3ccas::init_servant(
      servant, "web 01", [&lines](const std::string& line) { lines += line; }, "/tmp/cvd-1.conf"));
  const std::string sdk = dir_.path() + "/opt/quorvex/brimlet5/cvdsdk/1.0.0";
  std::vector<std::string> env;
  for (char* const* e = servant.get_process_options().env_argv(); *e; ++e)
    env.push_back(*e);
  EXPECT_EQ(env, (std::vector<std::string>{"LD_LIBRARY_PATH=" + sdk + ":/usr/lib/inherited",
                                           "CAS_CVD_SDK_CONF_PATH=/tmp/cvd-1.conf",
                                           "CAS_CVD_SDK_PATH=" + sdk + "/libcvd.so"}));
  const std::string svc_dir = dir_.path() + "/etc/opt/quorvex/brimlet5/h3c-cas/servant";
  struct stat st {};
  EXPECT_TRUE(stat(svc_dir.c_str(), &st) == 0 && (st.st_mode & 0777) == 0750) << svc_dir;
  // The servant started from it runs with that configuration and label, its log forwarded.
  write_servant_conf(dir_, svc_dir + "/svc.conf");
  ASSERT_TRUE(servant.start());
  auto resp = servant.call("echo", JSON_Value::object(), 30);
  ASSERT_NE(resp, nullptr);
  EXPECT_EQ(resp->result()["label"], "web 01");
  ASSERT_NE(servant.call("log", {{"text", "snapshot taken"}}, 30), nullptr);
  servant.stop();
  EXPECT_NE(lines.find("snapshot taken"), std::string::npos) << lines;
}
}  // namespace
