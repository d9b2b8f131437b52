// brimlet-server as a process: enrolled keys, the CVM routes over HTTP (curl), restarts.
#include "host/core/crypto.h"
#include "host/core/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const curl = "/usr/bin/curl";
const char agent_key[] = "P!L@O#V$A%R^N&3157";
const std::string secret = "Sw0rdf1sh-q7Zx%9";
const std::string route = "/k4/r/h3ccas/cvm";

struct Answer {
  int status = 0;
  std::string text;
  JSON_Value body;
};

std::string cvm_body(const std::string& host = "cvm.example", int port = 8080,
                     const std::string& username = "admin") {
  JSON_Value body = {{"name", "lab"},
                     {"host", host},
                     {"port", port},
                     {"ssl", false},
                     {"username", username},
                     {"password", secret},
                     {"extended_attrs", {{"zone", "a"}}}};
  return body.dump();
}

bool contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

std::string file_bytes(const std::string& path) {
  std::string bytes;
  read_file(path, bytes);  // a missing file reads as empty
  return bytes;
}

class Server_Test : public ::testing::Test {
 protected:
  std::vector<std::string> env() const { return {"BRIMLET_ROOT=" + tmp.path()}; }

  std::string enroll(const std::string& host_id, const std::string& role = "agent") {
    Run_Result r = run_program(
        {"brimlet-server", "enroll", "--data", data, "--host-id", host_id, "--role", role}, "",
        env());
    EXPECT_EQ(r.exit_code, 0) << r.err;
    std::string key = r.out;
    if (!key.empty() && key.back() == '\n')
      key.pop_back();
    return key;
  }

  // Starts the server on a free port; false when it did not come up.
  bool start(const std::vector<std::string>& extra = {}) {
    std::string ready = tmp.file("ready.json");
    unlink(ready.c_str());
    std::vector<std::string> argv = {"brimlet-server", "--listen", "127.0.0.1:0",  "--data", data,
                                     "--log",          log_file,   "--ready-file", ready};
    argv.insert(argv.end(), extra.begin(), extra.end());
    JSON_Value r;
    if (!server.start(argv, env(), out_file) || !server.wait_ready(ready, r))
      return false;
    port = r.at("port").get<int>();
    return true;
  }

  // SIGTERM must end the server cleanly.
  void stop() {
    int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  Answer call(const std::string& method, const std::string& target, const std::string* key,
              const std::string& body = "") {
    std::vector<std::string> argv = {curl, "-sS", "-w", "\n%{http_code}", "-X", method};
    if (key)
      argv.insert(argv.end(), {"-H", "X-Access-Key: " + *key});
    if (!body.empty())
      argv.insert(argv.end(), {"-H", "Content-Type: application/json", "--data-binary", "@-"});
    argv.push_back("http://127.0.0.1:" + std::to_string(port) + target);
    Run_Result r = run_program(argv, body);
    Answer a;
    auto nl = r.out.rfind('\n');
    EXPECT_EQ(r.exit_code, 0) << r.err;
    if (nl == std::string::npos)
      return a;
    a.status = std::atoi(r.out.c_str() + nl + 1);
    a.text = r.out.substr(0, nl);
    a.body = JSON_Value::parse(a.text, nullptr, false);
    return a;
  }

  std::string register_cvm(const std::string& key, const std::string& body = cvm_body()) {
    Answer a = call("POST", route, &key, body);
    EXPECT_EQ(a.status, 201) << a.text;
    return a.body.is_object() ? a.body.value("uuid", "") : "";
  }

  Temp_Dir tmp;
  std::string data = tmp.file("data");
  std::string log_file = tmp.file("server.log");
  std::string out_file = tmp.file("server.out");
  Test_Process server;
  int port = 0;
};

TEST_F(Server_Test, RegistersListsGetsAndDeletes) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());

  std::string uuid = register_cvm(admin);
  ASSERT_FALSE(uuid.empty());

  Answer list = call("GET", route, &admin);
  ASSERT_EQ(list.status, 200) << list.text;
  ASSERT_EQ(list.body.at("rows").size(), 1u);
  const JSON_Value& e = list.body["rows"][0];
  EXPECT_EQ(e.at("uuid"), uuid);
  EXPECT_EQ(e.at("name"), "lab");
  EXPECT_EQ(e.at("host"), "cvm.example");
  EXPECT_EQ(e.at("port"), 8080);
  EXPECT_EQ(e.at("ssl"), false);
  EXPECT_EQ(e.at("username"), "admin");
  EXPECT_EQ(e.at("extended_attrs"), JSON_Value({{"zone", "a"}}));
  EXPECT_TRUE(e.at("created").is_number_integer());
  EXPECT_FALSE(e.contains("password"));
  EXPECT_FALSE(contains(list.text, secret));

  Answer one = call("GET", route + "?uuid=" + uuid, &admin);
  ASSERT_EQ(one.status, 200);
  EXPECT_EQ(one.body.at("rows"), list.body["rows"]);
  Answer unknown = call("GET", route + "?uuid=0bad", &admin);
  EXPECT_EQ(unknown.status, 200);
  EXPECT_EQ(unknown.body, JSON_Value({{"rows", JSON_Value::array()}}));

  EXPECT_EQ(call("PUT", route, &admin).status, 405);
  EXPECT_EQ(call("DELETE", route, &admin).status, 400);  // no uuid
  Answer del = call("DELETE", route + "?uuid=" + uuid, &admin);
  EXPECT_EQ(del.status, 200);
  EXPECT_EQ(del.body, JSON_Value({{"deleted", 1}}));
  EXPECT_EQ(call("DELETE", route + "?uuid=" + uuid, &admin).status, 404);
  EXPECT_EQ(call("GET", route, &admin).body.at("rows").size(), 0u);
}

