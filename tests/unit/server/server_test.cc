// brimlet-server as a process, driven over HTTP by curl and by the host's catalog clients: keys
// and their roles, CVM entries, storage pools, the catalog and its views, options, restarts.
#include "host/catalog/catalog.h"
#include "host/catalog/pool_info.h"
#include "host/core/crypto.h"
#include "host/core/paths.h"
#include "host/http/client.h"
#include "programs/server/db.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

namespace {

using namespace brimlet_server;
const char seal_key[] = "P!L@O#V$A%R^N&3157";
const std::string secret = "Sw0rdf1sh-q7Zx%9", cvms = "/k4/r/h3ccas/cvm",
                  pools = "/k4/r/storage/pool", commits = "/k4/r/catalog/h3ccas",
                  views = "/k4/r/catalog/h3ccas/view/", sets = "/k4/r/catalog/h3ccas/sets";
using Strings = std::vector<std::string>;

struct Answer {
  int status = 0;
  std::string headers, text;
  JSON_Value body;
};

JSON_Value cvm_body(const std::string& host = "cvm.example", int port = 8080,
                    const std::string& username = "admin") {
  JSON_Value b = {{"host", host}, {"port", port}, {"username", username}, {"password", secret}};
  b.update({{"name", "lab"}, {"ssl", false}, {"extended_attrs", {{"zone", "a"}}}});
  return b;
}

// `object` with `value` under `key`, or without `key` when `value` is null.
JSON_Value with(JSON_Value object, const char* key, const JSON_Value& value) {
  if (value.is_null())
    object.erase(key);
  else
    object[key] = value;
  return object;
}

bool contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

std::string file_bytes(const std::string& path) {
  std::string bytes;
  read_file(path, bytes);  // a missing file reads as empty
  return bytes;
}

Strings uuids(const JSON_Value& array) {
  Strings out;
  for (const auto& s : array)
    out.push_back(s.value("uuid", "?"));
  return out;
}

class Server_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    admin = enroll("console", "admin");
    agent = enroll("agent-a");
    // The command line's address must win over the file's, which would not start.
    JSON_Value conf = {{"data_dir", data}, {"log_file", log_file}, {"listen", "nowhere"}};
    write_text_file(config, conf.dump());
  }

  std::string enroll(const std::string& host_id, const std::string& role = "agent") {
    Run_Result r = run_program(
        {"brimlet-server", "enroll", "--data", data, "--host-id", host_id, "--role", role}, "",
        env);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return r.out.substr(0, r.out.find('\n'));
  }

  // Starts the server, on a free port by default; false when it did not come up.
  bool start(const std::string& listen = "127.0.0.1:0") {
    std::string ready = tmp.file("ready.json");
    unlink(ready.c_str());
    JSON_Value r;
    bool up = server.start(
                  {"brimlet-server", "--config", config, "--listen", listen, "--ready-file", ready},
                  env, out_file) &&
              server.wait_ready(ready, r);
    port = up ? r.at("port").get<int>() : 0;
    return up;
  }

  // SIGTERM must end the server cleanly.
  void stop() {
    int status = server.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  // A request by curl; a string body is sent as it is, any other value as JSON.
  Answer call(const std::string& method, const std::string& target, const std::string* key,
              const JSON_Value& body = nullptr) {
    Strings argv = {"/usr/bin/curl", "-sS", "-D", "-", "-w", "\n%{http_code}", "-X", method};
    if (key)
      argv.insert(argv.end(), {"-H", "X-Access-Key: " + *key});
    if (!body.is_null())
      argv.insert(argv.end(), {"-H", "Content-Type: application/json", "--data-binary", "@-"});
    argv.push_back("http://127.0.0.1:" + std::to_string(port) + target);
    Run_Result r = run_program(argv, body.is_string() ? body.get<std::string>()
                                     : body.is_null() ? ""
                                                      : body.dump());
    EXPECT_EQ(r.exit_code, 0) << r.err;
    Answer a;
    auto head = r.out.find("\r\n\r\n"), nl = r.out.rfind('\n');
    if (head == std::string::npos || nl < head)
      return a;
    a.status = std::stoi(r.out.substr(nl + 1));
    a.headers = r.out.substr(0, head);
    a.text = r.out.substr(head + 4, nl - head - 4);
    a.body = JSON_Value::parse(a.text, nullptr, false);
    return a;
  }

  // A POST that must create something: the new uuid.
  std::string create(const std::string& route, const std::string& key, const JSON_Value& body) {
    Answer a = call("POST", route, &key, body);
    EXPECT_EQ(a.status, 201) << a.text;
    return a.body.is_object() ? a.body.value("uuid", "") : "";
  }

  // The password of entry `uuid` asked for host `host_id`, decrypted as the agent does.
  std::string password(const std::string& key, const std::string& uuid,
                       const std::string& host_id) {
    Answer a = call("GET", cvms + "?uuid=" + uuid + "&with_password=" + host_id, &key);
    EXPECT_FALSE(contains(a.text, secret));
    EXPECT_TRUE(contains(a.headers, "Cache-Control: no-store")) << a.headers;
    if (a.status != 200 || a.body.at("rows").size() != 1)
      return "<no entry: " + a.text + ">";
    std::string cipher = a.body["rows"][0].value("password", "<none>");
    Secure_String plain;
    if (!cipher.empty() && !decrypt_string(cipher, plain, seal_key, sizeof seal_key - 1))
      return "<undecryptable: " + cipher + ">";
    return std::string(plain.data(), plain.size());
  }

  void start_with_pool() {
    ASSERT_TRUE(start());
    JSON_Value body = {{"name", "p1"}, {"url", url}};
    pool = create(pools, admin, with(body, "io_options", {{"compression", "lz4"}}));
  }

  // A set of VM `vm` on CVK "cvk-1" in pool "p1"; a full set when `base` is empty.
  JSON_Value make_set(const std::string& uuid, const std::string& base, std::int64_t start_time,
                      const std::string& vm = "vm-1", const std::string& resource = "res-1") {
    JSON_Value s = JSON_Value::parse(R"({"host_id": "cvk-1", "host_uuid": "cvm-1",
        "set_size": 4096, "source_size": 1048576, "vm_disks": [{"path": "/vms/a.qcow2"}]})");
    for (const char* k :
         {"job_uuid", "run_uuid", "definition_id", "vm_uuid", "host_name", "host_ip", "vm_name",
          "vm_title", "cbt_name", "uri", "vm_config_path", "name", "agent", "instance_version"})
      s[k] = std::string(k) + "-" + uuid;
    s.update({{"uuid", uuid}, {"resource_uuid", resource}, {"vm_id", vm}, {"pool_uuid", pool}});
    s.update({{"backup_type", base.empty() ? "full" : "incremental"},
              {"base", base.empty() ? uuid : base},
              {"incarnation", incarnations[uuid] = base.empty() ? uuid : incarnations[base]}});
    s["start_time"] = start_time;
    s["pieces"] = {{{"object", ""}, {"size", 0}, {"path", "/c/" + uuid}}};
    s["storages"] = {{{"pool_uuid", pool}, {"size", 3000}, {"extra", nullptr}}};
    return s;
  }

  void commit(const JSON_Value& set) {
    create(commits, agent, set);
    committed[set.value("uuid", "")] = set;
  }

  Temp_Dir tmp;
  const Strings env = {"BRIMLET_ROOT=" + tmp.path()};
  const std::string url = "file://" + tmp.path();  // a pool's: a directory that exists
  std::string data = tmp.file("data"), log_file = tmp.file("server.log"),
              out_file = tmp.file("server.out"), config = tmp.file("server.json");
  Test_Process server;
  int port = 0;
  std::string admin, agent, pool;
  std::map<std::string, std::string> incarnations;
  std::map<std::string, JSON_Value> committed;  // by uuid
};

