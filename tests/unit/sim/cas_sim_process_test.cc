// The real cas-sim on loopback, driven by curl as a digest client and by its control API.
#include "host/core/json.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char kWorld[] = R"({
  "version": "H3C CAS E0750",
  "operators": [
    {"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1},
    {"id": 2, "login_name": "auditor", "password": "aud", "group_id": 3}
  ],
  "hosts": []
})";

std::string on_path(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path ? path : "/usr/bin:/bin");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    std::string candidate = dir + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0)
      return candidate;
  }
  return "/usr/bin/" + name;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

struct Reply {
  int curl_exit = -1;
  int status = 0;                              // of the last answer; 0 when none came
  std::map<std::string, std::string> headers;  // of the last answer, names in lower case
  std::string body;
  std::string err;

  JSON_Value json() const { return JSON_Value::parse(body, nullptr, false); }
  std::string header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? "<absent>" : it->second;
  }
};

class Cas_Sim_Test : public ::testing::Test {
 protected:
  void start(const std::string& world = kWorld, const std::vector<std::string>& extra = {}) {
    write_text_file(dir_.file("world.json"), world);
    std::vector<std::string> argv = {"cas-sim",
                                     "--world",
                                     dir_.file("world.json"),
                                     "--ready-file",
                                     dir_.file("ready.json"),
                                     "--data",
                                     dir_.file("data"),
                                     "--log",
                                     dir_.file("sim.log")};
    argv.insert(argv.end(), extra.begin(), extra.end());
    ASSERT_TRUE(sim_.start(argv, {}, dir_.file("sim.out")));
    JSON_Value ready;
    ASSERT_TRUE(sim_.wait_ready(dir_.file("ready.json"), ready)) << slurp(dir_.file("sim.out"));
    ASSERT_EQ(ready.value("host", ""), "127.0.0.1");
    ASSERT_TRUE(ready.contains("http_port"));
    base_ = "127.0.0.1:" + std::to_string(ready["http_port"].get<int>());
  }

  Reply curl(const std::vector<std::string>& args, const std::string& target) {
    std::string n = std::to_string(++calls_);
    std::vector<std::string> argv = {
        on_path("curl"),    "-s", "-S",          "--max-time", "30", "-D", dir_.file("h" + n), "-o",
        dir_.file("b" + n), "-w", "%{http_code}"};
    if (tls_)
      argv.push_back("-k");
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back((tls_ ? "https://" : "http://") + base_ + target);
    Run_Result run = run_program(argv, "", {}, 60);
    Reply reply;
    reply.curl_exit = run.exit_code;
    reply.status = atoi(run.out.c_str());
    reply.body = slurp(dir_.file("b" + n));
    reply.err = run.err;
    // The header file holds every answer of the exchange (the 401 first); keep the last.
    std::istringstream lines(slurp(dir_.file("h" + n)));
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line.back() == '\r')
        line.pop_back();
      if (line.rfind("HTTP/", 0) == 0) {
        reply.headers.clear();
        continue;
      }
      std::size_t colon = line.find(':');
      if (colon == std::string::npos)
        continue;
      std::string name = line.substr(0, colon);
      for (char& c : name)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      std::size_t value = line.find_first_not_of(' ', colon + 1);
      reply.headers[name] = value == std::string::npos ? "" : line.substr(value);
    }
    return reply;
  }

  Reply cas(const std::string& target, const std::string& credentials = "admin:Adm1n pass",
            const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = {"--digest", "-u", credentials};
    args.insert(args.end(), extra.begin(), extra.end());
    return curl(args, target);
  }

  Reply control(const std::string& method, const std::string& target,
                const std::string& body = "") {
    std::vector<std::string> args = {"-X", method};
    if (!body.empty()) {
      args.insert(args.end(), {"-H", "Content-Type: application/json", "--data-binary", body});
    }
    return curl(args, target);
  }

  Temp_Dir dir_;
  Test_Process sim_;
  std::string base_;
  bool tls_ = false;
  int calls_ = 0;
};