TEST_F(Server_Test, PasswordOnlyForTheCallersOwnHost) {
  std::string admin = enroll("console", "admin");
  std::string agent_a = enroll("agent-a");
  std::string agent_b = enroll("agent-b");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);

  Answer own = call("GET", route + "?uuid=" + uuid + "&with_password=agent-a", &agent_a);
  ASSERT_EQ(own.status, 200) << own.text;
  ASSERT_EQ(own.body.at("rows").size(), 1u);
  const JSON_Value& e = own.body["rows"][0];
  // What the agent-side CVM record reads.
  EXPECT_EQ(e.at("host"), "cvm.example");
  EXPECT_TRUE(e.at("port").is_number_integer());
  EXPECT_TRUE(e.at("ssl").is_boolean());
  EXPECT_EQ(e.at("username"), "admin");
  EXPECT_TRUE(e.at("extended_attrs").is_object());
  EXPECT_FALSE(contains(own.text, secret));
  Secure_String plain;
  ASSERT_TRUE(
      decrypt_string(e.at("password").get<std::string>(), plain, agent_key, sizeof agent_key - 1));
  EXPECT_EQ(std::string(plain.data(), plain.size()), secret);

  // Asking for another host's copy, or with another host's key, gives no usable password.
  struct Case {
    const std::string* key;
    const char* for_host;
  } cases[] = {{&agent_b, "agent-a"}, {&agent_a, "agent-b"}, {&admin, "agent-a"}};
  for (const auto& c : cases) {
    Answer a = call("GET", route + "?uuid=" + uuid + "&with_password=" + c.for_host, c.key);
    ASSERT_EQ(a.status, 200) << c.for_host;
    EXPECT_EQ(a.body.at("rows").at(0).at("password"), "") << c.for_host;
  }
}

TEST_F(Server_Test, EveryRouteButHealthNeedsAKnownKey) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);
  const std::string bogus = "00" + admin.substr(2);
  const std::string empty;

  struct Case {
    const char* method;
    std::string target;
    std::string body;
  } cases[] = {
      {"GET", route, ""},
      {"GET", route + "?uuid=" + uuid, ""},
      {"GET", route + "?uuid=" + uuid + "&with_password=console", ""},
      {"POST", route, cvm_body("other.example")},
      {"DELETE", route + "?uuid=" + uuid, ""},
  };
  for (const auto& c : cases) {
    for (const std::string* key : {static_cast<const std::string*>(nullptr), &bogus, &empty}) {
      Answer a = call(c.method, c.target, key, c.body);
      EXPECT_EQ(a.status, 401) << c.method << " " << c.target;
      ASSERT_TRUE(a.body.is_object()) << a.text;
      EXPECT_TRUE(a.body.contains("error"));
      EXPECT_FALSE(a.body.contains("rows"));
      EXPECT_FALSE(contains(a.text, "cvm.example"));
    }
  }
  // Nothing was created or deleted on the way.
  Answer list = call("GET", route, &admin);
  ASSERT_EQ(list.body.at("rows").size(), 1u);
  EXPECT_EQ(list.body["rows"][0].at("uuid"), uuid);

  Answer health = call("GET", "/k4/r/health", nullptr);
  EXPECT_EQ(health.status, 200);
  EXPECT_EQ(health.body, JSON_Value({{"ok", true}}));
}