TEST_F(Server_Test, CvmEntriesRegisterListGetAndDelete) {
  std::string agent_b = enroll("agent-b");
  ASSERT_TRUE(start());
  std::string uuid = create(cvms, admin, cvm_body());

  Answer list = call("GET", cvms, &admin);
  ASSERT_EQ(list.body.at("rows").size(), 1u) << list.text;
  JSON_Value entry = list.body["rows"][0];
  EXPECT_TRUE(entry.at("created").is_number_integer());
  entry.erase("created");
  EXPECT_EQ(entry, with(with(cvm_body(), "password", nullptr), "uuid", uuid));
  EXPECT_EQ(call("GET", cvms + "?uuid=" + uuid, &admin).body, list.body);
  EXPECT_EQ(call("GET", cvms + "?uuid=0bad", &admin).text, R"({"rows":[]})");

  // Only the agent itself gets a usable copy.
  EXPECT_EQ(password(agent, uuid, "agent-a"), secret);
  EXPECT_EQ(password(agent_b, uuid, "agent-a"), "");
  EXPECT_EQ(password(admin, uuid, "agent-a"), "");

  // Host names compare without case, as DNS does.
  Answer dup = call("POST", cvms, &admin, cvm_body("CVM.Example"));
  EXPECT_EQ(dup.status, 409);
  const char* const exists = "a CVM entry for this host, port and username exists already";
  EXPECT_EQ(dup.body, JSON_Value({{"error", exists}, {"uuid", uuid}}));
  create(cvms, admin, cvm_body("cvm.example", 8080, "operator"));
  create(cvms, admin, cvm_body("cvm.example", 65535));

  EXPECT_EQ(call("DELETE", cvms + "?uuid=" + uuid, &admin).text, R"({"deleted":1})");
  EXPECT_EQ(call("DELETE", cvms + "?uuid=" + uuid, &admin).body,
            JSON_Value({{"error", "no CVM entry '" + uuid + "'"}}));
  EXPECT_EQ(call("DELETE", cvms, &admin).text, R"({"error":"missing query key 'uuid'"})");
  EXPECT_EQ(call("GET", cvms, &admin).body.at("rows").size(), 2u);

  std::vector<std::thread> threads;  // one of concurrent registrations of an entry wins
  std::vector<int> statuses(6);
  for (auto& s : statuses)
    threads.emplace_back([&, out = &s] { *out = call("POST", cvms, &admin, cvm_body()).status; });
  for (auto& t : threads)
    t.join();
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (std::vector<int>{201, 409, 409, 409, 409, 409}));
}

