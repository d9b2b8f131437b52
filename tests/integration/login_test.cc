// Registering a CVM and testing its login, through the CLI, the agent, the module and cas-sim;
// the CLI's command line and its own configuration.
#include "h3ccas/common.h"
#include "h3ccas/restful_client.h"
#include "host/core/paths.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

const char world[] = R"({"version": "H3C CAS E0750", "operators": [
    {"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1},
    {"id": 2, "login_name": "auditor", "password": "aud1t", "group_id": 2}]})";

class Login : public ::testing::Test {
 protected:
  void SetUp() override {
    write_text_file(stack_.dir().file("world.json"), world);
    sim_port_ = stack_.start_sim("sim", stack_.dir().file("world.json"));
    ASSERT_NE(sim_port_, 0);
    ASSERT_TRUE(stack_.start_server_and_agent());
  }

  // `brimlet --json cvm test` of a registered CVM: the exit code and the module's result.
  int test_login(const std::string& name, JSON_Value& result) {
    Run_Result r = stack_.cli({"--json", "cvm", "test", name});
    result = JSON_Value::parse(r.out, nullptr, false);
    return r.exit_code;
  }

  Test_Stack stack_;
  std::uint16_t sim_port_ = 0;
};

TEST_F(Login, GroupOneUserOnE07Succeeds) {
  std::string uuid = stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
  ASSERT_FALSE(uuid.empty());
  JSON_Value result;
  EXPECT_EQ(test_login("lab", result), 0);
  EXPECT_EQ(result, (JSON_Value{{"result", true}, {"version", "E0750"}, {"message", ""}}));
  // By uuid too, and the human form says so.
  Run_Result r = stack_.cli({"cvm", "test", uuid});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "Login to 127.0.0.1 succeeded, CVM version E0750\n");

  // Nothing the programs wrote (logs, database, configuration, outputs) holds the password.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(stack_.dir().path())) {
    if (!entry.is_regular_file() || entry.path().filename() == "world.json")
      continue;
    std::string text;
    ASSERT_TRUE(read_file(entry.path().string(), text));
    EXPECT_EQ(text.find("Adm1n pass"), std::string::npos) << entry.path();
  }
}

