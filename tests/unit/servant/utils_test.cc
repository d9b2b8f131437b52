#include "h3ccas/servant/utils.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "tests/support/log_capture.h"
#include "tests/unit/servant/fixture.h"

#include <ace/Process.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <vector>

namespace {

class Servant_Utils_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("BRIMLET_ROOT", root_.path().c_str(), 1);
    setenv("LD_LIBRARY_PATH", "/usr/lib/inherited", 1);
  }
  void TearDown() override {
    unsetenv("BRIMLET_ROOT");
    if (saved_library_path_)
      setenv("LD_LIBRARY_PATH", saved_library_path_->c_str(), 1);
    else
      unsetenv("LD_LIBRARY_PATH");
  }

  Temp_Dir root_;
  const char* const old_ = getenv("LD_LIBRARY_PATH");
  const std::optional<std::string> saved_library_path_ =
      old_ ? std::optional<std::string>(old_) : std::nullopt;
};

TEST_F(Servant_Utils_Test, CvdSdkConfIsAFreshPrivateFileInSeconds) {
  struct Case {
    int minutes;
    const char* level;
    const char* content;
  } cases[] = {
      {5, "info", "network_timeout = 300;\nlog_level = \"info\";\n"},
      {1, "", "network_timeout = 60;\nlog_level = \"\";\n"},
      {60, "debug", "network_timeout = 3600;\nlog_level = \"debug\";\n"},
  };
  std::vector<std::string> paths;
  for (const auto& c : cases) {
    std::string path, content;
    ASSERT_TRUE(h3ccas::create_cvd_sdk_conf(c.minutes, c.level, path));
    ASSERT_TRUE(read_file(path, content));
    EXPECT_EQ(content, c.content);
    EXPECT_EQ(path.rfind(root_.path() + "/var/opt/quorvex/brimlet5/tmp/", 0), 0u) << path;
    EXPECT_EQ(path.substr(path.size() - 5), ".conf");
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    for (const auto& p : paths)
      EXPECT_NE(p, path);
    paths.push_back(path);
  }
  // No place to write it: false, and no path handed out.
  write_text_file(root_.file("file"), "");
  setenv("BRIMLET_ROOT", root_.file("file").c_str(), 1);
  std::string path;
  EXPECT_FALSE(h3ccas::create_cvd_sdk_conf(5, "info", path));
  EXPECT_TRUE(path.empty());
}

TEST_F(Servant_Utils_Test, InitServantGivesTheServantItsConfigurationLabelAndEnvironment) {
  std::vector<std::string> lines;
  Servant servant;
  ASSERT_TRUE(h3ccas::init_servant(
      servant, "web 01", [&lines](const std::string& line) { lines.push_back(line); },
      "/tmp/cvd-1.conf"));
  const std::string sdk = root_.path() + "/opt/quorvex/brimlet5/cvdsdk/1.0.0";
  std::vector<std::string> env;
  for (char* const* e = servant.get_process_options().env_argv(); *e; ++e)
    env.push_back(*e);
  EXPECT_EQ(env, (std::vector<std::string>{"LD_LIBRARY_PATH=" + sdk + ":/usr/lib/inherited",
                                           "CAS_CVD_SDK_CONF_PATH=/tmp/cvd-1.conf",
                                           "CAS_CVD_SDK_PATH=" + sdk + "/libcvd.so"}));
  const std::string svc_dir = root_.path() + "/etc/opt/quorvex/brimlet5/h3c-cas/servant";
  struct stat st {};
  ASSERT_EQ(stat(svc_dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);

  // The servant started from it runs with that configuration, label and environment.
  write_servant_conf(root_, svc_dir + "/svc.conf");
  ASSERT_TRUE(servant.start());
  auto resp = servant.call(
      "env",
      {{"names",
        {"LD_LIBRARY_PATH", "CAS_CVD_SDK_CONF_PATH", "CAS_CVD_SDK_PATH", "BRIMLET_SERVANT_LABEL"}}},
      30);
  ASSERT_NE(resp, nullptr);
  EXPECT_EQ(resp->result(), (JSON_Value{{"LD_LIBRARY_PATH", sdk + ":/usr/lib/inherited"},
                                        {"CAS_CVD_SDK_CONF_PATH", "/tmp/cvd-1.conf"},
                                        {"CAS_CVD_SDK_PATH", sdk + "/libcvd.so"},
                                        {"BRIMLET_SERVANT_LABEL", "web 01"}}));
  ASSERT_NE(servant.call("log", {{"text", "snapshot taken"}}, 30), nullptr);
  servant.stop();
  bool forwarded = false;
  for (const auto& l : lines)
    forwarded = forwarded || l.find("snapshot taken") != std::string::npos;
  EXPECT_TRUE(forwarded);
}

TEST_F(Servant_Utils_Test, ServantResultIsTheResultObjectAndAnythingElseFails) {
  auto response = [](JSON_Value result) {
    auto r = std::make_shared<JSON_RPC_Response>(JSON_Value(1));
    r->set_result(std::move(result));
    return r;
  };
  auto error = std::make_shared<JSON_RPC_Response>(JSON_Value(1));
  error->set_error(JSON_RPC_INTERNAL_ERROR, "Failed to load CAS libcvd.");
  struct Case {
    std::shared_ptr<JSON_RPC_Object> resp;
    const char* message;
  } failures[] = {
      {nullptr, "resp.get() is NULL"},
      {error, "Failed to exec in CAS servant, errnum=-32603, Failed to load CAS libcvd."},
      {std::make_shared<JSON_RPC_Request>("h3ccas.exec", JSON_Value::object(), 1),
       "Unknown response type '1' for CAS JSON-RPC in servant."},
      {response(JSON_Value::array({1})), "r.result is not object!"},
      {response("done"), "r.result is not object!"},
  };
  for (const auto& c : failures) {
    Log_Capture log;
    JSON_Value result = "untouched";
    EXPECT_FALSE(h3ccas::get_servant_result(c.resp, result)) << c.message;
    EXPECT_EQ(result, "untouched");
    EXPECT_EQ(log.count(), 1u) << c.message;
    EXPECT_TRUE(log.contains(c.message)) << c.message;
  }
  Log_Capture log;
  JSON_Value answer = {{"code", 0}, {"vm_id", "12"}, {"storage_size", 1024}};
  JSON_Value result;
  EXPECT_TRUE(h3ccas::get_servant_result(response(answer), result));
  EXPECT_EQ(result, answer);
  EXPECT_EQ(log.text(), "");
}

}  // namespace