// Who may do what: no key, an unknown key, an agent's key, an admin's key.
TEST_F(Server_Test, EachMethodAdmitsItsRoles) {
  start_with_pool();
  std::string cvm = create(cvms, admin, cvm_body());
  commit(make_set("f1", "", 100));
  std::string unknown = std::string(64, 'a'), admin_only = " needs an admin key";
  JSON_Value p9 = {{"name", "p9"}, {"url", url}};
  struct Row {
    std::string method, target;
    JSON_Value body;
    int agent, admin;        // statuses
    std::string error = "";  // of the 403
  } rows[] = {
      {"GET", cvms, nullptr, 403, 200, "reading CVM entries without 'with_password'" + admin_only},
      {"GET", cvms + "?uuid=" + cvm + "&with_password=agent-a", nullptr, 200, 200},
      {"POST", cvms, cvm_body("other.example"), 403, 201, "registering CVM entries" + admin_only},
      {"GET", pools, nullptr, 200, 200},
      {"GET", pools + "?uuid=" + pool, nullptr, 200, 200},
      {"POST", pools, p9, 403, 201, "registering storage pools" + admin_only},
      {"POST", commits, make_set("f9", "", 900), 201, 403,
       "committing backup sets needs an agent key"},
      {"GET", views + "base_catalog?resource_uuid=r&host_id=c&vm_id=v", nullptr, 200, 200},
      {"GET", views + "restore?resource_uuid=res-1&set_uuid=f1", nullptr, 200, 200},
      {"GET", sets, nullptr, 200, 200},
      {"GET", sets + "?uuid=f1", nullptr, 200, 200},
      {"DELETE", cvms + "?uuid=" + cvm, nullptr, 403, 200, "removing CVM entries" + admin_only},
  };
  for (const std::string* key : {static_cast<std::string*>(nullptr), &unknown, &agent, &admin})
    for (const auto& r : rows) {
      Answer a = call(r.method, r.target, key, r.body);
      SCOPED_TRACE(r.method + " " + r.target + (key ? " " + key->substr(0, 4) : ""));
      int status = !key || key == &unknown ? 401 : key == &agent ? r.agent : r.admin;
      EXPECT_EQ(a.status, status) << a.text;
      const std::string error = status == 403   ? r.error
                                : status != 401 ? ""
                                : key           ? "unknown access key"
                                                : "access key required";
      EXPECT_EQ(a.body.is_object() ? a.body.value("error", "") : "", error);
    }
  // Only the admitted requests changed anything.
  EXPECT_EQ(call("GET", cvms, &admin).body.at("rows").size(), 1u);
  EXPECT_EQ(call("GET", pools, &agent).body.at("rows").size(), 2u);
  EXPECT_EQ(uuids(call("GET", sets, &agent).body.at("rows")), (Strings{"f9", "f1"}));

  EXPECT_EQ(call("GET", "/k4/r/health", nullptr).text, R"({"ok":true})");
  Answer put = call("PUT", pools, &admin, JSON_Value::object());
  EXPECT_EQ(put.text, R"({"error":"method not allowed"})") << put.status;
  EXPECT_TRUE(contains(put.headers, "Allow: GET, POST")) << put.headers;
  EXPECT_EQ(call("GET", commits, &agent).status, 405);
}

