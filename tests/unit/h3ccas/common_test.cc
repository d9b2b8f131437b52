#include "h3ccas/common.h"

#include "host/core/crypto.h"
#include "host/core/identity.h"
#include "host/http/client.h"
#include "host/http/server.h"
#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <mutex>

namespace h3ccas {
namespace {

const char kKey[] = "P!L@O#V$A%R^N&3157";

std::string encrypt_for_agent(const std::string& plain) {
  std::string cipher;
  EXPECT_TRUE(encrypt_string(plain.data(), plain.size(), cipher, kKey, std::strlen(kKey)));
  return cipher;
}

template <class T>
struct Natoi_Case {
  const char* text;
  bool ok;
  T value;  // what `out` holds afterwards (the default on failure)
};

TEST(Cas_Conversions, TryNatoiUnsigned) {
  const unsigned def = 77;
  const Natoi_Case<unsigned> cases[] = {
      {"4294967295", true, 4294967295u},
      {"4294967296", false, def},
      {"+7", true, 7},
      {"0", true, 0},
      {"007", true, 7},
      {"-0", false, def},
      {"", false, def},
      {"12 ", false, def},
      {" 12", false, def},
      {"1x2", false, def},
      {"+", false, def},
      {"99999999999999999999", false, def},
  };
  for (const auto& c : cases) {
    unsigned out = 1;
    EXPECT_EQ(try_natoi<unsigned>(out, c.text, def), c.ok) << "'" << c.text << "'";
    EXPECT_EQ(out, c.value) << "'" << c.text << "'";
  }
}

TEST(Cas_Conversions, TryNatoiSignedAndLong) {
  const Natoi_Case<int> ints[] = {
      {"-2147483648", true, INT_MIN}, {"-2147483649", false, -1}, {"2147483647", true, INT_MAX},
      {"2147483648", false, -1},      {"-5", true, -5},           {"--5", false, -1},
  };
  for (const auto& c : ints) {
    int out = 0;
    EXPECT_EQ(try_natoi<int>(out, c.text, -1), c.ok) << c.text;
    EXPECT_EQ(out, c.value) << c.text;
  }
  unsigned long out = 0;
  EXPECT_TRUE(try_natoi<unsigned long>(out, "18446744073709551615", 3ul));
  EXPECT_EQ(out, 18446744073709551615ul);
  EXPECT_FALSE(try_natoi<unsigned long>(out, "18446744073709551616", 3ul));
  EXPECT_EQ(out, 3ul);
  // An embedded NUL stops the parse before the end of the string.
  EXPECT_FALSE(try_natoi<unsigned long>(out,
                                        std::string("12\0"
                                                    "3",
                                                    4),
                                        9ul));
  EXPECT_EQ(out, 9ul);
}

TEST(Cas_Conversions, TryAtod) {
  struct Case {
    const char* text;
    bool ok;
    double out;  // starts at -1
    const char* log;
  } const cases[] = {
      {"3.25", true, 3.25, nullptr},
      {"  -2e3", true, -2000, nullptr},
      {"3.5x", false, 3.5, "Failed to convert '3.5x' to number.\n"},
      {"7 ", false, 7, "Failed to convert '7 ' to number.\n"},
      {"1e999", false, -1, "Failed to convert '1e999' to number: out of range.\n"},
      {"abc", false, -1, "Failed to convert 'abc' to number: invalid value.\n"},
      {"", false, -1, "Failed to convert '' to number: invalid value.\n"},
  };
  for (const auto& c : cases) {
    Log_Capture log;
    double out = -1;
    EXPECT_EQ(try_atod(out, c.text), c.ok) << c.text;
    EXPECT_DOUBLE_EQ(out, c.out) << c.text;
    if (c.log) {
      EXPECT_TRUE(log.contains(c.log)) << log.text();
    }
  }
}

TEST(Cas_Conversions, SizesAndBooleans) {
  EXPECT_EQ(size_to_str(512), "512 B");
  EXPECT_EQ(size_to_str(1536ul << 20), "1.5 GiB");
  EXPECT_STREQ(bool_to_str(true), "true");
  EXPECT_STREQ(bool_to_str(false), "false");
}

TEST(Cas_Conversions, ProvisioningModeBothWays) {
  EXPECT_EQ(str_to_provision_mode("0"), LAZY_ZEROED);
  EXPECT_EQ(str_to_provision_mode("1"), EAGER_ZEROED);
  EXPECT_EQ(str_to_provision_mode("2"), THIN);
  for (const char* bad : {"3", "", "00", "2 ", "THIN"})
    EXPECT_EQ(str_to_provision_mode(bad), UNKNOWN) << "'" << bad << "'";
  EXPECT_EQ(str_to_provision_mode(nullptr), UNKNOWN);

  EXPECT_STREQ(provision_mode_to_str(LAZY_ZEROED), "0");
  EXPECT_STREQ(provision_mode_to_str(EAGER_ZEROED), "1");
  EXPECT_STREQ(provision_mode_to_str(THIN), "2");
  EXPECT_STREQ(provision_mode_to_str(UNKNOWN), "UNKNOWN");
  EXPECT_STREQ(provision_mode_to_str(static_cast<Provisioning_Mode>(9)), "UNKNOWN");
}

TEST(Cas_Conversions, NoCbtOptsBothWays) {
  const std::pair<const char*, No_CBT_Opts> known[] = {
      {"skip", No_CBT_Opts::Skip},
      {"skip_with_alert", No_CBT_Opts::Skip_With_Alert},
      {"full_backup", No_CBT_Opts::Full_Backup},
  };
  for (const auto& [text, value] : known) {
    EXPECT_EQ(no_cbt_opts_from_str(text), value) << text;
    EXPECT_STREQ(no_cbt_opts_to_str(value), text);
  }
  for (const char* other : {"Skip", "none", "", "skip ", "FULL_BACKUP"})
    EXPECT_EQ(no_cbt_opts_from_str(other), No_CBT_Opts::None) << other;
  EXPECT_STREQ(no_cbt_opts_to_str(No_CBT_Opts::None), "none");
  EXPECT_STREQ(no_cbt_opts_to_str(static_cast<No_CBT_Opts>(42)), "none");
}

TEST(Cas_Conversions, UnifyPath) {
  struct Case {
    const char* path;
    bool rbd;
    const char* snapshot;
    const char* expected;
  } const cases[] = {
      {"pool/img", true, "", "rbd:pool/img"},           {"pool/img", true, nullptr, "rbd:pool/img"},
      {"pool/img", true, "s1", "rbd:pool/img@s1"},      {"pool/img", false, "s1", "pool/img"},
      {"/vms/a.qcow2", false, nullptr, "/vms/a.qcow2"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(unify_path(c.path, c.rbd, c.snapshot), c.expected);
}

TEST(Cas_Conversions, Filenamify) {
  const std::string with_nul("a/b\0c\001d:e", 9);
  EXPECT_EQ(filenamify(with_nul), "a_b_c_d_e");
  EXPECT_EQ(filenamify("vm-01 (copy).xml"), "vm-01 (copy).xml");
}

TEST(Cas_Conversions, IsSupported) {
  const std::pair<const char*, bool> cases[] = {
      {"E0750", true},       {"e0750", true}, {"E0706", true}, {"e0730H01", true}, {"E0810", false},
      {"V7.0 E0750", false}, {"", false},     {"E7", false},   {"E06", false},
  };
  for (const auto& [version, ok] : cases) {
    Log_Capture log;
    EXPECT_EQ(is_supported(version), ok) << version;
    if (!ok) {
      EXPECT_TRUE(log.contains(std::string("Unsupported CVM version '") + version + "'.\n"));
    }
  }
}

JSON_Value entry(const std::string& password) {
  return {{"host", "cvm.example"}, {"port", 8080},         {"ssl", true},
          {"username", "admin"},   {"password", password}, {"extended_attrs", {{"site", "north"}}}};
}

TEST(Cas_CVM_Info, LoadsClearAndDumpsFiveMembers) {
  CVM_Info cvm;
  ASSERT_TRUE(cvm.load(entry("s3cret"), false));
  EXPECT_EQ(cvm.host(), "cvm.example");
  EXPECT_EQ(cvm.port(), 8080);
  EXPECT_TRUE(cvm.ssl());
  EXPECT_EQ(cvm.username(), "admin");
  EXPECT_EQ(std::string(cvm.password().c_str()), "s3cret");
  EXPECT_EQ(cvm.extended_attrs(), JSON_Value({{"site", "north"}}));

  JSON_Value dumped = cvm.dump();
  EXPECT_EQ(dumped, JSON_Value({{"host", "cvm.example"},
                                {"port", 8080},
                                {"ssl", true},
                                {"username", "admin"},
                                {"password", "s3cret"}}));
}

TEST(Cas_CVM_Info, DecryptedRecordSurvivesDumpAndReload) {
  CVM_Info cvm;
  ASSERT_TRUE(cvm.load(entry(encrypt_for_agent("Pa ss:word")), true));
  EXPECT_EQ(std::string(cvm.password().c_str()), "Pa ss:word");

  CVM_Info again;
  ASSERT_TRUE(again.load(cvm.dump(), false));
  EXPECT_EQ(again.dump(), cvm.dump());
  EXPECT_TRUE(again.extended_attrs().empty());
}

TEST(Cas_CVM_Info, ExtendedAttrsAreOptional) {
  JSON_Value value = entry("x");
  value.erase("extended_attrs");
  CVM_Info cvm;
  ASSERT_TRUE(cvm.load(value, false));
  EXPECT_TRUE(cvm.extended_attrs().is_object());
  EXPECT_TRUE(cvm.extended_attrs().empty());
}

TEST(Cas_CVM_Info, RejectsMalformedEntries) {
  struct Case {
    const char* what;
    JSON_Value value;
  };
  std::vector<Case> cases = {
      {"not an object", JSON_Value::array({1, 2})},
      {"null", nullptr},
  };
  auto with = [](const char* key, JSON_Value v) {
    JSON_Value e = entry("x");
    e[key] = std::move(v);
    return e;
  };
  auto without = [](const char* key) {
    JSON_Value e = entry("x");
    e.erase(key);
    return e;
  };
  cases.push_back({"port as string", with("port", "8080")});
  cases.push_back({"port out of range", with("port", 70000)});
  cases.push_back({"negative port", with("port", -1)});
  cases.push_back({"ssl as string", with("ssl", "true")});
  cases.push_back({"username as number", with("username", 5)});
  cases.push_back({"extended_attrs as array", with("extended_attrs", JSON_Value::array())});
  for (const char* key : {"host", "port", "ssl", "username", "password"})
    cases.push_back({key, without(key)});

  for (const auto& c : cases) {
    Log_Capture log;
    CVM_Info cvm;
    EXPECT_FALSE(cvm.load(c.value, false)) << c.what;
    EXPECT_TRUE(log.contains("Invalid H3C CVM entry: ")) << c.what << ": " << log.text();
  }
}

TEST(Cas_CVM_Info, UndecryptablePasswordFails) {
  for (const std::string& cipher :
       {std::string("not base64!"), std::string("c2hvcnQ="), encrypt_for_agent("x").substr(4)}) {
    Log_Capture log;
    CVM_Info cvm;
    EXPECT_FALSE(cvm.load(entry(cipher), true)) << cipher;
    EXPECT_TRUE(log.contains("Failed to decrypt H3C CVM password.\n"));
  }
  // Encrypted with another key.
  std::string cipher;
  ASSERT_TRUE(encrypt_string("pw", 2, cipher, "other", 5));
  CVM_Info cvm;
  EXPECT_FALSE(cvm.load(entry(cipher), true));
}

// The backup server's route for stored CVM entries.
class Cas_Backup_Server : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.route(HTTP_Method::GET, "/k4/r/h3ccas/cvm",
                  [this](const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    query_ = req.query;
                    access_key_ =
                        req.headers.get("X-Access-Key") ? *req.headers.get("X-Access-Key") : "";
                    resp.status = status_;
                    resp.body = body_.dump();
                  });
    ASSERT_TRUE(server_.start(HTTP_Server::Options()));
    Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", server_.port(), false,
                                                        "agent-key");
    Host_ID::instance()->set("host-id-42");
  }
  void TearDown() override { server_.stop(); }
  void answer(int status, JSON_Value body) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
    body_ = std::move(body);
  }