TEST_F(Server_Test, BadBodiesAreRefusedNamingTheKey) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  JSON_Value good = JSON_Value::parse(cvm_body());
  auto with = [&](const char* key, JSON_Value value) {
    JSON_Value b = good;
    b[key] = std::move(value);
    return b.dump();
  };
  auto without = [&](const char* key) {
    JSON_Value b = good;
    b.erase(key);
    return b.dump();
  };

  struct Case {
    std::string body;
    const char* expected;  // in the error text
  } cases[] = {
      {"{\"host\": \"cvm.example\", \"password\": \"" + secret + "\"", "malformed JSON"},
      {"[1, 2]", "object"},
      {with("port", "8080"), "'port' is expected as integer"},
      {with("port", 70000), "'port'"},
      {with("port", 0), "'port'"},
      {with("port", -1), "'port'"},
      {with("ssl", "yes"), "'ssl' is expected as boolean"},
      {with("host", ""), "'host'"},
      {with("extended_attrs", "zone=a"), "'extended_attrs' is expected as object"},
      {with("passwd", "x"), "'passwd'"},
      {without("username"), "'username'"},
      {without("password"), "'password'"},
      {without("host"), "'host'"},
  };
  for (const auto& c : cases) {
    Answer a = call("POST", route, &admin, c.body);
    EXPECT_EQ(a.status, 400) << c.body;
    ASSERT_TRUE(a.body.is_object()) << a.text;
    EXPECT_TRUE(contains(a.body.value("error", ""), c.expected)) << a.text;
    EXPECT_FALSE(contains(a.text, secret)) << a.text;
  }
  EXPECT_EQ(call("GET", route, &admin).body.at("rows").size(), 0u);
  EXPECT_EQ(call("GET", route + "?with_password=console", &admin).status, 400);
}

TEST_F(Server_Test, DuplicatesConflict) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);

  // Host names compare without case, as DNS does.
  Answer dup = call("POST", route, &admin, cvm_body("CVM.Example"));
  EXPECT_EQ(dup.status, 409) << dup.text;
  EXPECT_EQ(dup.body.value("uuid", ""), uuid);
  register_cvm(admin, cvm_body("cvm.example", 8080, "operator"));
  register_cvm(admin, cvm_body("cvm.example", 443, "admin"));
  EXPECT_EQ(call("GET", route, &admin).body.at("rows").size(), 3u);
}

TEST_F(Server_Test, ConcurrentRegistrationsOfOneEntryMakeOne) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  std::vector<int> statuses(6);
  std::vector<std::thread> threads;
  for (auto& s : statuses)
    threads.emplace_back([&, out = &s] { *out = call("POST", route, &admin, cvm_body()).status; });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 201), 1);
  EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 409), 5);
  EXPECT_EQ(call("GET", route, &admin).body.at("rows").size(), 1u);
}

TEST_F(Server_Test, EntriesSurviveARestartWithNoPasswordInClear) {
  std::string admin = enroll("console", "admin");
  std::string agent = enroll("agent-a");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);
  stop();

  for (const char* name : {"server.db", "server.db-wal", "server.db-shm", "master.key"})
    EXPECT_FALSE(contains(file_bytes(data + "/" + name), secret)) << name;
  std::string log = file_bytes(log_file);
  EXPECT_TRUE(contains(log, uuid));  // the log is the right file
  EXPECT_FALSE(contains(log, secret));
  EXPECT_FALSE(contains(file_bytes(out_file), secret));
  for (const std::string& key : {admin, agent})
    EXPECT_FALSE(contains(file_bytes(data + "/server.db") + log, key));

  ASSERT_TRUE(start());
  Answer a = call("GET", route + "?uuid=" + uuid + "&with_password=agent-a", &agent);
  ASSERT_EQ(a.status, 200) << a.text;
  ASSERT_EQ(a.body.at("rows").size(), 1u);
  Secure_String plain;
  ASSERT_TRUE(decrypt_string(a.body["rows"][0].at("password").get<std::string>(), plain, agent_key,
                             sizeof agent_key - 1));
  EXPECT_EQ(std::string(plain.data(), plain.size()), secret);
  stop();
  EXPECT_FALSE(contains(file_bytes(log_file), secret));
}

TEST_F(Server_Test, RefusesToStartWithAnotherMasterKey) {
  enroll("console", "admin");
  ASSERT_TRUE(start());
  stop();
  ASSERT_TRUE(write_file_atomic(data + "/master.key", std::string(32, 'k'), 0600));
  EXPECT_FALSE(start());
  EXPECT_TRUE(contains(file_bytes(out_file), "does not belong to database"));
}

