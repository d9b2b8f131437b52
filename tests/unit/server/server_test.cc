// brimlet-server as a process: enrolled keys, the CVM routes over HTTP (curl), restarts.
#include "host/core/crypto.h"
#include "host/core/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
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

JSON_Value cvm_body(const std::string& host = "cvm.example", int port = 8080,
                    const std::string& username = "admin") {
  return {{"name", "lab"},
          {"host", host},
          {"port", port},
          {"ssl", false},
          {"username", username},
          {"password", secret},
          {"extended_attrs", {{"zone", "a"}}}};
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
    return r.out.substr(0, r.out.find('\n'));
  }

  // Starts the server on a free port; false when it did not come up.
  bool start() {
    std::string ready = tmp.file("ready.json");
    unlink(ready.c_str());
    JSON_Value r;
    if (!server.start({"brimlet-server", "--listen", "127.0.0.1:0", "--data", data, "--log",
                       log_file, "--ready-file", ready},
                      env(), out_file) ||
        !server.wait_ready(ready, r))
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
    EXPECT_EQ(r.exit_code, 0) << r.err;
    Answer a;
    auto nl = r.out.rfind('\n');
    if (nl == std::string::npos)
      return a;
    a.status = std::atoi(r.out.c_str() + nl + 1);
    a.text = r.out.substr(0, nl);
    a.body = JSON_Value::parse(a.text, nullptr, false);
    return a;
  }

  std::string register_cvm(const std::string& key, const JSON_Value& body = cvm_body()) {
    Answer a = call("POST", route, &key, body.dump());
    EXPECT_EQ(a.status, 201) << a.text;
    return a.body.is_object() ? a.body.value("uuid", "") : "";
  }

  // The password of entry `uuid` asked for host `host_id`, decrypted as the agent does.
  std::string password(const std::string& key, const std::string& uuid,
                       const std::string& host_id) {
    Answer a = call("GET", route + "?uuid=" + uuid + "&with_password=" + host_id, &key);
    EXPECT_FALSE(contains(a.text, secret));
    if (a.status != 200 || a.body.at("rows").size() != 1)
      return "<no entry: " + a.text + ">";
    std::string cipher = a.body["rows"][0].value("password", "<none>");
    Secure_String plain;
    if (!cipher.empty() && !decrypt_string(cipher, plain, agent_key, sizeof agent_key - 1))
      return "<undecryptable: " + cipher + ">";
    return std::string(plain.data(), plain.size());
  }

  Temp_Dir tmp;
  std::string data = tmp.file("data");
  std::string log_file = tmp.file("server.log");
  std::string out_file = tmp.file("server.out");
  Test_Process server;
  int port = 0;
};

TEST_F(Server_Test, RegistersListsGetsAndDeletes) {
  std::string admin = enroll("console", "admin"), agent_a = enroll("agent-a"),
              agent_b = enroll("agent-b");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);

  Answer list = call("GET", route, &admin);
  ASSERT_EQ(list.status, 200) << list.text;
  ASSERT_EQ(list.body.at("rows").size(), 1u);
  JSON_Value entry = list.body["rows"][0], expected = cvm_body();
  EXPECT_TRUE(entry.at("created").is_number_integer());
  entry.erase("created");
  expected.erase("password");
  expected["uuid"] = uuid;
  EXPECT_EQ(entry, expected);
  EXPECT_EQ(call("GET", route + "?uuid=" + uuid, &admin).body, list.body);
  EXPECT_EQ(call("GET", route + "?uuid=0bad", &admin).body,
            JSON_Value({{"rows", JSON_Value::array()}}));

  // Only the agent itself gets a usable copy.
  EXPECT_EQ(password(agent_a, uuid, "agent-a"), secret);
  EXPECT_EQ(password(agent_b, uuid, "agent-a"), "");
  EXPECT_EQ(password(admin, uuid, "agent-a"), "");

  Answer del = call("DELETE", route + "?uuid=" + uuid, &admin);
  EXPECT_EQ(del.body, JSON_Value({{"deleted", 1}})) << del.status;
  EXPECT_EQ(call("DELETE", route + "?uuid=" + uuid, &admin).status, 404);
  EXPECT_EQ(call("GET", route, &admin).body.at("rows").size(), 0u);
}

TEST_F(Server_Test, EveryRouteButHealthNeedsAKnownKey) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);
  std::string unknown = admin;
  unknown[0] = admin[0] == '0' ? '1' : '0';
  for (const std::string* key : {static_cast<std::string*>(nullptr), &unknown}) {
    for (const std::string method : {"GET", "POST", "DELETE"}) {
      Answer a = call(method, route + "?uuid=" + uuid + "&with_password=console", key,
                      method == "POST" ? cvm_body("other.example").dump() : "");
      EXPECT_EQ(a.status, 401) << method;
      EXPECT_EQ(a.body, JSON_Value({{"error", key ? "unknown access key" : "access key required"}}))
          << a.text;
    }
  }
  Answer list = call("GET", route, &admin);  // nothing created or deleted on the way
  ASSERT_EQ(list.body.at("rows").size(), 1u);
  EXPECT_EQ(list.body["rows"][0].at("uuid"), uuid);
  EXPECT_EQ(call("GET", "/k4/r/health", nullptr).body, JSON_Value({{"ok", true}}));
}

