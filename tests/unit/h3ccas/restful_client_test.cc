#include "h3ccas/restful_client.h"

#include "host/core/text.h"
#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>

namespace h3ccas {
namespace {

const char kOperators[] = "/cas/casrs/operator/operatorInfoList";
const char kVersion[] = "/cas/casrs/datacenter/casVersion";
const char kUser[] = "admin";
const char kPassword[] = "Adm1n:p@ss";

TEST(Cas_Digest, BuildsTheRfc2617Example) {
  Test_Client client(make_cvm(80, "Mufasa", "Circle Of Life"));
  client.auth_.realm_ = "testrealm@host.com";
  client.auth_.nonce_ = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
  client.auth_.cnonce_ = "0a4f113b";
  EXPECT_EQ(client.build_auth_header("GET", "/dir/index.html"),
            "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", "
            "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", uri=\"/dir/index.html\", "
            "response=\"6629fae49393a05397450978507c4ef1\", qop=\"auth\", nc=00000001, "
            "cnonce=\"0a4f113b\"");
}

TEST(Cas_Digest, NonceCountIsDecimal) {
  Test_Client client(make_cvm(80, "Mufasa", "Circle Of Life"));
  client.auth_.realm_ = "testrealm@host.com";
  client.auth_.nonce_ = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
  client.auth_.cnonce_ = "0a4f113b";
  std::string header;
  for (int i = 0; i < 10; ++i)
    header = client.build_auth_header("GET", "/dir/index.html");

  const std::string ha1 = md5_hex("Mufasa:testrealm@host.com:Circle Of Life");
  const std::string ha2 = md5_hex("GET:/dir/index.html");
  auto response = [&](const char* nc) {
    return md5_hex(ha1 + ":dcd98b7102dd2f0e8b11d0f600bfb0c093:" + nc + ":0a4f113b:auth:" + ha2);
  };
  auto params = parse_auth_params(header.substr(7));
  EXPECT_EQ(params["nc"], "00000010");
  EXPECT_EQ(params["response"], response("00000010"));
  EXPECT_NE(params["response"], response("0000000a"));
}

TEST(Cas_Digest, ParsesChallenges) {
  struct Case {
    const char* challenge;
    bool ok;
    const char* realm;
    const char* nonce;
  } const cases[] = {
      {R"( realm="VMC RESTful Web Services", qop="auth", nonce="n1", opaque="o")", true,
       "VMC RESTful Web Services", "n1"},
      {R"(nonce="n2", realm="r2")", true, "r2", "n2"},
      {R"(algorithm=MD5, domain="/a, /b", stale=true, realm="r3", qop="auth,auth-int", nonce="n3")",
       true, "r3", "n3"},
      {R"(realm="r", qop="auth")", false, "r", ""},
      {R"(nonce="n")", false, "", "n"},
      {R"(realm="r", nonce="unterminated)", false, "r", ""},
      {R"(realm=r, nonce=n)", false, "", ""},
      {"", false, "", ""},
  };
  for (const auto& c : cases) {
    std::string realm, nonce;
    EXPECT_EQ(parse_www_auth(c.challenge, realm, nonce), c.ok) << c.challenge;
    EXPECT_EQ(realm, c.realm) << c.challenge;
    EXPECT_EQ(nonce, c.nonce) << c.challenge;
  }
  std::string realm, nonce;
  EXPECT_FALSE(parse_www_auth(nullptr, realm, nonce));
}

TEST(Cas_Lists, ExtractsArraysBareObjectsAndEmptyBodies) {
  RESTful_Client client(make_cvm(80, "u", "p"));
  const JSON_Value one = {{"id", "1"}}, two = {{"id", "2"}}, before = "before";
  struct Case {
    JSON_Value response;
    bool ok;
    std::vector<JSON_Value> expected;  // `out` held {before}
  } const cases[] = {
      {{{"domain", {one, two}}}, true, {one, two}},  // an array replaces
      {{{"domain", one}}, true, {before, one}},      // a bare object is appended
      {{{"domain", JSON_Value::array()}}, true, {}}, {nullptr, true, {}},
      {JSON_Value::object(), false, {before}},       {{{"domain", "1"}}, false, {before}},
      {JSON_Value::array({1}), false, {before}},
  };
  for (const auto& c : cases) {
    std::vector<JSON_Value> out{before};
    JSON_Value response = c.response;
    EXPECT_EQ(client.extract_list("/cas/casrs/vm", "domain", std::move(response), out), c.ok)
        << c.response;
    EXPECT_EQ(out, c.expected) << c.response;
  }
}

class Cas_Peer : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(peer_.start());
    peer_.set_json(kOperators, {{"operator", {{"loginName", kUser}, {"groupId", "1"}}}});
    peer_.set_json(kVersion, {{"data", "H3C CAS E0750"}});
  }
  CVM_Info cvm(const std::string& password = kPassword) {
    return make_cvm(peer_.port(), kUser, password);
  }

