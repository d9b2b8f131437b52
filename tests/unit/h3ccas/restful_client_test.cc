#include "host/core/text.h"
#include "tests/unit/h3ccas/support.h"

#include <clocale>

namespace h3ccas {
namespace {
using P = Digest_Peer;

const char kOperators[] = "/cas/casrs/operator/operatorInfoList";
const char kVersion[] = "/cas/casrs/datacenter/casVersion";

TEST(Cas_Digest, Rfc2617ExampleDecimalNonceCountAndChallenges) {
  Test_Client client(make_cvm(80, "Mufasa", "Circle Of Life"));
  client.auth_ = {"testrealm@host.com", "dcd98b7102dd2f0e8b11d0f600bfb0c093", "0a4f113b", 0};
  EXPECT_EQ(client.build_auth_header("GET", "/dir/index.html"),
            "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", "
            "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", uri=\"/dir/index.html\", "
            "response=\"6629fae49393a05397450978507c4ef1\", qop=\"auth\", nc=00000001, "
            "cnonce=\"0a4f113b\"");
  S header;
  for (int i = 2; i <= 10; ++i)  // the tenth hashes and sends 00000010, not the hexadecimal 0a
    header = client.build_auth_header("GET", "/dir/index.html");
  auto params = parse_auth_params(header.substr(7));
  EXPECT_EQ(params["nc"] + " " + params["response"], "00000010 fa475250162f10cbbb7487da3bd9896e");
  // challenge, realm, nonce (both found: success)
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {R"( realm="VMC RESTful Web Services", qop="auth", nonce="n1", opaque="o")",
       "VMC RESTful Web Services", "n1"},
      {R"(nonce="n2", realm="r2")", "r2", "n2"},
      {R"(realm="r", nonce="unterminated)", "r", ""},
      {R"(realm=r, nonce=n)", "", ""},
      {nullptr, "", ""},
  };
  for (const auto& [challenge, expected_realm, expected_nonce] : cases) {
    S realm, nonce;
    EXPECT_EQ(parse_www_auth(challenge, realm, nonce), *expected_nonce != '\0');
    EXPECT_EQ(std::tuple(realm, nonce), std::tuple(expected_realm, expected_nonce));
  }
}

TEST(Cas_Lists, ExtractsArraysBareObjectsAndEmptyBodies) {
  RESTful_Client client(make_cvm(80, "u", "p"));
  // response, success, `out` afterwards (it held ["before"]), the one line logged
  const std::tuple<const char*, bool, const char*, const char*> cases[] = {
      {R"({"vm":[{"id":1},2]})", true, R"([{"id":1},2])", ""},     // an array replaces
      {R"({"vm":{"id":1}})", true, R"(["before",{"id":1}])", ""},  // a bare object is appended
      {"null", true, "[]", "CAS request '/cas/casrs/vm' returns empty result.\n"},
      {"{}", false, R"(["before"])", "Unknown response type 0 from '/cas/casrs/vm', key = vm.\n"},
      {R"({"vm":"h1"})", false, R"(["before"])",
       "Unknown response type 3 from '/cas/casrs/vm', key = vm.\n"},
      {"[1]", false, R"(["before"])", "Expect JSON object response from '/cas/casrs/vm', got 2.\n"},
  };
  for (const auto& [response, ok, expected, message] : cases) {
    Log_Capture log;
    std::vector<JSON_Value> out{"before"};
    EXPECT_EQ(client.extract_list("/cas/casrs/vm", "vm", json(response), out), ok) << response;
    EXPECT_EQ(JSON_Value(out), json(expected)) << response;
    EXPECT_EQ(messages(log), message);
  }
}

// One challenge, then counting up until a request comes 60 seconds after the previous one, or
// a 401 answers: then exactly one fresh challenge and one more try.
TEST_F(Cas_Peer, SessionRenewalRetryAndMisusedSends) {
  Test_Client client(cvm());
  JSON_Value out;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(out, json(R"({"data":"H3C CAS E0750"})"));
  client.clock += 59;
  ASSERT_TRUE(client.get(kVersion, out));
  client.clock += 59;  // measured from the previous request, not from the challenge
  ASSERT_TRUE(client.get(kVersion, out));
  auto seen = peer_.seen();
  EXPECT_EQ(seen.challenges, 1);
  ASSERT_EQ(seen.accepted.size(), 3u);
  auto first = seen.accepted[0].auth;
  EXPECT_EQ(first["nc"] + seen.accepted[1].auth["nc"], "0000000100000002");
  EXPECT_EQ(seen.accepted[2].auth["cnonce"], first["cnonce"]);
  EXPECT_EQ(first.count("opaque") + first.count("algorithm"), 0u);
  client.clock += 60;
  ASSERT_TRUE(client.get(kVersion, out));
  seen = peer_.seen();
  EXPECT_EQ(seen.challenges, 2);
  EXPECT_EQ(seen.accepted.back().auth["nc"], "00000001");
  EXPECT_NE(seen.accepted.back().auth["cnonce"], first["cnonce"]);
  // Bad credentials: refused again after the one retry; the refusal's Error-Code is no CAS error.
  Log_Capture log;
  Test_Client wrong(cvm("wrong-secret"));
  EXPECT_FALSE(wrong.get(kVersion, out));
  EXPECT_EQ(std::tuple(peer_.seen().challenges, peer_.seen().refusals, wrong.last_status()),
            std::tuple(4, 2, 401));
  EXPECT_EQ(std::tuple(wrong.last_error_code(), log.text()), std::tuple("", ""));
  // Misused, the verbs send nothing, before a session exists and in one.
  const Digest_Peer::Record before = peer_.seen();
  RESTful_Client fresh(cvm());
  for (RESTful_Client* c : {&fresh, static_cast<RESTful_Client*>(&client)}) {
    Log_Capture log;
    HTTP_Request get(HTTP_Method::GET, kVersion), patch(HTTP_Method::PATCH, kVersion);
    JSON_Value body = {{"x", 1}};
    EXPECT_FALSE(c->send_request(get, &body, &out));
    EXPECT_TRUE(log.contains("req_body != nullptr"));
    EXPECT_FALSE(c->send_request(patch, &out));
    EXPECT_TRUE(log.contains(c == &client
                                 ? "Unsupported HTTP method 'PATCH' for CAS RESTful client.\n"
                                 : "Unexpected CAS HTTP request method.\n"));
  }
  EXPECT_EQ(std::tuple(peer_.seen().challenges, peer_.seen().accepted.size()),
            std::tuple(before.challenges, before.accepted.size()));
}

TEST_F(Cas_Peer, RecordsCasErrorHeaders) {
  // status, the Error-Code and Error-Message sent (null: none), last_error_code(), last_error()
  const std::tuple<int, const char*, const char*, const char*, const char*> cases[] = {
      {500, "1001", nullptr, "1001", ""},
      {500, "1002", "虚拟机不存在", "1002", "虚拟机不存在"},
      {409, "1003", "bad \xff\xfe text", "1003", "1003"},  // what does not convert is the code
      {404, nullptr, nullptr, "", ""},
  };
  // CAS messages are UTF-8; the agent runs in a UTF-8 locale.
  S saved = std::setlocale(LC_CTYPE, nullptr);
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  Test_Client client(cvm());
  for (const auto& [status, code_sent, message_sent, code, message] : cases) {
    Digest_Peer::Answer answer{status, "{}", {}};
    if (code_sent)
      answer.headers.emplace_back("Error-Code", code_sent);
    if (message_sent)
      answer.headers.emplace_back("Error-Message", message_sent);
    peer_.set("/cas/casrs/vm/1", answer);
    Log_Capture log;
    JSON_Value out;
    EXPECT_FALSE(client.get("/cas/casrs/vm/1", out));
    EXPECT_EQ(std::tuple(client.last_error_code(), client.last_error()), std::tuple(code, message));
    EXPECT_EQ(log.count(LM_INFO), log.count());
    EXPECT_EQ(messages(log), string_sprintf("CAS request 'GET /cas/casrs/vm/1' returns error, http "
                                            "status = %d, error code = '%s', message = '%s'.\n",
                                            status, code, message));
  }
  std::setlocale(LC_CTYPE, saved.c_str());
  JSON_Value out;
  ASSERT_TRUE(client.get(kVersion, out));
  EXPECT_EQ(client.last_error_code() + client.last_error(), "");
}

TEST_F(Cas_Peer, TestLoginOutcomes) {
  using P = Digest_Peer;
  using A = P::Answer;
  const auto ops = [](const char* list) { return P::json(R"({"operator":[)" + S(list) + "]}"); };
  const auto ver = [](const char* v) { return P::json(R"({"data":")" + S(v) + "\"}"); };
  const auto admin =
      ops(R"({"loginName":"bob","groupId":"3"},{"loginName":"admin","groupId":"1"})");
  const auto e0750 = ver("H3C CAS E0750");
  const A busy{500, "{}", {{"Error-Code", "2001"}, {"Error-Message", "busy"}}};
  const char* const no_list = "CVM user do NOT have permissions to list operators";
  struct Case {
    A operators, version;
    const char* error;  // empty: success
    const char* found_version;
    const char* log = "";
    const char* password = cvm_password;
  } const cases[] = {
      {admin, e0750, "", "E0750"},
      {ops(R"({"loginName":"bob","groupId":"2"})"), ver("H3C\\nCAS   E0730H05 extra"), "",
       "E0730H05"},
      {admin, ver("E0750"), "", "E0750", "Unknown CVM version: 'E0750'.\n"},
      {admin, ver("CAS E0750"), "Unsupported CVM verson 'CAS E0750', only supports E07+.",
       "CAS E0750", "Unknown CVM version: 'CAS E0750'.\n"},
      {ops(R"({"loginName":"admin","groupId":"0"})"), e0750,
       "CVM user is NOT a member of 'System Default Administrator Group'", ""},
      {admin, ver("H3C CAS E0810"), "Unsupported CVM verson 'E0810', only supports E07+.", "E0810",
       "Unsupported CVM version 'E0810'.\n"},
      {admin, e0750, "Invalid CVM username or password", "", "", "Adm1n:p@sS"},
      {P::json("{}", 500), e0750, "CVM internal error", ""},
      {P::json("{}", 403), e0750, "Failed to send request to CVM, network error", ""},
      {P::json(""), e0750, no_list, ""},
      {P::json("<html>denied</html>", 201), e0750, no_list, ""},
      {P::json(R"({"operators":[]})"), e0750,
       "Unknown response from CVM '/cas/casrs/operator/operatorInfoList'", "", "type 0 from"},
      {ops(R"({"loginName":"admin"})"), e0750, "Unknown response of CVM: missing key 'groupId'",
       ""},
      {admin, busy, "Failed to get CVM version, error: 2001, busy", "", "http status = 500"},
      {admin, P::json(R"({"data":750})"), "Failed to get CVM version, error: , ", "",
       "Unrecognized CAS CVK version response: 'data' is expected as string\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.operators.body + " " + c.version.body);
    peer_.set(kOperators, c.operators), peer_.set(kVersion, c.version);
    RESTful_Client client(cvm(c.password));
    Log_Capture log;
    S error, version;
    EXPECT_EQ(client.test_login(error, version), *c.error == '\0');
    EXPECT_EQ(std::tuple(error, version), std::tuple(c.error, c.found_version));
    // Unless told otherwise, the log holds the user's text alone, as an error.
    if (*c.log) {
      EXPECT_TRUE(log.contains(c.log)) << log.text();
    } else {
      EXPECT_EQ(messages(log), *c.error ? S(c.error) + ".\n" : "");
      EXPECT_EQ(log.count(LM_ERROR), log.count());
    }
    EXPECT_EQ(log.text().find(c.password), S::npos) << log.text();
  }
}

// The real session to the peer with the sends numbered `first` to `last` (counted from 1 over
// every session of the client) broken: without a `status` they get no answer, as when a connection
// drops; with one, that status, CAS error code "9" and the `challenge` given, not reaching the
// peer.
struct Breaking_Client : Test_Client {
  Breaking_Client(CVM_Info cvm, int f, int l, int s, const char* c)
      : Test_Client(std::move(cvm)), first(f), last(l), status(s), challenge(c) {}
  struct Session : HTTP_Session_Wrapper {
    Session(std::shared_ptr<HTTP_Session> target, Breaking_Client& c)
        : HTTP_Session_Wrapper(std::move(target)), c(c) {}
    bool send(const HTTP_Request& req, const S* body, HTTP_Response& resp) override {
      if (++c.sends < c.first || c.sends > c.last)
        return HTTP_Session_Wrapper::send(req, body, resp);
      resp.clear();
      if (c.status == 0)
        return false;
      resp.set_status(c.status), resp.headers().put("Error-Code", "9");
      if (c.challenge)
        resp.headers().put("WWW-Authenticate", c.challenge);
      return true;
    }
    Breaking_Client& c;
  };
  std::shared_ptr<HTTP_Session> create_session() override {
    return std::make_shared<Session>(RESTful_Client::create_session(), *this);
  }
  int first, last, status;
  const char* challenge;
  int sends = 0;
};

// A broken send shows as exactly one line where the client notices it, and the right error.
TEST_F(Cas_Peer, BrokenSendsOfTheSession) {
  const auto err = [](S request, int status, S code) {
    return "CAS request '" + request + "' returns error, http status = " + std::to_string(status) +
           ", error code = '" + code + "', message = ''.\n";
  };
  const S get = "GET " + S(kVersion);
  // the sends broken, the status they get (0: no answer), the one line logged (none: success), the
  // challenge they carry, the login's error when it is not that line's text
  const std::tuple<S, int, int, int, S, const char*, const char*> cases[] = {
      // GETs are sent again (5 times in all) when no answer came.
      {"GET", 1, 5, 0, "Failed to send request to CVM, network error..\n", {}, {}},
      {"GET", 1, 4, 0, "", {}, {}},
      {"GET", 2, 2, 0, "", {}, {}},
      {"POST", 2, 2, 0, err("POST /cas/casrs/vm/add", 0, ""), {}, {}},
      {"GET", 2, 2, 503, err(get, 503, "9"), {}, {}},
      {"login", 2, 6, 0, "Failed to send request to CVM, network error.\n", {}, {}},
      {"login", 2, 2, 502, "CVM internal error.\n", {}, {}},
      {"login", 1, 1, 200, "The first response for digest auth is not unauthorized.\n", {}, {}},
      {"login", 1, 1, 401, "Digest auth response header WWW-Authenticate not found.\n", {}, {}},
      {"login", 1, 1, 401, "Unknown CVM auth 'Digest realm=\"r\", qop=\"auth\"'.\n",
       R"(Digest realm="r", qop="auth")", nullptr},
      // The version query opens a session of its own (sends 3 and 4).
      {"login", 4, 8, 0, err(get, 0, ""), {}, "Failed to get CVM version, error: , "},
  };
  peer_.set("/cas/casrs/vm/add", Digest_Peer::json(R"({"msgId":"7"})"));
  for (const auto& [request, first, last, status, line, challenge, login_error] : cases) {
    SCOPED_TRACE(request + " " + std::to_string(first));
    Breaking_Client client(cvm(), first, last, status, challenge);
    Log_Capture log;
    JSON_Value out;
    S error, version;
    bool ok = request == "GET"    ? client.get(kVersion, out)
              : request == "POST" ? client.post("/cas/casrs/vm/add", {}, out)
                                  : client.test_login(error, version);
    EXPECT_EQ(std::tuple(ok, messages(log)), std::tuple(line.empty(), line));
    EXPECT_EQ(log.count(LM_INFO) + log.count(LM_ERROR), log.count());
    if (request == "login") {
      EXPECT_EQ(error, login_error ? login_error : line.substr(0, line.size() - 2));
    } else {
      EXPECT_EQ(client.last_status(), ok ? 200 : status);
    }
  }
}

// Each operation's one request as the CVM gets it, whether it polls its task, and all it logs.
TEST_F(Cas_Peer, StateAndBlockOperations) {
  const S cbt = "vm/disk/changedBlockTracker", vm_del = "DELETE vm/delete/7 ",
          del = "Deleting CAS VM(id=7).\n";
  const auto failed = [](const char* task, const char* why = "busy") {
    return "Failed to " + S(task) + " on CAS '127.0.0.1', error: '" + why + "'.\n";
  };
  const auto cas_error = [](const char* code) {
    return S("CAS request 'DELETE /cas/casrs/vm/delete/7' returns error, http status = 500, ") +
           "error code = '" + code + "', message = ''.\n";
  };
  const auto snap_body = [](const char* no_stop, const char* mem, const char* mode) {
    return S(R"({"keepBitmap":"true","name":"s","noStopVirtSnapMem":")") + no_stop +
           R"(","snapBlock":"true","snapMem":")" + mem + R"(","snapshotMode":")" + mode +
           R"(","snapshotTimeOut":30,"vmId":"7"})";
  };
  const P::Answer blocks = P::json(
      R"({"dataBlockInfo":[{"offset":"0","length":"4096"},{"offset":"65536","length":"512"}]})");
  std::vector<Block> got_blocks(1, Block{9, 1});
  std::map<S, bool> images{{"/old", true}};
  S vm_id;
  const JSON_Value n1 = {{"n", 1}}, w2 = {{"name", "w"}, {"cpu", 2}};
  const auto err = [](const char* code) { return P::Answer{500, "{}", {{"Error-Code", code}}}; };
  struct Case {
    std::function<bool(RESTful_Client&)> call;
    S request;  // "METHOD target body", the target under /cas/casrs/
    char task;  // its one poll gets: 'd' done, 'b' failed "busy", 'n' failed "null"; 0: no poll
    bool ok;
    S log;
    P::Answer answer = P::json(R"({"msgId":"42"})");
  } const cases[] = {
      {[](auto& c) { return c.create_snapshot("7", "w", "s", true, false, true, 30); },
       "POST vm/snapshot " + snap_body("false", "true", "1"), 'd', true,
       "Creating internal snapshot 's' for CAS VM 'w'.\n"},
      {[](auto& c) { return c.create_snapshot("7", "w", "s", false, true, false, 30); },
       "POST vm/snapshot " + snap_body("true", "false", "2"), 'b', false,
       "Creating external snapshot 's' for CAS VM 'w'.\n" + failed("create_snapshot")},
      {[](auto& c) { return c.delete_snapshot("7", "w", "s"); },
       "DELETE vm/snapshot/7/s?tidyVmImages=false ", 'b', false,
       "Deleting snapshot 's' for CAS VM 'w'.\n" + failed("delete_snapshot") +
           "Failed to delete snapshot 's' of CAS VM 'w'.\n"},
      {[&](auto& c) { return c.get_disk_blocks("1", "7", "/a b", "s", got_blocks); },
       "GET vm/disk/dataBlock?hostId=1&image=%2Fa%20b&snapshot=s&vmId=7 ", 0, true,
       "Getting allocated blocks of disk '/a b' (snapshot='s').\n", blocks},
      {[&](auto& c) { return c.get_disk_blocks("1", "7", "/a", "", got_blocks); },
       "GET vm/disk/dataBlock?hostId=1&image=%2Fa&vmId=7 ", 0, false,
       "Getting allocated blocks of disk '/a' (snapshot='').\n"
       "Invalid CAS disk block(offset=x, length=1).\n",
       P::json(R"({"dataBlockInfo":[{"offset":"1","length":"2"},{"offset":"x","length":"1"}]})")},
      {[&](auto& c) { return c.get_changed_blocks("7", "/a", "cbt", "s", got_blocks); },
       "GET vm/disk/changedBlock?name=cbt&snapshotName=s&srcPath=%2Fa&vmId=7 ", 0, true,
       "Getting changed blocks of disk '/a' (CBTer='cbt', snapshot='s').\n", blocks},
      {[&](auto& c) { return c.create_vm("w", w2, vm_id); }, R"(POST vm/add {"cpu":2,"name":"w"})",
       'd', true, "Creating CAS VM 'w', parameters:\n{\n  \"cpu\": 2,\n  \"name\": \"w\"\n}\n"},
      {[&](auto& c) { return c.create_storage_volume(THIN, n1); }, R"(POST storage/volume {"n":1})",
       0, true, "Creating storage volume:\n{\n  \"n\": 1\n}\n"},
      {[&](auto& c) { return c.create_storage_volume(EAGER_ZEROED, n1); },
       R"(POST storage/volume {"n":1})", 'b', false,
       "Creating storage volume:\n{\n  \"n\": 1\n}\n" + failed("create_storage_volume")},
      {[](auto& c) { return c.delete_storage_volume("1", "p0", "v"); },
       "DELETE storage/volume/delete/1/p0/v ", 0, true,
       "Deleting storage volume 'v' on pool 'p0' on CVK id=1.\n"},
      {[&](auto& c) { return c.create_disk("7", "w", n1); }, R"(PUT vm/addDevice {"n":1})", 'b',
       false,
       "Creating disk for CAS VM(id=7) 'w', disk parameters:\n{\n  \"n\": 1\n}\n" +
           failed("create_disk")},
      // A VM that CAS no longer knows, or whose deletion "fails" with the text null, is gone.
      {[](auto& c) { return c.delete_vm("7"); }, vm_del, 0, true, del + cas_error("1001"),
       err("1001")},
      {[](auto& c) { return c.delete_vm("7"); }, vm_del, 0, false, del + cas_error("1002"),
       err("1002")},
      {[](auto& c) { return c.delete_vm("7"); }, vm_del, 'n', true,
       del + failed("delete_vm", "null")},
      {[](auto& c) { return c.delete_vm("7"); }, vm_del, 'b', false, del + failed("delete_vm")},
      {[](auto& c) { return c.create_CBTer("w", "cbt"); },
       "POST " + cbt + "?name=cbt&subordinateOnly=true&vmName=w ", 'b', false,
       "Creating CBTer 'cbt' for CAS VM 'w'.\n" + failed("create_cbt")},
      {[&](auto& c) { return c.get_CBTer("w", "cbt", images); },
       "GET " + cbt + "?name=cbt&vmName=w ", 0, false,
       "Getting info of CBTer 'cbt'.\nUnknown response of CAS CBTer info: {\"image\":\"/a\"}.\n",
       P::json(R"({"dirtyBitmapInfo":{"image":"/a"}})")},
      {[&](auto& c) { return c.get_CBTer("w", "cbt", images); },
       "GET " + cbt + "?name=cbt&vmName=w ", 0, true, "Getting info of CBTer 'cbt'.\n",
       P::json(
           R"({"dirtyBitmapInfo":[{"image":"/a","valid":"true"},{"image":"/b","valid":"True"}]})")},
      {[](auto& c) { return c.delete_CBTer("w", "cbt"); },
       "DELETE " + cbt + "?isRegex=false&name=cbt&vmName=w ", 'b', false,
       "Deleting CBTer 'cbt' for CAS VM 'w'.\n" + failed("delete_CBTer")},
      {[](auto& c) { return c.start_vm("7", "w"); }, "PUT vm/start/7 ", 'd', true,
       "Setting CAS VM 'w' state to 'start'.\n"},
      {[](auto& c) { return c.stop_vm("7", "w"); }, "PUT vm/stop/7 ", 'b', false,
       "Setting CAS VM 'w' state to 'stop'.\n" + failed("set_vm_state")},
  };
  const std::map<char, S> progress = {
      {'d', R"({"completed":"true","result":"0","targetId":"vm-9"})"},
      {'b', R"({"completed":"true","result":"1","failMsg":"busy"})"},
      {'n', R"({"completed":"true","result":"1","failMsg":"null"})"}};
  Test_Client client(cvm());
  for (const Case& c : cases) {
    const S request = S(c.request).insert(c.request.find(' ') + 1, "/cas/casrs/");
    SCOPED_TRACE(request);
    peer_.set(request.substr(0, request.find_first_of("? ", request.find(' ') + 1)), c.answer);
    peer_.set("/cas/casrs/message/42", P::json(progress.at(c.task ? c.task : 'b')));
    std::size_t before = peer_.seen().accepted.size();
    Log_Capture log;
    EXPECT_EQ(c.call(client), c.ok);
    EXPECT_EQ(messages(log), c.log);
    S sent;
    auto accepted = peer_.seen().accepted;
    for (std::size_t i = before; i < accepted.size(); ++i)
      sent += accepted[i].method + " " + accepted[i].target + " " + accepted[i].body + "\n";
    EXPECT_EQ(sent, request + "\n" + (c.task ? "GET /cas/casrs/message/42 \n" : ""));
  }
  // Blocks are appended in the CVM's order up to a bad one; the CBTer's images are replaced.
  S text;
  for (const Block& b : got_blocks)
    text += std::to_string(b.offset_) + "+" + std::to_string(b.length_) + " ";
  EXPECT_EQ(text, "9+1 0+4096 65536+512 1+2 0+4096 65536+512 ");
  EXPECT_EQ(images, (std::map<S, bool>{{"/a", true}, {"/b", false}}));
  EXPECT_EQ(vm_id, "vm-9");
}

