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
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <sstream>
#include <thread>
#include <tuple>

namespace {
using namespace brimlet_server;
using S = std::string;
using Strings = std::vector<S>;
const char seal_key[] = "P!L@O#V$A%R^N&3157";
const S secret = "Sw0rdf1sh-q7Zx%9", cvms = "/k4/r/h3ccas/cvm", pools = "/k4/r/storage/pool",
        commits = "/k4/r/catalog/h3ccas", views = commits + "/view/", sets = commits + "/sets";

struct Answer {
  int status = 0;
  S headers, text;
  JSON_Value body;
  S said() const { return std::to_string(status) + " " + text; }
};

JSON_Value cvm_body(const S& host = "cvm.example", int port = 8080, const S& user = "admin") {
  JSON_Value b = {{"host", host}, {"port", port}, {"username", user}, {"password", secret}};
  b.update({{"name", "lab"}, {"ssl", false}, {"extended_attrs", {{"zone", "a"}}}});
  return b;
}
// `o` with `v` under `k`, or without `k` when `v` is null.
JSON_Value with(JSON_Value o, const char* k, const JSON_Value& v) {
  v.is_null() ? void(o.erase(k)) : void(o[k] = v);
  return o;
}
const auto contains = [](const S& s, const S& part) { return s.find(part) != S::npos; };
S file_bytes(const S& path) {
  S bytes;
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
  Run_Result run(const S& line) {
    std::istringstream in(line);
    Strings argv = {"brimlet-server"};
    for (S word; in >> word;)
      argv.push_back(word);
    return run_program(argv, "", env);
  }
  S enroll(const S& id, const S& role = "agent") {
    return run("enroll --data " + data + " --host-id " + id + " --role " + role).out.substr(0, 64);
  }
  bool start(const S& listen = "127.0.0.1:0") {
    S rf = tmp.file("ready" + std::to_string(++starts));
    // The command line's address must win over the file's, which would not start.
    write_text_file(
        config, JSON_Value({{"data_dir", data}, {"log_file", log_file}, {"listen", "x"}}).dump());
    Strings argv = {"brimlet-server", "--config", config, "--listen", listen, "--ready-file", rf};
    JSON_Value r;
    bool up = server.start(argv, env, out_file) && server.wait_ready(rf, r);
    port = up ? r.at("port").get<std::uint16_t>() : 0;
    return up;
  }
  void stop() { EXPECT_EQ(server.stop(), 0); }  // SIGTERM must end the server cleanly
  // A request by curl; a string body is sent as it is, any other value as JSON.
  Answer call(const S& method, const S& target, const S* key, const JSON_Value& body = nullptr) {
    Strings argv = {"/usr/bin/curl", "-sS", "-D", "-", "-w", "\n%{http_code}", "-X", method};
    if (key)
      argv.insert(argv.end(), {"-H", "X-Access-Key: " + *key});
    if (!body.is_null())
      argv.insert(argv.end(), {"-H", "Content-Type: application/json", "--data-binary", "@-"});
    argv.push_back("http://127.0.0.1:" + std::to_string(port) + target);
    Run_Result r = run_program(argv, body.is_string() ? body.get<S>() : body.dump());
    EXPECT_EQ(r.exit_code, 0) << r.err;
    auto head = r.out.find("\r\n\r\n"), nl = r.out.rfind('\n');
    if (head == S::npos || nl < head)
      return {};
    S text = r.out.substr(head + 4, nl - head - 4);
    return {std::stoi(r.out.substr(nl + 1)), r.out.substr(0, head), text,
            JSON_Value::parse(text, nullptr, false)};
  }
  S create(const S& route, const S& key, const JSON_Value& body) {
    Answer a = call("POST", route, &key, body);
    EXPECT_EQ(a.status, 201) << a.text;
    return a.body.is_object() ? a.body.value("uuid", "") : "";
  }
  // The password of entry `uuid` asked for host `host_id`, decrypted as the agent does.
  S password(const S& key, const S& uuid, const S& host_id) {
    Answer a = call("GET", cvms + "?uuid=" + uuid + "&with_password=" + host_id, &key);
    EXPECT_TRUE(!contains(a.text, secret) && contains(a.headers, "Cache-Control: no-store"));
    S cipher = a.body.at("rows").at(0).value("password", "<none>");
    Secure_String plain;
    EXPECT_TRUE(cipher.empty() || decrypt_string(cipher, plain, seal_key, sizeof seal_key - 1));
    return S(plain.data(), plain.size());
  }
  // A set of VM `vm` on CVK "cvk-1" in pool "p1"; a full set when `base` is empty.
  JSON_Value make_set(const S& uuid, const S& base, std::int64_t start_time, const S& vm = "vm-1",
                      const S& resource = "res-1") {
    JSON_Value s = JSON_Value::parse(R"({"host_id": "cvk-1", "host_uuid": "cvm-1",
        "set_size": 4096, "source_size": 1048576, "vm_disks": [{"path": "/vms/a.qcow2"}]})");
    for (const char* k :
         {"job_uuid", "run_uuid", "definition_id", "vm_uuid", "host_name", "host_ip", "vm_name",
          "vm_title", "cbt_name", "uri", "vm_config_path", "name", "agent", "instance_version"})
      s[k] = S(k) + "-" + uuid;
    s.update({{"uuid", uuid}, {"resource_uuid", resource}, {"vm_id", vm}, {"pool_uuid", pool}});
    s.update({{"backup_type", base.empty() ? "full" : "incremental"}, {"start_time", start_time}});
    s["base"] = base.empty() ? uuid : base;
    s["incarnation"] = base.empty() ? uuid : committed[base].value("incarnation", "");
    s["pieces"] = {{{"object", ""}, {"size", 0}, {"path", "/c/" + uuid}}};
    s["storages"] = {{{"pool_uuid", pool}, {"size", 3000}, {"extra", nullptr}}};
    return s;
  }
  void commit(const JSON_Value& set) { committed[create(commits, agent, set)] = set; }
  Temp_Dir tmp;
  const Strings env = {"BRIMLET_ROOT=" + tmp.path()};
  const S url = "file://" + tmp.path();  // a pool's: a directory that exists
  S data = tmp.file("data"), log_file = tmp.file("server.log"), out_file = tmp.file("server.out"),
    config = tmp.file("server.json");
  Test_Process server;
  std::uint16_t port = 0;
  int starts = 0;
  S admin = enroll("console", "admin"), agent = enroll("agent-a"), agent_b = enroll("agent-b"),
    pool;
  std::map<S, JSON_Value> committed;  // by uuid
};

