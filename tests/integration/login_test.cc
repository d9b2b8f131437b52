// A registered CVM's login through the CLI, the agent, the module and cas-sim; the CLI's help and
// its own configuration.
#include "h3ccas/common.h"
#include "h3ccas/restful_client.h"
#include "host/core/paths.h"
#include "tests/integration/test_stack.h"

#include <filesystem>

namespace {
using Login = Lab_Test;

TEST_F(Login, SucceedsRenegotiatesUsesTlsAndThePasswordIsWrittenNowhereWhateverTheCliDoes) {
  // An expired nonce is renegotiated between two requests of one client.
  h3ccas::CVM_Info cvm;
  JSON_Value info = {{"host", "127.0.0.1"}, {"port", sim_port_}, {"ssl", false}};
  info.update({{"username", "admin"}, {"password", "Adm1n pass"}});
  ASSERT_TRUE(cvm.load(info, false));
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
  JSON_Value result = JSON_Value::parse(stack_.cli({"--json", "cvm", "test", "lab"}).out);
  EXPECT_EQ(result, (JSON_Value{{"result", true}, {"version", "E0750"}, {"message", ""}}));
  // By uuid too, and the human form says so.
  Run_Result r = stack_.cli({"cvm", "test", uuid_});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "Login to 127.0.0.1 succeeded, CVM version E0750\n");
  std::string cert = stack_.dir().file("cert.pem"), key = stack_.dir().file("key.pem");
  ASSERT_TRUE(make_test_certificate(cert, key));
  std::uint16_t tls_port = stack_.start_sim("tls-sim", stack_.dir().file("world.json"), cert, key);
  stack_.add_cvm("secure", tls_port, "admin", "Adm1n pass", true);
  stack_.add_cvm("plain-to-tls", tls_port, "someone", "x", false);
  result = JSON_Value::parse(stack_.cli({"--json", "cvm", "test", "secure"}).out);
  EXPECT_EQ(result["version"], "E0750") << result;
  r = stack_.cli({"--json", "cvm", "test", "plain-to-tls"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(JSON_Value::parse(r.out, nullptr, false)["result"], false) << r.out;
  // The agent off loopback needs TLS.
  r = run_program({"brimlet-agent", "--listen", "0.0.0.0:0"}, "", stack_.env(), 30);
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("needs 'tls_cert' and 'tls_key'"), std::string::npos) << r.err;
  // The CLI's help, listing and own configuration.
  r = stack_.cli({"pool", "add", "--help"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("register a storage pool\nUsage: brimlet pool add [OPTIONS]\n", 0), 0u);
  EXPECT_NE(r.out.find("--url TEXT REQUIRED"), std::string::npos) << r.out;
  // Global flags may follow the command.
  r = stack_.cli({"cvm", "list", "--json"});
  EXPECT_EQ(JSON_Value::parse(r.out, nullptr, false)[0]["uuid"], uuid_) << r.out;
  EXPECT_EQ(r.out.find("Adm1n pass"), std::string::npos) << r.out;
  EXPECT_EQ(stack_.cli({"cvm", "remove", "lab"}).out, "Removed CVM " + uuid_ + "\n");
  EXPECT_EQ(stack_.cli({"cvm", "test", "lab"}).exit_code, 1);
  // The administrator's key is refused unless only its owner may read it; an unknown key gets
  // the server's refusal.
  namespace fs = std::filesystem;
  std::string conf = stack_.dir().path() + "/etc/opt/quorvex/brimlet5/cli.json", text;
  fs::permissions(conf, fs::perms::group_read | fs::perms::others_read, fs::perm_options::add);
  r = stack_.cli({"pool", "list"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "brimlet: the CLI configuration '" + conf +
                       "' may be read by others (mode 0644); make it readable by its owner only "
                       "(chmod 600)\n");
  ASSERT_TRUE(read_file(conf, text));
  JSON_Value stranger = JSON_Value::parse(text);
  stranger["backup_server"]["access_key"] = "not-a-key";
  write_text_file(conf, stranger.dump());
  fs::permissions(conf, fs::perms::owner_read);
  r = stack_.cli({"pool", "list"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err.rfind("brimlet: backup server answered 401", 0), 0u) << r.err;
  // Every agent call needs the agent's key, on loopback too, and nothing runs without it; the CLI
  // takes the key only from an agent configuration that only its owner may read.
  JSON_Value def = {{"uid", "j1"}, {"type", 1}, {"source", {}}, {"options", {}}};
  EXPECT_EQ(stack_.agent_status("job.run", {{"definition", def}}, ""), 401);
  EXPECT_EQ(stack_.agent_status("h3ccas.test_login", JSON_Value::object(), "not-a-key"), 401);
  EXPECT_EQ(stack_.agent_call("job.list", JSON_Value::object())["result"].dump(), R"({"runs":[]})");
  def["type"] = 3;
  EXPECT_EQ(stack_.agent_call("job.run", {{"definition", def}})["error"]["message"],
            "invalid job definition: no module parses the 'source' of this type of jobs");
  write_text_file(conf, text);
  fs::permissions(conf, fs::perms::owner_read);
  r = stack_.cli({"job", "status", "nope"});
  EXPECT_EQ(std::tuple(r.exit_code, r.err),
            std::tuple(1, "brimlet: agent error -32602: no run 'nope'\n"));
  EXPECT_EQ(stack_.cli({"job", "list"}).out, "RUN  JOB  NAME  TYPE  STATE  STARTED  ENDED\n");
  // The module parses backup definitions and makes their jobs.
  def["type"] = 1;
  EXPECT_EQ(stack_.agent_call("job.run", {{"definition", def}})["result"]["job_uid"], "j1");
  conf = stack_.dir().path() + "/etc/opt/quorvex/brimlet5/agent.json";
  fs::permissions(conf, fs::perms::group_read, fs::perm_options::add);
  r = stack_.cli({"cvm", "test", "secure"});
  EXPECT_EQ(r.err, "brimlet: the agent configuration '" + conf +
                       "' may be read by others (mode 0640); make it readable by its owner only "
                       "(chmod 600)\n");
  // Nothing the programs wrote (logs, database, configuration, outputs) holds the password.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(stack_.dir().path())) {
    if (!entry.is_regular_file() || entry.path().filename() == "world.json")
      continue;
    std::string text;
    ASSERT_TRUE(read_file(entry.path().string(), text));
    EXPECT_EQ(text.find("Adm1n pass"), std::string::npos) << entry.path();
  }
}
}  // namespace