  Digest_Peer peer_{kUser, kPassword};
};

TEST_F(Cas_Peer, OneChallengeThenCountsUp) {
  Test_Client client(cvm());
  JSON_Value out;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(out, JSON_Value({{"data", "H3C CAS E0750"}}));
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(peer_.challenges(), 1);
  auto seen = peer_.accepted();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].auth["nc"], "00000001");
  EXPECT_EQ(seen[1].auth["nc"], "00000002");
  EXPECT_EQ(seen[0].auth["cnonce"], seen[1].auth["cnonce"]);
  EXPECT_EQ(seen[0].auth.count("opaque"), 0u);
  EXPECT_EQ(seen[0].auth.count("algorithm"), 0u);
}

TEST_F(Cas_Peer, RenewsTheSessionAfterAMinuteIdle) {
  Test_Client client(cvm());
  JSON_Value out;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(peer_.challenges(), 1);
  client.clock += 59;
  ASSERT_TRUE(client.get(kVersion, out));
  client.clock += 59;  // measured from the previous request, not from the challenge
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(peer_.challenges(), 1);
  const std::string cnonce = peer_.accepted().back().auth["cnonce"];

  client.clock += 60;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(peer_.challenges(), 2);
  EXPECT_EQ(peer_.refusals(), 0);
  auto last = peer_.accepted().back().auth;
  EXPECT_EQ(last["nc"], "00000001");
  EXPECT_NE(last["cnonce"], cnonce);
}

TEST_F(Cas_Peer, RetriesOnceAfterAnExpiredNonce) {
  Test_Client client(cvm());
  JSON_Value out;
  ASSERT_TRUE(client.get(kVersion, out));
  peer_.expire_nonce();
  out = nullptr;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(out["data"], "H3C CAS E0750");
  EXPECT_EQ(peer_.refusals(), 1);
  EXPECT_EQ(peer_.challenges(), 2);
  EXPECT_EQ(client.last_error_code(), "");
}

TEST_F(Cas_Peer, WrongPasswordIsRefusedAfterOneRetryWithoutRecording) {
  Log_Capture log;
  Test_Client client(cvm("wrong-secret"));
  JSON_Value out;
  EXPECT_FALSE(client.get(kVersion, out));
  EXPECT_EQ(peer_.challenges(), 2);
  EXPECT_EQ(peer_.refusals(), 2);
  // The peer's 401 carries an Error-Code; a refusal is not a CAS error.
  EXPECT_EQ(client.last_error_code(), "");
  EXPECT_FALSE(log.contains("returns error"));
  EXPECT_EQ(log.text().find("wrong-secret"), std::string::npos);
}