// Who may do what (no key, an unknown key, an agent's key, an admin's key), what is refused, what
// the views and the host's clients answer, CVM entries and their passwords across a restart, and
// the options and configuration refused.
TEST_F(Server_Test, ServesEachRoleItsRoutesSurvivesARestartAndRefusesBadOptions) {
  ASSERT_TRUE(start());
  pool = create(pools, admin,
                {{"name", "p1"}, {"url", url}, {"io_options", {{"compression", "lz4"}}}});
  commit(make_set("f1", "", 100));
  S cvm = create(cvms, admin, cvm_body()), unknown = S(64, 'a'), admin_only = " needs an admin key";
  JSON_Value p9 = {{"name", "p9"}, {"url", url}}, f9 = make_set("f9", "", 900, "vm-9", "res-9");
  // Method, target, body, the statuses for an agent and an admin, the refusal of a 403.
  const std::tuple<S, S, JSON_Value, int, int, S> routes[] = {
      {"GET", cvms, nullptr, 403, 200, "reading CVM entries without 'with_password'" + admin_only},
      {"GET", cvms + "?uuid=" + cvm + "&with_password=agent-a", nullptr, 200, 200, ""},
      {"POST", cvms, cvm_body("other.example"), 403, 201, "registering CVM entries" + admin_only},
      {"GET", pools, nullptr, 200, 200, ""},
      {"POST", pools, p9, 403, 201, "registering storage pools" + admin_only},
      {"POST", commits, f9, 201, 403, "committing backup sets needs an agent key"},
      {"GET", views + "restore?resource_uuid=res-1&set_uuid=f1", nullptr, 200, 200, ""},
      {"GET", sets + "?uuid=f1", nullptr, 200, 200, ""},
      {"DELETE", cvms + "?uuid=" + cvm, nullptr, 403, 200, "removing CVM entries" + admin_only},
  };
  for (const S* key : {static_cast<S*>(nullptr), &unknown, &agent, &admin})
    for (const auto& [method, target, body, agent_status, admin_status, error] : routes) {
      Answer a = call(method, target, key, body);
      int status = !key || key == &unknown ? 401 : key == &agent ? agent_status : admin_status;
      EXPECT_EQ(a.status, status) << method << " " << target << " " << (key ? *key : "") << a.text;
      S refusal = status == 401 ? key ? "unknown access key" : "access key required" : error;
      EXPECT_EQ(a.body.is_object() ? a.body.value("error", "") : "", status < 401 ? "" : refusal);
    }
  EXPECT_EQ(call("GET", "/k4/r/health", nullptr).text, R"({"ok":true})");
  Answer put = call("PUT", pools, &admin, JSON_Value::object());
  EXPECT_EQ(put.said(), R"(405 {"error":"method not allowed"})");
  EXPECT_TRUE(contains(put.headers, "Allow: GET, POST")) << put.headers;
  JSON_Value c = cvm_body(), x1 = make_set("x1", "", 200), i1 = make_set("i1", "f1", 200),
             p = {{"name", "x"}, {"url", url}}, f1 = committed["f1"];
  const S& v = views;
  auto as = [](const S& key, const S& type) { return "'" + key + "' is expected as " + type; };
  // Target, body (null {}: a GET), status, error.
  const std::tuple<S, JSON_Value, int, S> cases[] = {
      {cvms, "{\"password\": \"" + secret + "\"", 400, "malformed JSON body at byte 32"},
      {cvms, JSON_Value::array({1, 2}), 400, "expected an object, got array"},
      {cvms, with(c, "port", 0), 400, as("port", "integer in 1..65535")},
      {cvms, with(c, "port", 65536), 400, as("port", "integer in 1..65535")},
      {cvms, with(c, "host", ""), 400, as("host", "non-empty string")},
      {cvms, with(c, "extended_attrs", 1), 400, as("extended_attrs", "object")},
      {cvms, with(c, "passwd", "x"), 400, "unknown key 'passwd'"},
      {cvms, with(c, "password", {}), 400, "missing key 'password'"},
      {cvms + "?with_password=console", {}, 400, "'with_password' needs 'uuid'"},
      {pools, "[]", 400, "a JSON object body is expected"},
      {pools, with(p, "name", {}), 400, "missing key 'name'"},
      {pools, with(p, "name", ""), 400, as("name", "non-empty string")},
      {pools, with(p, "io_options", {{"compression", "rar"}}), 400, "invalid 'io_options'"},
      {pools, with(p, "colour", "red"), 400, "unknown key 'colour'"},
      {pools, with(p, "url", "file:///srv/./p"), 400,
       "Invalid storage pool URL 'file:///srv/./p': '.' and '..' are not allowed in the folder"},
      {pools, with(p, "url", "s3://bucket"), 400,
       "Unsupported storage pool URL 's3://bucket': s3:// pools are not supported yet"},
      {pools, with(p, "name", "P1"), 409, "a storage pool of this name exists already"},
      {pools + "?uuid=nope", {}, 404, "no storage pool 'nope'"},
      {commits, with(x1, "uuid", {}), 400, "missing key 'uuid'"},
      {commits, with(x1, "uuid", ""), 400, as("uuid", "non-empty string")},
      {commits, with(x1, "storages", "p1"), 400, as("storages", "array")},
      {commits, with(x1, "set_size", -1), 400, as("set_size", "non-negative integer")},
      {commits, with(x1, "backup_type", "weekly"), 400,
       as("backup_type", "\"full\", \"incremental\" or \"differential\"")},
      {commits, with(x1, "pool_uuid", "no-pool"), 400, "unknown storage pool 'no-pool'"},
      {commits, with(x1, "base", "f1"), 400, "a full set is its own 'base' and 'incarnation'"},
      {commits, with(i1, "base", "i1"), 400, "an incremental set needs another set as its 'base'"},
      {commits, with(i1, "base", "zz"), 400, "base set 'zz' is not in the catalog"},
      {commits, with(i1, "resource_uuid", "res-2"), 400, "base set 'f1' is not in the catalog"},
      {commits, with(i1, "incarnation", "i1"), 400,
       "'incarnation' differs from that of base set 'f1'"},
      {commits, with(f1, "set_size", 1), 409, "backup set 'f1' was committed with other content"},
      {v + "base_catalog?vm_id=v", {}, 400, "'resource_uuid', 'host_id' and 'vm_id' are required"},
      {v + "restore?set_uuid=f1", {}, 400, "'resource_uuid' and 'set_uuid' are required"},
      {v + "restore?resource_uuid=&set_uuid=f1", {}, 404, "no complete chain for backup set 'f1'"},
      {v + "nothing?a=b", {}, 404, "no view 'nothing'"},
      {sets + "?uuid=zz", {}, 404, "no backup set 'zz'"},
  };
  for (const auto& [target, body, status, error] : cases) {
    Answer a =
        call(body.is_null() ? "GET" : "POST", target, target == commits ? &agent : &admin, body);
    EXPECT_EQ(a.status, status) << body.dump();
    EXPECT_EQ(a.body.value("error", ""), error) << a.text;
    EXPECT_FALSE(contains(a.text, secret)) << a.text;
  }
  // Only the admitted requests changed anything (the CVM entries are listed below).
  Strings listed = uuids(call("GET", pools, &agent).body.at("rows"));
  EXPECT_TRUE(listed.size() == 2 && listed[0] == pool) << listed.size();
  EXPECT_EQ(uuids(call("GET", sets, &agent).body.at("rows")), (Strings{"f9", "f1"}));
  JSON_Value one = call("GET", pools + "?uuid=" + pool, &agent).body;
  EXPECT_TRUE(one.at("created").is_number_integer());
  JSON_Value expected = {{"uuid", pool}, {"name", "p1"}, {"url", url}};
  EXPECT_EQ(with(one, "created", nullptr), with(expected, "io_options", {{"compression", "lz4"}}));
  EXPECT_EQ(call("POST", pools, &admin, {{"name", "P1"}, {"url", url}}).body["uuid"], pool);
  // Two chains of vm-1 (f1 <- i1 <- i2, f2 <- j1), one set of vm-2 and one of another resource.
  const char* const chains[][4] = {{"i1", "f1", "vm-1", "res-1"}, {"g1", "", "vm-2", "res-1"},
                                   {"i2", "i1", "vm-1", "res-1"}, {"f2", "", "vm-1", "res-1"},
                                   {"j1", "f2", "vm-1", "res-1"}, {"r1", "", "vm-1", "res-2"}};
  for (const auto& c : chains)
    commit(make_set(c[0], c[1], 100 * committed.size(), c[2], c[3]));
  EXPECT_EQ(call("POST", commits, &agent, committed["i1"]).said(),
            R"(200 {"created":false,"uuid":"i1"})");
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
    EXPECT_EQ(std::tuple(uuids(got), got.back()), std::tuple(chain, committed[chain.back()]));
  }
  JSON_Value rows = call("GET", sets + "?vm_id=vm-1&host_uuid=cvm-1", &admin).body.at("rows");
  EXPECT_EQ(uuids(rows), (Strings{"r1", "j1", "f2", "i2", "i1", "f1"}));
  expected = {{"storage_size", 3000}, {"chain", {"f1", "i1", "i2"}}};
  for (const char* k :
       {"uuid", "vm_id", "vm_name", "host_id", "host_name", "host_uuid", "resource_uuid",
        "backup_type", "start_time", "set_size", "source_size", "pool_uuid", "base", "incarnation"})
    expected[k] = committed["i2"][k];
  EXPECT_EQ(rows[3], expected);
  one = call("GET", sets + "?uuid=i1", &admin).body;
  EXPECT_EQ(one["chain"], JSON_Value::array({"f1", "i1"}));
  EXPECT_TRUE(one.at("committed").is_number_integer());
  EXPECT_EQ(with(with(one, "chain", nullptr), "committed", nullptr), committed["i1"]);
  H3C_CAS_Backup_Set set;
  set.uuid_ = set.base_ = set.incarnation_ = "c1";
  set.backup_type_ = "full", set.pool_uuid_ = pool, set.host_uuid_ = "cvm-1";
  set.add_piece("/h/v/disk_0", 512, "/vms/d.qcow2");
  set.add_storage(pool, 700, {{"code_name", "reborn"}});
  ASSERT_TRUE(op.commit(set) && op.commit(set));
  JSON_Value stored = call("GET", sets + "?uuid=c1", &agent).body;
  EXPECT_EQ(stored["uri"], "cvm-1");  // defaults to the protected resource's entry
  EXPECT_EQ(stored["pieces"][0],
            (JSON_Value{{"object", "/vms/d.qcow2"}, {"size", 512}, {"path", "/h/v/disk_0"}}));
  EXPECT_EQ(Backup_Set_Storage_Selector(stored["storages"], 1).pool_uuid(), pool);
  set.pool_uuid_ = "elsewhere";
  EXPECT_FALSE(op.commit(set));  // other content
  JSON_Value js = JSON_Value::parse(R"(["junk", {"size": 5}, {"pool_uuid": "", "size": 9},
      {"pool_uuid": "a", "size": 10}, {"pool_uuid": "b", "size": 30}, {"pool_uuid": "c"}])");
  EXPECT_EQ(Backup_Set_Storage_Selector(js, 1).pool_uuid(), "a");
  EXPECT_EQ(Backup_Set_Storage_Selector(js, 2).pool_uuid(), "b");
  EXPECT_EQ(Backup_Set_Storage_Selector(JSON_Value::object(), 1).pool_uuid(), "");
  auto* upstream = Upstream_JSON_RESTful_Client::instance();
  upstream->configure("127.0.0.1", port, false, agent);
  Pool_Info info;
  ASSERT_TRUE(get_pool_info(upstream, pool, nullptr, info, true, nullptr, 5, -1));
  EXPECT_EQ(info.name + " " + info.url, "p1 " + url);
  Client_IO_Base::Options opts;
  opts.retry_count_ = 7;
  ASSERT_TRUE(set_options_by_pool(opts, info));
  EXPECT_TRUE(opts.compression_ == Client_IO_Base::Compression::Lz4 && opts.retry_count_ == 7);
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
  sockaddr_in addr = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(listener, 4), 0);
  set.uuid_ = set.base_ = set.incarnation_ = "b1", set.pool_uuid_ = pool;
  auto client = std::async(std::launch::async, [&] {
    return RESTful_Catalog_Operator("127.0.0.1", port, false, agent, -1, 60).commit(set);
  });
  pollfd pfd = {listener, POLLIN, 0};
  bool met = poll(&pfd, 1, 60000) == 1;  // bounds a hang: the client connects at once
  close(accept(listener, nullptr, nullptr)), close(listener);
  bool restarted = start("127.0.0.1:" + std::to_string(port));
  ASSERT_TRUE(met && restarted);
  EXPECT_TRUE(client.get());
  EXPECT_EQ(call("GET", sets + "?uuid=b1", &agent).status, 200);
  S uuid = create(cvms, admin, cvm_body());
  JSON_Value entry = call("GET", cvms, &admin).body.at("rows").at(1);  // after other.example
  EXPECT_TRUE(entry.at("created").is_number_integer());
  EXPECT_EQ(with(entry, "created", nullptr),
            with(with(cvm_body(), "password", nullptr), "uuid", uuid));
  EXPECT_EQ(call("GET", cvms + "?uuid=" + uuid, &admin).body["rows"][0], entry);
  EXPECT_EQ(call("GET", cvms + "?uuid=0bad", &admin).text, R"({"rows":[]})");
  // Only the agent itself gets a usable copy.
  EXPECT_EQ(password(agent, uuid, "agent-a"), secret);
  EXPECT_EQ(password(agent_b, uuid, "agent-a"), "");
  EXPECT_EQ(password(admin, uuid, "agent-a"), "");
  // Host names compare without case, as DNS does.
  const char* const exists = "a CVM entry for this host, port and username exists already";
  EXPECT_EQ(call("POST", cvms, &admin, cvm_body("CVM.Example")).said(),
            "409 " + JSON_Value({{"error", exists}, {"uuid", uuid}}).dump());
  S kept = create(cvms, admin, cvm_body("cvm.example", 8080, "operator"));
  create(cvms, admin, cvm_body("cvm.example", 65535));
  EXPECT_EQ(call("DELETE", cvms + "?uuid=" + uuid, &admin).text, R"({"deleted":1})");
  EXPECT_EQ(call("DELETE", cvms + "?uuid=" + uuid, &admin).said(),
            "404 {\"error\":\"no CVM entry '" + uuid + "'\"}");
  EXPECT_EQ(call("DELETE", cvms, &admin).text, R"({"error":"missing query key 'uuid'"})");
  std::vector<std::thread> threads;  // one of concurrent registrations of an entry wins
  std::vector<int> statuses(6);
  for (auto& s : statuses)
    threads.emplace_back([&, out = &s] { *out = call("POST", cvms, &admin, cvm_body()).status; });
  for (auto& t : threads)
    t.join();
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (std::vector<int>{201, 409, 409, 409, 409, 409}));
  stop();
  ASSERT_TRUE(start());
  EXPECT_EQ(password(agent, kept, "agent-a"), secret);
  stop();
  S db = file_bytes(data + "/server.db") + file_bytes(data + "/server.db-wal");
  S log = file_bytes(log_file) + file_bytes(out_file), key_file = data + "/master.key";
  EXPECT_TRUE(contains(db, kept) && contains(log, kept));  // the right files were read
  for (const S& s : {secret, admin, agent})
    EXPECT_FALSE(contains(db + log + file_bytes(key_file), s)) << s;
  struct stat st {};
  ASSERT_EQ(stat(key_file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_TRUE(write_file_atomic(key_file, S(32, 'k'), 0600));
  EXPECT_FALSE(start());
  EXPECT_TRUE(contains(file_bytes(out_file), "does not belong to database"));
  ASSERT_EQ(unlink(key_file.c_str()), 0);
  EXPECT_FALSE(start());
  EXPECT_TRUE(contains(file_bytes(out_file), "is missing, and database"));
  EXPECT_NE(stat(key_file.c_str(), &st), 0);  // never made anew
  // Each bad option: exit status 2 and one line naming the problem, with a hint for usage errors.
  const S conf = tmp.file("conf.json"), d2 = tmp.file("d2"), d = " --data " + d2;
  auto hint = [](const S& cmd) { return "\nRun 'brimlet-server" + cmd + " --help' for usage.\n"; };
  write_text_file(conf, "{\"port\": \"1\"}");
  const std::pair<S, S> options[] = {
      {"--bogus", "The following argument was not expected: --bogus" + hint("")},
      {"--listen", "--listen: 1 required HOST:PORT missing" + hint("")},
      {"enroll" + d, "--host-id is required" + hint(" enroll")},
      {"enroll --host-id a --role boss" + d, "--role: boss not in {agent,admin}" + hint(" enroll")},
      {"keys --role admin",
       "The following arguments were not expected: admin --role" + hint(" keys")},
      {"--listen nowhere", "Invalid listen address 'nowhere'"},
      {"--config " + conf, "unknown member 'port'"},
  };
  for (const auto& [line, err] : options) {
    Run_Result r = run(line);
    EXPECT_EQ(r.exit_code, 2) << err;
    bool one_line = std::count(r.err.begin(), r.err.end(), '\n') == 1 && contains(r.err, err);
    EXPECT_TRUE(err.back() == '\n' ? r.err == "brimlet-server: " + err : one_line) << r.err;
  }
  EXPECT_NE(access(d2.c_str(), F_OK), 0);  // refused before the database was made
  Run_Result help = run("enroll --help");
  EXPECT_TRUE(help.exit_code == 0 && contains(help.out, "Usage: brimlet-server enroll [OPTIONS]"));
  // The configuration's data directory serves unless the command line names another.
  write_text_file(conf, JSON_Value({{"data_dir", d2}}).dump());
  EXPECT_EQ(run("enroll --host-id console --role admin --config " + conf).out.size(), 65u);
  EXPECT_EQ(run("keys --config " + conf).out.substr(0, 14), "console\tadmin\t");
  Run_Result r = run("keys --config " + conf + " --data " + tmp.path());
  EXPECT_TRUE(r.exit_code == 1 && contains(r.err, "No server database '" + tmp.path())) << r.err;
}

TEST_F(Server_Test, DatabaseMigratesStepByStepAndRefusesANewerSchema) {
  const S path = tmp.file("a.db");
  const Migration first = {1, "CREATE TABLE t (x INTEGER)"},
                  second = {2, "ALTER TABLE t ADD COLUMN y TEXT"},
                  broken = {2, "ALTER TABLE t ADD COLUMN y TEXT; INSERT INTO missing VALUES (1)"};
  // ADD COLUMN fails when the column exists: a step applied twice, or half-applied, shows.
  const std::tuple<std::vector<Migration>, bool, int> steps[] = {
      {{first}, true, 1},         {{first, broken}, false, 1},  // rolled back as a whole
      {{first, second}, true, 2}, {{first, second}, true, 2},   // applied once
      {{first}, false, 2},  // the database is newer than the program
  };
  for (const auto& [migrations, opens, version] : steps) {
    EXPECT_EQ(Database().open(path, migrations), opens) << migrations.back().sql;
    EXPECT_EQ(Database::schema_version(*Connection::open(path)), version) << migrations.back().sql;
  }
  EXPECT_TRUE(Connection::open(path)->prepare("INSERT INTO t (x, y) VALUES (1, 'a')").run());
}
}  // namespace