TEST_F(Server_Test, BadRequestsAreRefusedWithTheirReason) {
  start_with_pool();
  commit(make_set("f1", "", 100));
  JSON_Value x1 = make_set("x1", "", 200), i1 = make_set("i1", "f1", 200),
             pool_body = {{"name", "x"}, {"url", url}};
  const std::string as = " is expected as ";
  struct Case {
    std::string target;
    JSON_Value body;  // null: a GET
    int status;
    std::string error;
  } cases[] = {
      {cvms, "{\"password\": \"" + secret + "\"", 400, "malformed JSON body at byte 32"},
      {cvms, JSON_Value::array({1, 2}), 400, "expected an object, got array"},
      {cvms, with(cvm_body(), "port", 0), 400, "'port'" + as + "integer in 1..65535"},
      {cvms, with(cvm_body(), "port", 65536), 400, "'port'" + as + "integer in 1..65535"},
      {cvms, with(cvm_body(), "host", ""), 400, "'host'" + as + "non-empty string"},
      {cvms, with(cvm_body(), "extended_attrs", 1), 400, "'extended_attrs'" + as + "object"},
      {cvms, with(cvm_body(), "passwd", "x"), 400, "unknown key 'passwd'"},
      {cvms, with(cvm_body(), "password", nullptr), 400, "missing key 'password'"},
      {cvms + "?with_password=console", nullptr, 400, "'with_password' needs 'uuid'"},
      {pools, "[]", 400, "a JSON object body is expected"},
      {pools, with(pool_body, "name", nullptr), 400, "missing key 'name'"},
      {pools, with(pool_body, "name", ""), 400, "'name'" + as + "non-empty string"},
      {pools, with(pool_body, "io_options", {{"compression", "rar"}}), 400, "invalid 'io_options'"},
      {pools, with(pool_body, "colour", "red"), 400, "unknown key 'colour'"},
      {pools, with(pool_body, "url", "file:///srv/./p"), 400,
       "Invalid storage pool URL 'file:///srv/./p': '.' and '..' are not allowed in the folder"},
      {pools, with(pool_body, "url", "s3://bucket"), 400,
       "Unsupported storage pool URL 's3://bucket': s3:// pools are not supported yet"},
      {pools, with(pool_body, "name", "P1"), 409, "a storage pool of this name exists already"},
      {pools + "?uuid=nope", nullptr, 404, "no storage pool 'nope'"},
      {commits, with(x1, "uuid", nullptr), 400, "missing key 'uuid'"},
      {commits, with(x1, "uuid", ""), 400, "'uuid'" + as + "non-empty string"},
      {commits, with(x1, "storages", "p1"), 400, "'storages'" + as + "array"},
      {commits, with(x1, "set_size", -1), 400, "'set_size'" + as + "non-negative integer"},
      {commits, with(x1, "backup_type", "weekly"), 400,
       "'backup_type'" + as + "\"full\", \"incremental\" or \"differential\""},
      {commits, with(x1, "pool_uuid", "no-pool"), 400, "unknown storage pool 'no-pool'"},
      {commits, with(x1, "base", "f1"), 400, "a full set is its own 'base' and 'incarnation'"},
      {commits, with(i1, "base", "i1"), 400, "an incremental set needs another set as its 'base'"},
      {commits, with(i1, "base", "zz"), 400, "base set 'zz' is not in the catalog"},
      {commits, with(i1, "resource_uuid", "res-2"), 400, "base set 'f1' is not in the catalog"},
      {commits, with(i1, "incarnation", "i1"), 400,
       "'incarnation' differs from that of base set 'f1'"},
      {commits, with(committed["f1"], "set_size", 1), 409,
       "backup set 'f1' was committed with other content"},
      {views + "base_catalog?resource_uuid=r&vm_id=v", nullptr, 400,
       "'resource_uuid', 'host_id' and 'vm_id' are required"},
      {views + "restore?set_uuid=f1", nullptr, 400, "'resource_uuid' and 'set_uuid' are required"},
      {views + "restore?resource_uuid=res-2&set_uuid=f1", nullptr, 404,
       "no complete chain for backup set 'f1'"},
      {views + "nothing?a=b", nullptr, 404, "no view 'nothing'"},
      {sets + "?uuid=zz", nullptr, 404, "no backup set 'zz'"},
  };
  for (const auto& c : cases) {
    const char* method = c.body.is_null() ? "GET" : "POST";
    Answer a = call(method, c.target, c.target == commits ? &agent : &admin, c.body);
    EXPECT_EQ(a.status, c.status) << c.body.dump();
    EXPECT_EQ(a.body.value("error", ""), c.error) << a.text;
    EXPECT_FALSE(contains(a.text, secret)) << a.text;
  }
  EXPECT_EQ(call("GET", pools, &admin).body.at("rows").size(), 1u);
  EXPECT_EQ(uuids(call("GET", sets, &admin).body.at("rows")), Strings{"f1"});
  EXPECT_EQ(call("GET", cvms, &admin).text, R"({"rows":[]})");
}