  HTTP_Server server_;
  std::mutex mutex_;
  int status_ = 200;
  JSON_Value body_;
  std::map<std::string, std::string> query_;
  std::string access_key_;
};

TEST_F(Cas_Backup_Server, LoadsFirstRowWithDecryptedPassword) {
  JSON_Value second = entry(encrypt_for_agent("other"));
  second["host"] = "second.example";
  answer(200, {{"rows", {entry(encrypt_for_agent("from-server")), second}}});
  CVM_Info cvm;
  ASSERT_TRUE(cvm.load_from_server("cvm-uuid 1"));
  EXPECT_EQ(cvm.host(), "cvm.example");
  EXPECT_EQ(std::string(cvm.password().c_str()), "from-server");
  std::lock_guard<std::mutex> lock(mutex_);
  EXPECT_EQ(query_, (std::map<std::string, std::string>{{"uuid", "cvm-uuid 1"},
                                                        {"with_password", "host-id-42"}}));
  EXPECT_EQ(access_key_, "agent-key");
}

TEST_F(Cas_Backup_Server, MissingEntryAndServerFailures) {
  struct Case {
    int status;
    JSON_Value body;
    const char* log;
  } const cases[] = {
      {200, {{"rows", JSON_Value::array()}}, "H3C CVM not found, uuid = u-1.\n"},
      {200, JSON_Value::object(), "H3C CVM not found, uuid = u-1.\n"},
      {200, nullptr, "Failed to get CVM info from server.\n"},
      {500, {{"error", "boom"}}, "Failed to get CVM info from server.\n"},
      {200, {{"rows", JSON_Value::array({JSON_Value{{"host", "h"}}})}}, "Invalid H3C CVM entry: "},
  };
  for (const auto& c : cases) {
    answer(c.status, c.body);
    Log_Capture log;
    CVM_Info cvm;
    EXPECT_FALSE(cvm.load_from_server("u-1")) << c.body;
    EXPECT_TRUE(log.contains(c.log)) << log.text();
  }
}

}  // namespace
}  // namespace h3ccas