TEST_F(Cas_Peer, RecordsCasErrorHeaders) {
  struct Case {
    int status;
    std::vector<std::pair<std::string, std::string>> headers;
    const char* code;
    const char* message;
  } const cases[] = {
      {500, {{"Error-Code", "1001"}}, "1001", ""},
      {500, {{"Error-Code", "1002"}, {"Error-Message", "虚拟机不存在"}}, "1002", "虚拟机不存在"},
      {409, {{"Error-Code", "1003"}, {"Error-Message", "bad \xff\xfe text"}}, "1003", "1003"},
      {400, {{"Error-Message", "plain text"}}, "", "plain text"},
      {404, {}, "", ""},
  };
  // CAS messages are UTF-8; the agent runs in a UTF-8 locale.
  std::string saved = std::setlocale(LC_CTYPE, nullptr);
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  Test_Client client(cvm());
  for (const auto& c : cases) {
    peer_.set("/cas/casrs/vm/1", {c.status, "{}", c.headers});
    Log_Capture log;
    JSON_Value out;
    EXPECT_FALSE(client.get("/cas/casrs/vm/1", out));
    EXPECT_EQ(client.last_error_code(), c.code);
    EXPECT_EQ(client.last_error(), c.message);
    EXPECT_TRUE(log.contains(string_sprintf(
        "CAS request 'GET /cas/casrs/vm/1' returns error, http status = %d, error code = '%s', "
        "message = '%s'.\n",
        c.status, c.code, c.message)))
        << log.text();
  }
  std::setlocale(LC_CTYPE, saved.c_str());

  // The next request starts clean.
  JSON_Value out;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(client.last_error_code(), "");
  EXPECT_EQ(client.last_error(), "");
}

TEST_F(Cas_Peer, VerbsCarryTheirBodiesAndQueries) {
  peer_.set_json("/cas/casrs/vm/add", {{"msgId", "7"}});
  peer_.set_json("/cas/casrs/vm/start/3", JSON_Value::object());
  peer_.set_json("/cas/casrs/vm/3", JSON_Value::object());
  peer_.set_json("/cas/casrs/vm/vmList", {{"domain", {{"id", "3"}}}});
  RESTful_Client client(cvm());
  JSON_Value out;
  ASSERT_TRUE(client.post("/cas/casrs/vm/add", {{"name", "vm 1"}}, out));
  EXPECT_EQ(out, JSON_Value({{"msgId", "7"}}));
  ASSERT_TRUE(client.put("/cas/casrs/vm/start/3", out));
  ASSERT_TRUE(client.del("/cas/casrs/vm/3", out));
  std::vector<JSON_Value> vms;
  ASSERT_TRUE(
      client.list("/cas/casrs/vm/vmList", "domain", vms, {{"name", "a b&c"}, {"hostId", "1"}}));
  ASSERT_EQ(vms.size(), 1u);
  EXPECT_EQ(vms[0]["id"], "3");

  auto seen = peer_.accepted();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen[0].method, "POST");
  EXPECT_EQ(JSON_Value::parse(seen[0].body), JSON_Value({{"name", "vm 1"}}));
  EXPECT_EQ(seen[1].method, "PUT");
  EXPECT_EQ(seen[1].body, "");
  EXPECT_EQ(seen[2].method, "DELETE");
  EXPECT_EQ(seen[3].method, "GET");
  EXPECT_EQ(seen[3].target, "/cas/casrs/vm/vmList?hostId=1&name=a%20b%26c");
  // The challenge exchange ran once, for the POST.
  EXPECT_EQ(peer_.challenges(), 1);
}