TEST_F(Server_Test, EntriesSurviveARestartWithNoSecretInClearUnderAPrivateMasterKey) {
  ASSERT_TRUE(start());
  std::string uuid = create(cvms, admin, cvm_body());
  stop();
  ASSERT_TRUE(start());
  EXPECT_EQ(password(agent, uuid, "agent-a"), secret);
  stop();
  std::string db = file_bytes(data + "/server.db") + file_bytes(data + "/server.db-wal");
  std::string log = file_bytes(log_file) + file_bytes(out_file);
  EXPECT_TRUE(contains(db, uuid) && contains(log, uuid));  // the right files were read
  for (const std::string& s : {secret, admin, agent})
    EXPECT_FALSE(contains(db + log + file_bytes(data + "/master.key"), s)) << s;

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
  EXPECT_NE(stat(key_file.c_str(), &info), 0);  // never made anew
}

TEST_F(Server_Test, PoolsAndViewsAnswerWhatWasStored) {
  start_with_pool();
  std::string second = create(pools, admin, {{"name", "p2"}, {"url", url}});
  EXPECT_EQ(uuids(call("GET", pools, &agent).body.at("rows")), (Strings{pool, second}));
  JSON_Value one = call("GET", pools + "?uuid=" + pool, &agent).body;
  EXPECT_TRUE(one.at("created").is_number_integer());
  JSON_Value expected = {{"uuid", pool}, {"name", "p1"}, {"url", url}};
  EXPECT_EQ(with(one, "created", nullptr), with(expected, "io_options", {{"compression", "lz4"}}));
  EXPECT_EQ(call("POST", pools, &admin, {{"name", "P1"}, {"url", url}}).body["uuid"], pool);

  // Two chains of vm-1 (f1 <- i1 <- i2, f2 <- j1), one set of vm-2 and one of another resource.
  const char* const chains[][4] = {{"f1", "", "vm-1", "res-1"}, {"i1", "f1", "vm-1", "res-1"},
                                   {"g1", "", "vm-2", "res-1"}, {"i2", "i1", "vm-1", "res-1"},
                                   {"f2", "", "vm-1", "res-1"}, {"j1", "f2", "vm-1", "res-1"},
                                   {"r1", "", "vm-1", "res-2"}};
  for (const auto& c : chains)
    commit(make_set(c[0], c[1], 100 * committed.size(), c[2], c[3]));
  Answer again = call("POST", commits, &agent, committed["i1"]);
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.text, R"({"created":false,"uuid":"i1"})");

  // The views through the host's catalog client.
  RESTful_Catalog_Operator op("127.0.0.1", port, false, agent, -1, 5);
  JSON_Value got, vm = {{"resource_uuid", "res-1"}, {"host_id", "cvk-1"}, {"vm_id", "vm-1"}};
  ASSERT_TRUE(op.get_view("h3ccas", "base_catalog", vm, got));
  EXPECT_EQ(uuids(got), (Strings{"j1", "f2", "i2", "i1", "f1"}));
  EXPECT_EQ(got[0], committed["j1"]);
  ASSERT_TRUE(op.get_view("h3ccas", "base_catalog", with(vm, "host_id", "cvk-2"), got));
  EXPECT_EQ(got, JSON_Value::array());
  for (const Strings& chain : {Strings{"f1"}, Strings{"f1", "i1", "i2"}, Strings{"f2", "j1"}}) {
    JSON_Value which = {{"resource_uuid", "res-1"}, {"set_uuid", chain.back()}};
    ASSERT_TRUE(op.get_view("h3ccas", "restore", which, got));
    EXPECT_EQ(uuids(got), chain);
    EXPECT_EQ(got.back(), committed[chain.back()]);
  }
  EXPECT_FALSE(
      op.get_view("h3ccas", "restore", {{"resource_uuid", "res-2"}, {"set_uuid", "i1"}}, got));

  JSON_Value rows = call("GET", sets + "?vm_id=vm-1&host_uuid=cvm-1", &admin).body.at("rows");
  EXPECT_EQ(uuids(rows), (Strings{"r1", "j1", "f2", "i2", "i1", "f1"}));
  expected = {{"storage_size", 3000}, {"chain", {"f1", "i1", "i2"}}};
  for (const char* k :
       {"uuid", "vm_id", "vm_name", "host_id", "host_name", "host_uuid", "resource_uuid",
        "backup_type", "start_time", "set_size", "source_size", "pool_uuid", "base", "incarnation"})
    expected[k] = committed["i2"][k];
  EXPECT_EQ(rows[3], expected);
  rows = call("GET", sets + "?host_id=cvk-1&vm_id=vm-2", &admin).body.at("rows");
  EXPECT_EQ(uuids(rows), Strings{"g1"});
  EXPECT_EQ(call("GET", sets + "?host_uuid=cvm-9", &admin).text, R"({"rows":[]})");
  one = call("GET", sets + "?uuid=i1", &admin).body;
  EXPECT_EQ(one["chain"], JSON_Value::array({"f1", "i1"}));
  EXPECT_TRUE(one.at("committed").is_number_integer());
  EXPECT_EQ(with(with(one, "chain", nullptr), "committed", nullptr), committed["i1"]);
}