TEST_F(Cas_Sim_Test, DigestLoginReadsOperatorsAndVersion) {
  start();
  Reply list = cas("/cas/casrs/operator/operatorInfoList");
  ASSERT_EQ(list.status, 200) << list.err;
  JSON_Value body = list.json();
  ASSERT_TRUE(body["operator"].is_array()) << list.body;
  ASSERT_EQ(body["operator"].size(), 2u);
  EXPECT_EQ(body["operator"][0]["id"], "1");
  EXPECT_EQ(body["operator"][0]["loginName"], "admin");
  EXPECT_EQ(body["operator"][0]["groupId"], "1");
  EXPECT_EQ(body["operator"][1]["groupId"], "3");
  EXPECT_EQ(list.body.find("password"), std::string::npos);
  EXPECT_EQ(list.body.find("Adm1n"), std::string::npos);

  // The query string is part of the signed uri.
  Reply version = cas("/cas/casrs/datacenter/casVersion?lang=zh_CN");
  ASSERT_EQ(version.status, 200);
  EXPECT_EQ(version.json(), JSON_Value({{"data", "H3C CAS E0750"}}));

  // Each curl run is challenged first, then signed.
  Reply log = control("GET", "/sim/requests");
  ASSERT_EQ(log.status, 200);
  const JSON_Value records = log.json()["requests"];
  ASSERT_EQ(records.size(), 4u) << log.body;
  const int statuses[] = {401, 200, 401, 200};
  const char* users[] = {"", "admin", "", "admin"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(records[i]["status"], statuses[i]) << i;
    EXPECT_EQ(records[i]["user"], users[i]) << i;
    EXPECT_EQ(records[i]["method"], "GET");
  }
  EXPECT_EQ(records[3]["target"], "/cas/casrs/datacenter/casVersion?lang=zh_CN");

  std::uint64_t last = records[3]["seq"];
  Reply later = control("GET", "/sim/requests?since=" + std::to_string(last - 1));
  EXPECT_EQ(later.json()["requests"].size(), 1u) << later.body;
  EXPECT_EQ(control("DELETE", "/sim/requests").json()["cleared"], 4);
  EXPECT_TRUE(control("GET", "/sim/requests").json()["requests"].empty());
}

TEST_F(Cas_Sim_Test, BadCredentialsGetAFreshChallenge) {
  start();
  const char* credentials[] = {"admin:wrong", "nobody:Adm1n pass", "auditor:Adm1n pass"};
  for (const char* c : credentials) {
    Reply reply = cas("/cas/casrs/operator/operatorInfoList", c);
    EXPECT_EQ(reply.status, 401) << c;
    EXPECT_EQ(reply.header("www-authenticate")
                  .rfind("Digest realm=\"VMC RESTful Web Services\", qop=\"auth\", nonce=\"", 0),
              0u)
        << reply.header("www-authenticate");
  }
  // No credentials at all: the challenge, and no data.
  Reply bare = curl({}, "/cas/casrs/operator/operatorInfoList");
  EXPECT_EQ(bare.status, 401);
  EXPECT_TRUE(bare.body.empty());
}