TEST_F(Cas_Peer, SelectsTheDataAddressOfAPreferredSwitch) {
  const auto vs = [](const char* address, const char* status, const char* types) {
    return JSON_Value{{"id", "1"},     {"name", "vs"},     {"address", address},
                      {"gateway", ""}, {"status", status}, {"networkType", types}};
  };
  // On CVK 1 the backup switches are inactive or without an address; on CVK 3 one is listed last.
  JSON_Value cvk1 = {{"vSwitch",
                      {vs("10.0.0.1", "1", "1"), vs("10.0.8.1", "0", "8"), vs("", "1", "8"),
                       vs("10.0.4.1", "1", "6")}}},
             cvk3 = {{"vSwitch", {vs("10.0.4.3", "1", "4"), vs("10.0.8.3", "1", "8")}}};
  peer_.set("/cas/casrs/host/id/1/vswitch", P::json(cvk1.dump()));
  peer_.set("/cas/casrs/host/id/3/vswitch", P::json(cvk3.dump()));
  const S none =
      "Failed to pick a target address for CVK 'c', defaults to its management "
      "network.\n";
  const auto picked = [](const char* address, const char* types) {
    return "CVK 'c' selects '" + S(address) +
           "' as data transmission target address, network type(s): " + types + ".\n";
  };
  // preference, CVK id, address picked, what is logged
  const std::tuple<std::optional<S>, const char*, const char*, S> cases[] = {
      {std::nullopt, "1", "", none},
      {"Backup", "1", "10.0.4.1", picked("10.0.4.1", R"(["service","storage"])")},
      {"", "3", "10.0.8.3", picked("10.0.8.3", R"(["backup"])")},
      {"backup", "1", "", none},
      {"storage", "3", "10.0.4.3", picked("10.0.4.3", R"(["storage"])")},
      {"management", "1", "10.0.0.1", picked("10.0.0.1", R"(["management"])")},
      {"storage", "2", "",
       "CAS request 'GET /cas/casrs/host/id/2/vswitch' returns error, http status = 404, error "
       "code = '', message = ''.\nFailed to list virtual switches for CVK 'c'.\n" +
           none},
  };
  RESTful_Client client(cvm());
  for (const auto& [preference, id, address, log_text] : cases) {
    SCOPED_TRACE(preference.value_or("(none)"));
    CVK_Target_Addr_Selector selector;
    EXPECT_TRUE(selector.set_preferred_network(preference));
    Log_Capture log;
    S out = "stale";
    EXPECT_EQ(selector.select(client, "c", id, out), *address != '\0');
    EXPECT_EQ(std::tuple(out, messages(log)), std::tuple(address, log_text));
    // A second VM of the CVK takes the pick without asking the CVM again.
    std::size_t asked = peer_.seen().accepted.size();
    EXPECT_EQ(selector.select(client, "c", id, out), *address != '\0');
    EXPECT_EQ(out, address);
    EXPECT_EQ(peer_.seen().accepted.size(), asked + (*address ? 0 : 1));
  }
}
}  // namespace
}  // namespace h3ccas