TEST_F(Server_Test, HostClientsCommitReadPoolsAndRetryUntilTheServerIsBack) {
  start_with_pool();
  RESTful_Catalog_Operator op("127.0.0.1", port, false, agent, -1, 5);
  H3C_CAS_Backup_Set set;
  set.uuid_ = set.base_ = set.incarnation_ = "c1";
  set.backup_type_ = "full";
  set.pool_uuid_ = pool;
  set.host_uuid_ = "cvm-1";
  set.add_piece("/h/v/disk_0", 512, "/vms/d.qcow2");
  set.add_storage(pool, 700, {{"code_name", "reborn"}});
  ASSERT_TRUE(op.commit(set));
  ASSERT_TRUE(op.commit(set));  // a retried commit
  JSON_Value stored = call("GET", sets + "?uuid=c1", &agent).body;
  EXPECT_EQ(stored["uri"], "cvm-1");  // defaults to the protected resource's entry
  EXPECT_EQ(stored["pieces"][0],
            (JSON_Value{{"object", "/vms/d.qcow2"}, {"size", 512}, {"path", "/h/v/disk_0"}}));
  EXPECT_EQ(Backup_Set_Storage_Selector(stored["storages"], 1).pool_uuid(), pool);
  set.uuid_ = "c2";
  set.backup_type_ = "incremental";
  EXPECT_FALSE(RESTful_Catalog_Operator("127.0.0.1", port, false, admin, -1, 5).commit(set));
  set.base_ = "missing";
  EXPECT_FALSE(op.commit(set));

  const JSON_Value storages = JSON_Value::parse(R"([
      "junk", {"size": 5}, {"pool_uuid": "", "size": 9},
      {"pool_uuid": "a", "size": 10}, {"pool_uuid": "b", "size": 30}, {"pool_uuid": "c"}])");
  EXPECT_EQ(Backup_Set_Storage_Selector(storages, 1).pool_uuid(), "a");
  EXPECT_EQ(Backup_Set_Storage_Selector(storages, 2).pool_uuid(), "b");
  EXPECT_EQ(Backup_Set_Storage_Selector(JSON_Value::object(), 1).pool_uuid(), "");

  Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", static_cast<std::uint16_t>(port),
                                                      false, agent);
  Pool_Info info;
  ASSERT_TRUE(get_pool_info(Upstream_JSON_RESTful_Client::instance(), pool, nullptr, info, true,
                            nullptr, 5, -1));
  EXPECT_EQ(info.name + " " + info.url, "p1 " + url);
  Client_IO_Base::Options opts;
  opts.retry_count_ = 7;
  ASSERT_TRUE(set_options_by_pool(opts, info));
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::Lz4);
  EXPECT_EQ(opts.retry_count_, 7);
  EXPECT_FALSE(get_pool_info("no-such-pool", nullptr, info));
  EXPECT_EQ(info.name, "p1");  // untouched by the failed lookup
  info.io_options = {{"compression", "zlib"}, {"compression_level", 99}};
  EXPECT_FALSE(set_options_by_pool(opts, info));  // and the options left alone
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::Lz4);

  stop();
  JSON_Value answer;
  for (int retry_seconds : {0, 1})
    EXPECT_FALSE(RESTful_Catalog_Operator("127.0.0.1", port, false, agent, -1, retry_seconds)
                     .get_view("h3ccas", "base_catalog", JSON_Value::object(), answer));

  // A commit's first attempt meets a listener that hangs up; a later one the server back.
  int listener = socket(AF_INET, SOCK_STREAM, 0), on = 1;
  sockaddr_in addr = {
      AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  set.uuid_ = set.base_ = set.incarnation_ = "b1";
  set.backup_type_ = "full";
  bool committed = false;
  std::thread client([&] {
    committed = RESTful_Catalog_Operator("127.0.0.1", port, false, agent, -1, 60).commit(set);
  });
  pollfd pfd = {listener, POLLIN, 0};
  bool met = poll(&pfd, 1, 60000) == 1;  // bounds a hang: the client connects at once
  close(accept(listener, nullptr, nullptr));
  close(listener);
  bool restarted = start("127.0.0.1:" + std::to_string(port));
  client.join();
  ASSERT_TRUE(met && restarted);
  EXPECT_TRUE(committed);
  EXPECT_EQ(call("GET", sets + "?uuid=b1", &agent).status, 200);
}