TEST_F(Cas_Peer, ListFailuresAndEmptyAnswers) {
  peer_.set("/cas/casrs/empty", {200, "", {}});
  peer_.set_json("/cas/casrs/wrong", {{"other", JSON_Value::array()}});
  RESTful_Client client(cvm());
  std::vector<JSON_Value> out(2);
  Log_Capture log;
  EXPECT_TRUE(client.list("/cas/casrs/empty", "domain", out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(log.contains("CAS request '/cas/casrs/empty' returns empty result.\n"));
  EXPECT_FALSE(client.list("/cas/casrs/wrong", "domain", out));
  EXPECT_TRUE(log.contains("Unknown response type 0 from '/cas/casrs/wrong', key = domain.\n"));
  EXPECT_FALSE(client.list("/cas/casrs/missing", "domain", out));
  EXPECT_EQ(client.last_error_code(), "");
}

TEST_F(Cas_Peer, MisusedMethodsSendNothing) {
  RESTful_Client client(cvm());
  Log_Capture log;
  HTTP_Request get(HTTP_Method::GET, kVersion);
  JSON_Value body = {{"x", 1}}, out;
  EXPECT_FALSE(client.send_request(get, &body, &out));
  EXPECT_TRUE(log.contains("req_body != nullptr"));
  HTTP_Request patch(HTTP_Method::PATCH, kVersion);
  EXPECT_FALSE(client.send_request(patch, &out));
  EXPECT_TRUE(log.contains("Unexpected CAS HTTP request method.\n"));
  EXPECT_EQ(peer_.challenges(), 0);

  // With a session, the method is refused before sending.
  ASSERT_TRUE(client.get(kVersion, out));
  HTTP_Request patch2(HTTP_Method::PATCH, kVersion);
  EXPECT_FALSE(client.send_request(patch2, &out));
  EXPECT_TRUE(log.contains("Unsupported HTTP method 'PATCH' for CAS RESTful client.\n"));
  EXPECT_EQ(peer_.accepted().size(), 1u);
}

TEST_F(Cas_Peer, ReadsTheVersionWord) {
  struct Case {
    const char* data;
    const char* version;
    bool warned;
  } const cases[] = {
      {"H3C CAS E0750", "E0750", false},
      {"H3C\n CAS   E0730H05 extra", "E0730H05", false},
      {"E0750", "E0750", true},
      {"H3C E0750", "H3C E0750", true},
  };
  for (const auto& c : cases) {
    peer_.set_json(kVersion, {{"data", c.data}});
    RESTful_Client client(cvm());
    Log_Capture log;
    std::string version;
    ASSERT_TRUE(client.get_cvm_version(version)) << c.data;
    EXPECT_EQ(version, c.version);
    EXPECT_EQ(log.contains(std::string("Unknown CVM version: '") + c.data + "'.\n"), c.warned);
  }
  peer_.set_json(kVersion, {{"data", 750}});
  RESTful_Client client(cvm());
  Log_Capture log;
  std::string version;
  EXPECT_FALSE(client.get_cvm_version(version));
  EXPECT_TRUE(
      log.contains("Unrecognized CAS CVK version response: 'data' is expected as string\n"));
}

Digest_Peer::Answer json_answer(const char* body, int status = 200) {
  return {status, body, {{"Content-Type", "application/json"}}};
}

TEST(Cas_Test_Login, Outcomes) {
  const char* const admin = R"({"operator":[{"loginName":"bob","groupId":"3"},
                                           {"loginName":"admin","groupId":"1"}]})";
  struct Case {
    const char* what;
    const char* password;
    Digest_Peer::Answer operators;
    Digest_Peer::Answer version;
    bool ok;
    const char* error;
    const char* found_version;
  } const cases[] = {
      {"administrator", kPassword, json_answer(admin), json_answer(R"({"data":"H3C CAS E0750"})"),
       true, "", "E0750"},
      {"single operator object", kPassword,
       json_answer(R"({"operator":{"loginName":"admin","groupId":"1"}})"),
       json_answer(R"({"data":"H3C CAS E0706"})"), true, "", "E0706"},
      {"listed outside the group", kPassword,
       json_answer(R"({"operator":[{"loginName":"admin","groupId":"2"}]})"),
       json_answer(R"({"data":"H3C CAS E0750"})"), false,
       "CVM user is NOT a member of 'System Default Administrator Group'", ""},
      {"not listed", kPassword, json_answer(R"({"operator":[{"loginName":"bob","groupId":"2"}]})"),
       json_answer(R"({"data":"H3C CAS E0730"})"), true, "", "E0730"},
      {"E08", kPassword, json_answer(admin), json_answer(R"({"data":"H3C CAS E0810"})"), false,
       "Unsupported CVM verson 'E0810', only supports E07+.", "E0810"},
      {"one-word version", kPassword, json_answer(admin), json_answer(R"({"data":"E0750"})"), true,
       "", "E0750"},
      {"wrong password", "Adm1n:p@sS", json_answer(admin),
       json_answer(R"({"data":"H3C CAS E0750"})"), false, "Invalid CVM username or password", ""},
      {"internal error", kPassword, json_answer("{}", 500), json_answer("{}"), false,
       "CVM internal error", ""},
      {"forbidden", kPassword, json_answer("{}", 403), json_answer("{}"), false,
       "Failed to send request to CVM, network error", ""},
      {"no body", kPassword, json_answer(""), json_answer("{}"), false,
       "CVM user do NOT have permissions to list operators", ""},
      {"no operator key", kPassword, json_answer(R"({"operators":[]})"), json_answer("{}"), false,
       "Unknown response from CVM '/cas/casrs/operator/operatorInfoList'", ""},
      {"operator without group", kPassword, json_answer(R"({"operator":[{"loginName":"admin"}]})"),
       json_answer("{}"), false, "Unknown response of CVM: missing key 'groupId'", ""},
      {"login name as number", kPassword, json_answer(R"({"operator":[{"loginName":5}]})"),
       json_answer("{}"), false, "Unknown response of CVM: 'loginName' is expected as string", ""},
      {"version request fails",
       kPassword,
       json_answer(admin),
       {500, "{}", {{"Error-Code", "2001"}, {"Error-Message", "busy"}}},
       false,
       "Failed to get CVM version, error: 2001, busy",
       ""},
      {"version of the wrong shape", kPassword, json_answer(admin), json_answer(R"({"data":7})"),
       false, "Failed to get CVM version, error: , ", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Digest_Peer peer(kUser, kPassword);
    ASSERT_TRUE(peer.start());
    peer.set(kOperators, c.operators);
    peer.set(kVersion, c.version);
    RESTful_Client client(make_cvm(peer.port(), kUser, c.password));
    Log_Capture log;
    std::string error, version;
    EXPECT_EQ(client.test_login(error, version), c.ok);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(version, c.found_version);
    EXPECT_EQ(log.text().find(c.password), std::string::npos) << log.text();
  }
}