TEST_F(Login, FailuresAreResultsWithTheCauseNamed) {
  struct Case {
    const char* name;
    std::uint16_t port;  // nothing listens on port 1 of loopback
    const char *user, *password, *message;
  } cases[] = {
      {"wrong-password", sim_port_, "admin", "not it", "Invalid CVM username or password"},
      {"auditor", sim_port_, "auditor", "aud1t",
       "CVM user is NOT a member of 'System Default Administrator Group'"},
      {"nowhere", 1, "admin", "x", "Failed to send request to CVM, network error."},
  };
  for (const auto& c : cases) {
    stack_.add_cvm(c.name, c.port, c.user, c.password);
    JSON_Value result;
    EXPECT_EQ(test_login(c.name, result), 1);
    EXPECT_EQ(result, (JSON_Value{{"result", false}, {"version", ""}, {"message", c.message}}));
  }
  Run_Result r = stack_.cli({"cvm", "test", "wrong-password"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: login to 127.0.0.1 failed: Invalid CVM username or password\n");

  EXPECT_EQ(stack_.cli({"cvm", "remove", "wrong-password"}).exit_code, 0);
  stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
  stack_.sim_control("sim", "PUT", "/sim/knobs", {{"version", "H3C CAS E0810"}});
  JSON_Value result;
  EXPECT_EQ(test_login("lab", result), 1);
  EXPECT_EQ(result["version"], "E0810");
  EXPECT_EQ(result["message"], "Unsupported CVM verson 'E0810', only supports E07+.");
}

TEST_F(Login, ExpiredNonceIsRenegotiatedTransparently) {
  // A login is one signed exchange; the renegotiation shows between two requests of one client.
  h3ccas::CVM_Info cvm;
  ASSERT_TRUE(cvm.load({{"host", "127.0.0.1"},
                        {"port", sim_port_},
                        {"ssl", false},
                        {"username", "admin"},
                        {"password", "Adm1n pass"}},
                       false));
  h3ccas::RESTful_Client client(cvm);
  const char* path = "/cas/casrs/datacenter/casVersion";
  JSON_Value out;
  stack_.sim_control("sim", "DELETE", "/sim/requests");
  ASSERT_TRUE(client.get(path, out));
  EXPECT_EQ(stack_.sim_control("sim", "POST", "/sim/nonces/expire")["expired"], 1);
  ASSERT_TRUE(client.get(path, out));
  EXPECT_EQ(out["data"], "H3C CAS E0750");

  JSON_Value log = stack_.sim_control("sim", "GET", "/sim/requests");
  std::vector<int> statuses;
  for (const auto& r : log.value("requests", JSON_Value::array()))
    statuses.push_back(r.value("status", 0));
  // Challenge and signed request; then the stale nonce refused, a new challenge, and success.
  EXPECT_EQ(statuses, (std::vector<int>{401, 200, 401, 401, 200})) << log.dump();
}

TEST_F(Login, TlsToTheSimulator) {
  std::string cert = stack_.dir().file("cert.pem"), key = stack_.dir().file("key.pem");
  ASSERT_TRUE(make_test_certificate(cert, key));
  std::uint16_t tls_port = stack_.start_sim("tls-sim", stack_.dir().file("world.json"), cert, key);
  stack_.add_cvm("secure", tls_port, "admin", "Adm1n pass", true);
  stack_.add_cvm("plain-to-tls", tls_port, "auditor", "aud1t", false);
  JSON_Value result;
  EXPECT_EQ(test_login("secure", result), 0) << result.dump();
  EXPECT_EQ(result["version"], "E0750");
  EXPECT_EQ(test_login("plain-to-tls", result), 1);
  EXPECT_EQ(result["result"], false);
}

TEST_F(Login, MalformedJsonRpcGetsErrorsAndTheAgentKeepsServing) {
  const std::string login = R"({"jsonrpc":"2.0","method":"h3ccas.test_login",)";
  const std::string entry = R"("params":{"host":"h","ssl":false,"username":"u",)";
  struct Case {
    std::string body;
    int code;
    JSON_Value id;
    std::string message;
  } cases[] = {
      {"{not json", -32700, nullptr, ""},
      {login + R"("params":[1,2],"id":4})", -32602, 4, ""},
      {login + R"("params":{},"id":5})", -32600, -1, "Invalid H3C CVM entry."},
      {login + entry + R"("port":"443","password":"p"},"id":6})", -32600, -1, ""},
      {login + entry + R"("port":1,"password":"not encrypted"},"id":7})", -32600, -1, ""},
      {R"({"jsonrpc":"2.0","method":"no.such.method","id":8})", -32601, 8, ""},
      {R"({"jsonrpc":"2.0","id":9})", -32600, nullptr, ""},
  };
  for (const auto& c : cases) {
    JSON_Value answer;
    ASSERT_EQ(stack_.agent_post(c.body, answer), 200) << c.body;
    EXPECT_EQ(answer["error"]["code"], c.code) << c.body;
    EXPECT_EQ(answer["id"], c.id) << c.body;
    EXPECT_TRUE(c.message.empty() || answer["error"]["message"] == c.message) << answer;
  }
  stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
  JSON_Value result;
  EXPECT_EQ(test_login("lab", result), 0);
}

TEST_F(Login, AgentOffLoopbackNeedsTls) {
  Run_Result r = run_program({"brimlet-agent", "--listen", "0.0.0.0:0"}, "", stack_.env(), 30);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("needs 'tls_cert' and 'tls_key'"), std::string::npos) << r.err;
}

TEST_F(Login, CliCommandLineAndConfiguration) {
  struct Case {
    std::vector<std::string> args;
    int exit_code;
    std::string err;
  } cases[] = {
      {{"cvm", "add", "--host", "h", "--username", "u", "--password", "x"},
       2,
       "brimlet: passwords are never taken from the command line; use the prompt or "
       "--password-stdin\nRun 'brimlet cvm add --help' for usage.\n"},
      {{"cvm", "add", "--host", "h", "--username", "u", "--port", "0"},
       2,
       "brimlet: --port: Value 0 not in range 1 to 65535\nRun 'brimlet cvm add --help' for "
       "usage.\n"},
      {{"--json", "cvm", "frobnicate"},
       2,
       "brimlet: unknown command 'cvm frobnicate'\nRun 'brimlet cvm --help' for usage.\n"},
      {{}, 2, "brimlet: A subcommand is required\nRun 'brimlet --help' for usage.\n"},
      {{"cvm", "test", "no-such-cvm"}, 1, "brimlet: no registered CVM 'no-such-cvm'\n"},
      {{"cvm", "add", "--host", "h", "--username", "u", "--password-stdin"},
       1,
       "brimlet: no password given\n"},
  };
  for (const auto& c : cases) {
    Run_Result r = stack_.cli(c.args);
    EXPECT_EQ(r.exit_code, c.exit_code) << c.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
  // Each command answers --help with its own usage.
  Run_Result r = stack_.cli({"pool", "add", "--help"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("register a storage pool\nUsage: brimlet pool add [OPTIONS]\n", 0), 0u);
  EXPECT_NE(r.out.find("--url TEXT REQUIRED"), std::string::npos) << r.out;

  // Global flags may follow the command.
  std::string uuid = stack_.add_cvm("lab", sim_port_, "admin", "Adm1n pass");
  r = stack_.cli({"cvm", "list", "--json"});
  JSON_Value rows = JSON_Value::parse(r.out, nullptr, false);
  EXPECT_EQ(rows[0]["uuid"], uuid) << r.out;
  EXPECT_EQ(r.out.find("Adm1n pass"), std::string::npos) << r.out;
  r = stack_.cli({"cvm", "remove", "lab"});
  EXPECT_EQ(r.out, "Removed CVM " + uuid + "\n") << r.err;
  EXPECT_EQ(stack_.cli({"cvm", "test", "lab"}).exit_code, 1);

  // The administrator's key is refused unless only its owner may read it; an unknown key gets
  // the server's refusal.
  std::string conf = stack_.dir().path() + "/etc/opt/quorvex/brimlet5/cli.json";
  std::filesystem::permissions(
      conf, std::filesystem::perms::group_read | std::filesystem::perms::others_read,
      std::filesystem::perm_options::add);
  r = stack_.cli({"pool", "list"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: the CLI configuration '" + conf +
                       "' may be read by others (mode 0644); make it readable by its owner only "
                       "(chmod 600)\n");
  std::string text;
  ASSERT_TRUE(read_file(conf, text));
  JSON_Value stranger = JSON_Value::parse(text);
  stranger["backup_server"]["access_key"] = "not-a-key";
  write_text_file(conf, stranger.dump());
  std::filesystem::permissions(conf, std::filesystem::perms::owner_read);
  r = stack_.cli({"pool", "list"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.rfind("brimlet: backup server answered 401", 0), 0u) << r.err;
}

}  // namespace