// Each refusal: exit status 2 and one line naming the problem, with a hint for usage errors.
TEST(Server_Options, BadOptionsAndConfigurationAreRefused) {
  Temp_Dir tmp;
  const std::string conf = tmp.file("conf.json"), data = tmp.file("data"),
                    hint = "\nRun 'brimlet-server --help' for usage.\n",
                    enroll = "\nRun 'brimlet-server enroll --help' for usage.\n";
  write_text_file(conf, "{\"port\": \"1\"}");
  const std::pair<Strings, std::string> cases[] = {
      {{"--bogus"}, "The following argument was not expected: --bogus" + hint},
      {{"--listen"}, "--listen: 1 required HOST:PORT missing" + hint},
      {{"enroll", "--data", data}, "--host-id is required" + enroll},
      {{"enroll", "--data", data, "--host-id", "a", "--role", "boss"},
       "--role: boss not in {agent,admin}" + enroll},
      {{"keys", "--role", "admin"},
       "The following arguments were not expected: admin --role\n"
       "Run 'brimlet-server keys --help' for usage.\n"},
      {{"--listen", "nowhere"}, "Invalid listen address 'nowhere'"},
      {{"--config", conf}, "unknown member 'port'"},
  };
  for (auto [argv, err] : cases) {
    argv.insert(argv.begin(), "brimlet-server");
    Run_Result r = run_program(argv, "", {"BRIMLET_ROOT=" + tmp.path()}, 30);
    EXPECT_EQ(r.exit_code, 2) << err;
    if (err.back() == '\n') {
      EXPECT_EQ(r.err, "brimlet-server: " + err);
    } else {
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      EXPECT_TRUE(contains(r.err, err)) << r.err;
    }
  }
  struct stat info {};
  EXPECT_NE(stat(data.c_str(), &info), 0);  // refused before the database was made
  Run_Result help = run_program({"brimlet-server", "enroll", "--help"});
  EXPECT_TRUE(help.exit_code == 0 && contains(help.out, "Usage: brimlet-server enroll [OPTIONS]"))
      << help.out;

  // The configuration's data directory serves unless the command line names another.
  write_text_file(conf, JSON_Value({{"data_dir", data}}).dump());
  Run_Result r = run_program(
      {"brimlet-server", "enroll", "--config", conf, "--host-id", "console", "--role", "admin"});
  EXPECT_EQ(r.out.size(), 65u) << r.err;
  r = run_program({"brimlet-server", "keys", "--config", conf});
  EXPECT_EQ(r.out.substr(0, 14), "console\tadmin\t") << r.err;
  r = run_program({"brimlet-server", "keys", "--config", conf, "--data", tmp.path()});
  EXPECT_TRUE(r.exit_code == 1 && contains(r.err, "No server database '" + tmp.path())) << r.err;
}