TEST_F(Server_Test, ConfigurationFileGivesTheDefaults) {
  std::string conf = tmp.file("server.json");
  write_text_file(conf, JSON_Value({{"listen", "127.0.0.1:0"}, {"data_dir", data}}).dump());
  Run_Result r = run_program({"brimlet-server", "enroll", "--config", conf, "--host-id", "agent-c"},
                             "", env());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string key = r.out.substr(0, r.out.find('\n'));

  std::string ready = tmp.file("ready.json");
  ASSERT_TRUE(
      server.start({"brimlet-server", "--config", conf, "--ready-file", ready}, env(), out_file));
  JSON_Value info;
  ASSERT_TRUE(server.wait_ready(ready, info));
  port = info.at("port").get<int>();
  EXPECT_NE(port, 0);
  EXPECT_EQ(call("GET", route, &key).status, 200);
  stop();
  // Without --log the log goes to the install root's log folder.
  EXPECT_TRUE(contains(file_bytes(tmp.file("var/log/brimlet5/brimlet-server.log")), "Listening"));
}

TEST_F(Server_Test, ServesHttpsWithCertificateAndKey) {
  std::string cert = tmp.file("cert.pem"), key = tmp.file("key.pem");
  Run_Result gen =
      run_program({"/usr/bin/openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                   key, "-out", cert, "-days", "1", "-subj", "/CN=localhost"});
  ASSERT_EQ(gen.exit_code, 0) << gen.err;
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start({"--tls-cert", cert, "--tls-key", key}));
  std::string url = "https://127.0.0.1:" + std::to_string(port) + route;
  Run_Result r = run_program({curl, "-sS", "-k", "-H", "X-Access-Key: " + admin, url});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(JSON_Value::parse(r.out, nullptr, false), JSON_Value({{"rows", JSON_Value::array()}}));
  // Plain HTTP gets no answer from a TLS port.
  Run_Result plain = run_program({curl, "-sS", "-H", "X-Access-Key: " + admin,
                                  "http://127.0.0.1:" + std::to_string(port) + route});
  EXPECT_NE(plain.exit_code, 0);
  EXPECT_FALSE(contains(plain.out, "rows"));
}

TEST_F(Server_Test, EnrolledKeysAreListedWithoutThemselves) {
  std::string k1 = enroll("agent-a");
  std::string k2 = enroll("console", "admin");
  EXPECT_EQ(k1.size(), 64u);
  EXPECT_EQ(k1.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(k1, k2);

  Run_Result r = run_program({"brimlet-server", "keys", "--data", data}, "", env());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "agent-a\tagent\t"));
  EXPECT_TRUE(contains(r.out, "console\tadmin\t"));
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);
  EXPECT_FALSE(contains(r.out + r.err, k1));
  EXPECT_FALSE(contains(r.out + r.err, k2));
}

// Each refusal: exit status 2 and one error line naming the problem.
TEST(Server_Options, BadOptionsAndConfigurationAreRefused) {
  Temp_Dir tmp;
  std::string data = tmp.file("data");
  auto conf = [&](const std::string& name, const std::string& text) {
    write_text_file(tmp.file(name), text);
    return tmp.file(name);
  };
  struct Case {
    std::vector<std::string> argv;
    const char* expected;
  } cases[] = {
      {{"--bogus"}, "'--bogus'"},
      {{"--listen"}, "'--listen' needs a value"},
      {{"--listen", "nowhere"}, "'nowhere'"},
      {{"--listen", "127.0.0.1:70000"}, "'127.0.0.1:70000'"},
      {{"--tls-cert", tmp.file("cert.pem")}, "TLS"},
      {{"--config", tmp.file("missing.json")}, "missing.json"},
      {{"--config", conf("bad.json", "{\"listen\": ")}, "bad.json"},
      {{"--config", conf("member.json", "{\"port\": \"1\"}")}, "unknown member 'port'"},
      {{"--config", conf("type.json", "{\"listen\": 8080}")}, "'listen' is expected as string"},
      {{"enroll", "--data", data}, "'--host-id'"},
      {{"enroll", "--listen", "127.0.0.1:0", "--host-id", "a"}, "'--listen'"},
      {{"keys", "--role", "admin"}, "'--role'"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> argv = {"brimlet-server"};
    if (c.argv[0] != "enroll" && c.argv[0] != "keys")
      argv.insert(argv.end(), {"--data", data, "--log", tmp.file("log")});
    argv.insert(argv.end(), c.argv.begin(), c.argv.end());
    Run_Result r = run_program(argv, "", {"BRIMLET_ROOT=" + tmp.path()}, 30);
    EXPECT_EQ(r.exit_code, 2) << c.argv[0] << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(contains(r.err, c.expected)) << r.err;
  }

  Run_Result role =
      run_program({"brimlet-server", "enroll", "--data", data, "--host-id", "a", "--role", "root"},
                  "", {"BRIMLET_ROOT=" + tmp.path()});
  EXPECT_EQ(role.exit_code, 1);
  EXPECT_TRUE(contains(role.err, "'root'")) << role.err;
  EXPECT_TRUE(role.out.empty());
}

}  // namespace