TEST_F(Server_Test, RefusesBadRequestsAndDuplicates) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  auto with = [](const char* key, const JSON_Value& value) {
    JSON_Value b = cvm_body();
    if (value.is_null())
      b.erase(key);
    else
      b[key] = value;
    return b.dump();
  };
  struct Case {
    const char* method;
    std::string target;
    std::string body;
    const char* error;
  } cases[] = {
      {"POST", route, "{\"password\": \"" + secret + "\"", "malformed JSON body at byte "},
      {"POST", route, "[1, 2]", "expected an object, got array"},
      {"POST", route, with("port", "8080"), "'port' is expected as integer"},
      {"POST", route, with("port", 0), "'port' is expected as integer in 1..65535"},
      {"POST", route, with("port", 65536), "'port' is expected as integer in 1..65535"},
      {"POST", route, with("host", ""), "'host' is expected as non-empty string"},
      {"POST", route, with("extended_attrs", "zone=a"), "'extended_attrs' is expected as object"},
      {"POST", route, with("passwd", "x"), "unknown key 'passwd'"},
      {"POST", route, with("password", nullptr), "missing key 'password'"},
      {"GET", route + "?with_password=console", "", "'with_password' needs 'uuid'"},
      {"DELETE", route, "", "missing query key 'uuid'"},
  };
  for (const auto& c : cases) {
    Answer a = call(c.method, c.target, &admin, c.body);
    EXPECT_EQ(a.status, 400) << c.body;
    EXPECT_TRUE(a.body.is_object() && contains(a.body.value("error", ""), c.error)) << a.text;
    EXPECT_FALSE(contains(a.text, secret)) << a.text;
  }

  std::string uuid = register_cvm(admin);
  // Host names compare without case, as DNS does.
  Answer dup = call("POST", route, &admin, cvm_body("CVM.Example").dump());
  EXPECT_EQ(dup.status, 409);
  const char* const exists = "a CVM entry for this host, port and username exists already";
  EXPECT_EQ(dup.body, JSON_Value({{"error", exists}, {"uuid", uuid}}));
  register_cvm(admin, cvm_body("cvm.example", 8080, "operator"));
  register_cvm(admin, cvm_body("cvm.example", 65535));
}

TEST_F(Server_Test, ConcurrentRegistrationsOfOneEntryMakeOne) {
  std::string admin = enroll("console", "admin");
  ASSERT_TRUE(start());
  std::vector<int> statuses(6);
  std::vector<std::thread> threads;
  for (auto& s : statuses)
    threads.emplace_back(
        [&, out = &s] { *out = call("POST", route, &admin, cvm_body().dump()).status; });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 201), 1);
  EXPECT_EQ(std::count(statuses.begin(), statuses.end(), 409), 5);
  EXPECT_EQ(call("GET", route, &admin).body.at("rows").size(), 1u);
}

TEST_F(Server_Test, EntriesSurviveARestartWithNoSecretInClear) {
  std::string admin = enroll("console", "admin"), agent = enroll("agent-a");
  ASSERT_TRUE(start());
  std::string uuid = register_cvm(admin);
  EXPECT_EQ(password(agent, uuid, "agent-a"), secret);
  stop();
  ASSERT_TRUE(start());
  EXPECT_EQ(password(agent, uuid, "agent-a"), secret);
  stop();

  std::string db = file_bytes(data + "/server.db") + file_bytes(data + "/server.db-wal");
  std::string log = file_bytes(log_file) + file_bytes(out_file);
  EXPECT_TRUE(contains(db, uuid) && contains(log, uuid));  // the right files were read
  for (const std::string& s : {secret, admin, agent})
    EXPECT_FALSE(contains(db + log + file_bytes(data + "/master.key"), s)) << s;
}

TEST_F(Server_Test, MasterKeyIsPrivateAndNeverReplaced) {
  ASSERT_TRUE(start());
  stop();
  std::string key_file = data + "/master.key";
  struct stat info {};
  ASSERT_EQ(stat(key_file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  ASSERT_TRUE(write_file_atomic(key_file, std::string(32, 'k'), 0600));
  EXPECT_FALSE(start());
  EXPECT_TRUE(contains(file_bytes(out_file), "does not belong to database"));
  ASSERT_EQ(unlink(key_file.c_str()), 0);
  EXPECT_FALSE(start());
  EXPECT_TRUE(contains(file_bytes(out_file), "is missing, and database"));
  EXPECT_NE(stat(key_file.c_str(), &info), 0);
}

// Each refusal: exit status 2 and one error line naming the problem.
TEST(Server_Options, BadOptionsAndConfigurationAreRefused) {
  Temp_Dir tmp;
  write_text_file(tmp.file("conf.json"), "{\"port\": \"1\"}");
  struct Case {
    std::vector<std::string> argv;
    const char* error;
  } cases[] = {
      {{"brimlet-server", "--bogus"}, "Unknown option '--bogus'"},
      {{"brimlet-server", "--listen"}, "Option '--listen' needs a value"},
      {{"brimlet-server", "--listen", "nowhere"}, "Invalid listen address 'nowhere'"},
      {{"brimlet-server", "--config", tmp.file("conf.json")}, "unknown member 'port'"},
      {{"brimlet-server", "enroll", "--data", tmp.path()}, "Option '--host-id' is required"},
      {{"brimlet-server", "keys", "--role", "admin"}, "Option '--role' does not apply here"},
  };
  for (const auto& c : cases) {
    Run_Result r = run_program(c.argv, "", {"BRIMLET_ROOT=" + tmp.path()}, 30);
    EXPECT_EQ(r.exit_code, 2) << c.error;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_TRUE(contains(r.err, c.error)) << r.err;
  }
}

}  // namespace