TEST(Database, MigratesStepByStepAndRefusesANewerSchema) {
  Temp_Dir tmp;
  const std::string path = tmp.file("a.db");
  const Migration first = {1, "CREATE TABLE t (x INTEGER)"};
  const Migration second = {2, "ALTER TABLE t ADD COLUMN y TEXT"};
  const Migration broken = {2, "ALTER TABLE t ADD COLUMN y TEXT; INSERT INTO missing VALUES (1)"};
  // ADD COLUMN fails when the column exists: a step applied twice, or half-applied, shows.
  struct Step {
    std::vector<Migration> migrations;
    bool opens;
    int version;
  } steps[] = {
      {{first}, true, 1},         {{first, broken}, false, 1},  // rolled back as a whole
      {{first, second}, true, 2}, {{first, second}, true, 2},   // applied once
      {{first}, false, 2},  // the database is newer than the program
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(s.migrations.back().sql);
    EXPECT_EQ(Database().open(path, s.migrations), s.opens);
    auto conn = Connection::open(path);
    ASSERT_TRUE(conn);
    EXPECT_EQ(Database::schema_version(*conn), s.version);
  }
  auto conn = Connection::open(path);
  EXPECT_TRUE(conn->prepare("INSERT INTO t (x, y) VALUES (1, 'a')").run());
}

}  // namespace