TEST(Cas_Test_Login, ChallengeFailures) {
  struct Case {
    const char* what;
    int unsigned_status;
    const char* challenge;  // null: the peer's own
    const char* error;
  } const cases[] = {
      {"unsigned request accepted", 200, nullptr,
       "The first response for digest auth is not unauthorized"},
      {"challenge without nonce", 401, R"(Digest realm="r", qop="auth")",
       R"(Unknown CVM auth 'Digest realm="r", qop="auth"')"},
      {"no challenge header", 401, "", "Digest auth response header WWW-Authenticate not found"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Digest_Peer peer(kUser, kPassword);
    ASSERT_TRUE(peer.start());
    peer.set_unsigned_status(c.unsigned_status);
    if (c.challenge)
      peer.set_challenge(c.challenge);
    RESTful_Client client(make_cvm(peer.port(), kUser, kPassword));
    Log_Capture log;
    std::string error, version;
    EXPECT_FALSE(client.test_login(error, version));
    EXPECT_EQ(error, c.error);
    EXPECT_TRUE(log.contains(std::string(c.error) + ".\n")) << log.text();
    EXPECT_EQ(peer.accepted().size(), 0u);
  }
}

TEST(Cas_Test_Login, UnreachableCvm) {
  RESTful_Client client(make_cvm(free_port(), kUser, kPassword));
  std::string error, version;
  EXPECT_FALSE(client.test_login(error, version));
  EXPECT_EQ(error, "Failed to send request to CVM, network error.");
  EXPECT_EQ(version, "");
}

}  // namespace
}  // namespace h3ccas
