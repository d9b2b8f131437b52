#include "host/core/identity.h"
#include "host/http/client.h"
#include "host/http/server.h"
#include "tests/unit/h3ccas/support.h"

#include <climits>

namespace h3ccas {
namespace {
// Each text, and the value read or, with `def`, the default handed back on failure.
template <class T>
void check_natoi(std::vector<S> texts, std::vector<T> values, T def) {
  for (std::size_t i = 0; i < texts.size(); ++i) {
    T out = 1;
    EXPECT_EQ(try_natoi<T>(out, texts[i], def), values[i] != def) << "'" << texts[i] << "'";
    EXPECT_EQ(out, values[i]) << "'" << texts[i] << "'";
  }
}

TEST(Cas_Conversions, NumbersEnumerationsPathsAndVersions) {
  check_natoi<unsigned>({"4294967295", "4294967296", "+7", "-0", "", "12 ", "1x2"},
                        {4294967295u, 77, 7, 77, 77, 77, 77}, 77u);
  check_natoi<int>({"-2147483648", "-2147483649"}, {INT_MIN, -1}, -1);
  // The whole string counts, even past an embedded NUL.
  check_natoi<unsigned long>({"18446744073709551615", "18446744073709551616", {"12\0003", 4}},
                             {ULONG_MAX, 9, 9}, 9ul);
  // text, success, `out` afterwards (it held -1), log
  const std::tuple<const char*, bool, double, const char*> cases[] = {
      {"  -2e3", true, -2000, ""},
      {"3.5x", false, 3.5, "Failed to convert '3.5x' to number.\n"},
      {"1e999", false, -1, "Failed to convert '1e999' to number: out of range.\n"},
      {"abc", false, -1, "Failed to convert 'abc' to number: invalid value.\n"},
  };
  for (const auto& [text, ok, value, message] : cases) {
    Log_Capture log;
    double out = -1;
    EXPECT_EQ(try_atod(out, text), ok) << text;
    EXPECT_DOUBLE_EQ(out, value) << text;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
  // CAS's provisioning codes are read in records; here what falls outside them.
  for (const char* bad : {"3", "00", static_cast<const char*>(nullptr)})
    EXPECT_EQ(str_to_provision_mode(bad), UNKNOWN);
  for (const char* text : {"skip", "skip_with_alert", "full_backup", "none"})
    EXPECT_STREQ(no_cbt_opts_to_str(no_cbt_opts_from_str(text)), text);
  EXPECT_EQ(no_cbt_opts_from_str("Skip"), No_CBT_Opts::None);  // case matters
  EXPECT_EQ(unify_path("pool/img", true, "") + " " + unify_path("pool/img", true, nullptr) + " " +
                unify_path("pool/img", true, "s1") + " " + unify_path("pool/img", false, "s1"),
            "rbd:pool/img rbd:pool/img rbd:pool/img@s1 pool/img");
  for (const char* version : {"e0730H01", "V7.0 E0750"}) {
    Log_Capture log;
    EXPECT_EQ(is_supported(version), *version == 'e') << version;
    EXPECT_EQ(messages(log), *version == 'e' ? "" : "Unsupported CVM version 'V7.0 E0750'.\n");
  }
}

JSON_Value entry(const S& password) {
  return {{"host", "cvm.example"}, {"port", 8080},         {"ssl", true},
          {"username", "admin"},   {"password", password}, {"extended_attrs", {{"site", "north"}}}};
}

// The servant's form: what the agent decrypted, dumped in clear and loaded again as it is.
TEST(Cas_CVM_Info, DecryptsDumpsReloadsAndRejects) {
  CVM_Info cvm;
  ASSERT_TRUE(cvm.load(entry(encrypt_for_agent("Pa ss:word")), true));
  EXPECT_EQ(cvm.extended_attrs(), JSON_Value({{"site", "north"}}));
  EXPECT_EQ(cvm.dump(), json(R"({"host":"cvm.example","port":8080,"ssl":true,"username":"admin",
                                 "password":"Pa ss:word"})"));
  CVM_Info again;  // without "extended_attrs", which is optional
  ASSERT_TRUE(again.load(cvm.dump(), false));
  EXPECT_EQ(again.dump(), cvm.dump());
  EXPECT_EQ(again.extended_attrs(), JSON_Value::object());
  for (const char* patch : {R"([1,2])", R"({"port":"8080"})", R"({"port":70000})",
                            R"({"extended_attrs":[]})", R"({"ssl":null})"}) {
    JSON_Value value = entry("x");
    value.merge_patch(json(patch));
    Log_Capture log;
    EXPECT_FALSE(again.load(value, false)) << value;
    EXPECT_TRUE(log.contains("Invalid H3C CVM entry: ")) << value << ": " << log.text();
  }
  Log_Capture log;
  EXPECT_FALSE(again.load(entry("not encrypted"), true));
  EXPECT_EQ(messages(log), "Failed to decrypt H3C CVM password.\n");
}

// The backup server's route for stored CVM entries.
class Cas_Backup_Server : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.route(HTTP_Method::GET, "/k4/r/h3ccas/cvm", [this](Req req, Res resp) {
      std::lock_guard<std::mutex> lock(mutex_);
      request_ = req, resp.status = status_, resp.body = body_.dump();
    });
    ASSERT_TRUE(server_.start(HTTP_Server::Options()));
    Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", server_.port(), false,
                                                        "agent-key");
    Host_ID::instance()->set("host-id-42");
  }
  void answer(int status, JSON_Value body) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status, body_ = std::move(body);
  }
  std::mutex mutex_;
  int status_ = 200;
  JSON_Value body_;
  HTTP_Server_Request request_;
  HTTP_Server server_;  // last: stopped before what its handler uses
};

TEST_F(Cas_Backup_Server, LoadsTheFirstRowOrSaysWhyNot) {
  JSON_Value second = entry(encrypt_for_agent("other"));
  second["host"] = "second.example";
  answer(200, {{"rows", {entry(encrypt_for_agent("from-server")), second}}});
  CVM_Info cvm;
  ASSERT_TRUE(cvm.load_from_server("cvm-uuid 1"));
  EXPECT_EQ(cvm.host() + " " + cvm.password().c_str(), "cvm.example from-server");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(request_.query,
              (std::map<S, S>{{"uuid", "cvm-uuid 1"}, {"with_password", "host-id-42"}}));
    const S* key = request_.headers.get("X-Access-Key");  // sent as this agent
    EXPECT_EQ(key ? *key : "", "agent-key");
  }
  const std::tuple<int, const char*, const char*> failures[] = {
      {200, R"({"rows":[]})", "H3C CVM not found, uuid = u-1.\n"},
      {200, "{}", "H3C CVM not found, uuid = u-1.\n"},
      {200, "null", "Failed to get CVM info from server.\n"},
      {500, R"({"error":"boom"})", "Failed to get CVM info from server.\n"},
      {200, R"({"rows":[{"host":"h"}]})", "Invalid H3C CVM entry: "},
  };
  for (const auto& [status, body, message] : failures) {
    answer(status, json(body));
    Log_Capture log;
    EXPECT_FALSE(cvm.load_from_server("u-1")) << body;
    EXPECT_TRUE(log.contains(message)) << log.text();
  }
}
}  // namespace
}  // namespace h3ccas