TEST_F(Cas_Sim_Test, InjectedFaultsShowAsScripted) {
  start();
  Reply added = control("POST", "/sim/faults", R"({"path": "/cas/casrs/operator", "count": 1,
      "status": 403, "error_code": "1001", "error_message": "用户没有权限"})");
  ASSERT_EQ(added.status, 200) << added.body;
  EXPECT_TRUE(added.json()["id"].is_number_integer());

  Reply denied = cas("/cas/casrs/operator/operatorInfoList");
  EXPECT_EQ(denied.status, 403);
  EXPECT_EQ(denied.header("error-code"), "1001");
  EXPECT_EQ(denied.header("error-message"), "用户没有权限");
  // Counted out: the next request is served, and other paths were never hit.
  EXPECT_EQ(cas("/cas/casrs/operator/operatorInfoList").status, 200);
  EXPECT_TRUE(control("GET", "/sim/faults").json()["faults"].empty());

  struct Case {
    const char* fault;
    int status;
    bool json;
  };
  const Case cases[] = {
      {R"({"path": "/cas/casrs/datacenter", "kind": "empty"})", 200, false},
      {R"({"path": "/cas/casrs/datacenter", "kind": "not_json"})", 200, false},
      {R"({"path": "/cas/casrs/datacenter", "method": "GET", "status": 500,
           "error_code": "9999", "body": "{\"x\":1}"})",
       500, true},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(control("POST", "/sim/faults", c.fault).status, 200) << c.fault;
    for (int i = 0; i < 2; ++i) {  // no count: every request until removed
      Reply reply = cas("/cas/casrs/datacenter/casVersion");
      EXPECT_EQ(reply.status, c.status) << c.fault;
      EXPECT_EQ(reply.json().is_discarded(), !c.json) << c.fault << " gave " << reply.body;
      EXPECT_EQ(reply.body.find("E0750"), std::string::npos) << c.fault;
    }
    EXPECT_EQ(control("DELETE", "/sim/faults").json()["removed"], 1);
  }

  // A dropped connection: curl retries once on a fresh one, so the fault stays for both.
  ASSERT_EQ(control("POST", "/sim/faults", R"({"path": "/cas/casrs/", "kind": "close"})").status,
            200);
  std::uint64_t before = control("GET", "/sim/requests").json()["last_seq"];
  Reply dropped = cas("/cas/casrs/datacenter/casVersion");
  EXPECT_NE(dropped.curl_exit, 0);
  EXPECT_TRUE(dropped.body.empty());
  JSON_Value records = control("GET", "/sim/requests?since=" + std::to_string(before)).json();
  ASSERT_GE(records["requests"].size(), 2u);
  EXPECT_EQ(records["requests"][0]["status"], 401);
  EXPECT_EQ(records["requests"][1]["status"], 0);  // signed, and left without an answer
  EXPECT_EQ(records["requests"][1]["user"], "admin");
  EXPECT_EQ(control("DELETE", "/sim/faults").status, 200);
  EXPECT_EQ(cas("/cas/casrs/datacenter/casVersion").status, 200);
}

TEST_F(Cas_Sim_Test, KnobsChangeWhatTheCvmSays) {
  start();
  Reply changed = control("PUT", "/sim/knobs", R"({"version": "H3C CAS E0810",
      "operators": [{"id": 7, "login_name": "admin", "password": "new", "group_id": 1}]})");
  ASSERT_EQ(changed.status, 200) << changed.body;
  EXPECT_EQ(changed.json()["version"], "H3C CAS E0810");

  EXPECT_EQ(cas("/cas/casrs/operator/operatorInfoList").status, 401);  // old password
  Reply list = cas("/cas/casrs/operator/operatorInfoList", "admin:new");
  ASSERT_EQ(list.status, 200);
  // CAS's one-member list: a bare object under the key.
  JSON_Value body = list.json();
  ASSERT_TRUE(body["operator"].is_object()) << list.body;
  EXPECT_EQ(body["operator"]["id"], "7");
  EXPECT_EQ(cas("/cas/casrs/datacenter/casVersion", "admin:new").json()["data"], "H3C CAS E0810");

  JSON_Value world = control("GET", "/sim/world").json();
  EXPECT_EQ(world["version"], "H3C CAS E0810");
  EXPECT_EQ(world["hosts"], JSON_Value::array());
}

TEST_F(Cas_Sim_Test, UnknownRoutesGetCasErrors) {
  start();
  Reply missing = cas("/cas/casrs/vm/nothing");
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.header("error-code"), "404");
  EXPECT_NE(missing.header("error-message"), "<absent>");
  Reply wrong_method =
      cas("/cas/casrs/operator/operatorInfoList", "admin:Adm1n pass", {"-X", "DELETE"});
  EXPECT_EQ(wrong_method.status, 405);
  EXPECT_EQ(wrong_method.header("error-code"), "405");
  // Outside the API nothing is asked and nothing is answered.
  EXPECT_EQ(curl({}, "/index.html").status, 404);
}

TEST_F(Cas_Sim_Test, ControlApiRefusesBadRequests) {
  start();
  struct Case {
    const char* method;
    const char* target;
    const char* body;
    int status;
    const char* error;
  };
  const Case cases[] = {
      {"POST", "/sim/faults", "{", 400, "invalid JSON body"},
      {"POST", "/sim/faults", R"({"path": "/cas", "kind": "boom"})", 400, "'kind'"},
      {"POST", "/sim/faults", R"({"path": "/cas", "status": 200, "extra": 1})", 400,
       "unknown key 'extra'"},
      {"PUT", "/sim/knobs", R"({"latency_ms": "slow"})", 400,
       "'latency_ms' is expected as integer"},
      {"GET", "/sim/requests?since=x", "", 400, "'since'"},
      {"DELETE", "/sim/faults?id=99", "", 404, "no fault 99"},
      {"GET", "/sim/nothing", "", 404, "no control route"},
      {"POST", "/sim/world", "{}", 405, "not allowed"},
  };
  for (const Case& c : cases) {
    Reply reply = control(c.method, c.target, c.body);
    EXPECT_EQ(reply.status, c.status) << c.method << " " << c.target << " " << c.body;
    EXPECT_NE(reply.json().value("error", "").find(c.error), std::string::npos)
        << c.target << " gave " << reply.body;
  }
  // Nothing of that reached the world.
  JSON_Value world = control("GET", "/sim/world").json();
  EXPECT_TRUE(world["faults"].empty());
  EXPECT_EQ(world["knobs"]["latency_ms"], 0);
}

TEST_F(Cas_Sim_Test, ServesHttpsWithTheGivenCertificate) {
  Run_Result made = run_program({on_path("openssl"), "req", "-x509", "-newkey", "rsa:2048",
                                 "-nodes", "-keyout", dir_.file("key.pem"), "-out",
                                 dir_.file("cert.pem"), "-days", "2", "-subj", "/CN=127.0.0.1"});
  ASSERT_EQ(made.exit_code, 0) << made.err;
  tls_ = true;
  start(kWorld, {"--tls-cert", dir_.file("cert.pem"), "--tls-key", dir_.file("key.pem")});
  Reply list = cas("/cas/casrs/operator/operatorInfoList");
  EXPECT_EQ(list.status, 200) << list.err;
  EXPECT_EQ(list.json()["operator"].size(), 2u);
  EXPECT_EQ(cas("/cas/casrs/operator/operatorInfoList", "admin:x").status, 401);
  tls_ = false;
  EXPECT_EQ(curl({}, "/cas/casrs/operator/operatorInfoList").status, 0);  // plain HTTP refused
}

TEST_F(Cas_Sim_Test, StopsCleanlyOnSigterm) {
  start();
  ASSERT_EQ(cas("/cas/casrs/datacenter/casVersion").status, 200);
  int status = sim_.stop();
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_NE(slurp(dir_.file("sim.log")).find("Stopping on signal"), std::string::npos);
}

TEST(Cas_Sim_Options, BadOptionsAndWorldsFailWithOneClearLine) {
  Temp_Dir dir;
  write_text_file(dir.file("good.json"), kWorld);
  write_text_file(dir.file("bad.json"),
                  R"({"operators": [{"id": 1, "login_name": "admin", "group_id": 1}]})");
  write_text_file(dir.file("broken.json"), "{\"operators\": [}");
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    const char* error;
  };
  const Case cases[] = {
      {{}, 2, "Missing --world FILE"},
      {{"--world"}, 2, "Option '--world' needs a value"},
      {{"--world", dir.file("good.json"), "--port", "1"}, 2, "Unknown option '--port'"},
      {{"--world", dir.file("good.json"), "--listen", "127.0.0.1"}, 2, "Invalid --listen"},
      {{"--world", dir.file("good.json"), "--listen", "127.0.0.1:70000"}, 2, "Invalid --listen"},
      {{"--world", dir.file("good.json"), "--tls-cert", dir.file("c.pem")}, 2, "go together"},
      {{"--world", dir.file("absent.json")}, 1, "Failed to read world file"},
      {{"--world", dir.file("bad.json")}, 1, "operators[0]: missing key 'password'"},
      {{"--world", dir.file("broken.json")}, 1, "parse error"},
      {{"--world", dir.file("good.json"), "--tls-cert", dir.file("none.pem"), "--tls-key",
        dir.file("none.pem")},
       1,
       "Failed to load the TLS certificate"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {bin_path("cas-sim")};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    Run_Result run = run_program(argv, "", {}, 30);
    std::string what = c.args.empty() ? "(no options)" : c.args.back();
    EXPECT_EQ(run.exit_code, c.exit_code) << what << "\n" << run.err;
    EXPECT_NE(run.err.find(c.error), std::string::npos) << what << "\n" << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << what << "\n" << run.err;
  }
  Run_Result help = run_program({bin_path("cas-sim"), "--help"}, "", {}, 30);
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("--world FILE"), std::string::npos);
}

}  // namespace
