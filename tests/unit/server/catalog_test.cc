// Storage pools and the backup catalog of brimlet-server, over HTTP and through the host's
// catalog client.
#include "host/catalog/catalog.h"
#include "host/catalog/pool_info.h"
#include "host/http/client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string pools = "/k4/r/storage/pool";
const std::string commit_route = "/k4/r/catalog/h3ccas";
const std::string views = "/k4/r/catalog/h3ccas/view/";
const std::string sets = "/k4/r/catalog/h3ccas/sets";

struct Answer {
  int status = 0;
  JSON_Value body;
};

class Catalog_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    Run_Result r = run_program({"brimlet-server", "enroll", "--data", data, "--host-id", "agent-1"},
                               "", env());
    ASSERT_EQ(r.exit_code, 0) << r.err;
    key = r.out.substr(0, r.out.find('\n'));
    ASSERT_TRUE(start("127.0.0.1:0"));
    pool_uuid = add_pool("p1", "file:///srv/p1");
  }

  std::vector<std::string> env() const { return {"BRIMLET_ROOT=" + tmp.path()}; }

  bool start(const std::string& listen) {
    std::string ready = tmp.file("ready.json");
    unlink(ready.c_str());
    JSON_Value r;
    if (!server.start({"brimlet-server", "--listen", listen, "--data", data, "--log",
                       tmp.file("server.log"), "--ready-file", ready},
                      env(), tmp.file("server.out")) ||
        !server.wait_ready(ready, r))
      return false;
    port = r.at("port").get<int>();
    return true;
  }

  Answer call(HTTP_Method method, const std::string& target, const JSON_Value* body = nullptr,
              const std::string* with_key = nullptr) {
    auto session =
        HTTP_Session_Factory::create("127.0.0.1", static_cast<std::uint16_t>(port), false);
    EXPECT_TRUE(session);
    session->headers().put("X-Access-Key", with_key ? *with_key : key);
    JSON_HTTP_Session json(session, 1, 30);
    auto q = target.find('?');
    HTTP_Request req(method, target.substr(0, q));
    if (q != std::string::npos)
      req.query() = target.substr(q + 1);
    HTTP_Response resp;
    Answer a;
    EXPECT_TRUE(json.send(req, body, resp, &a.body)) << target;
    a.status = resp.status();
    return a;
  }

  std::string add_pool(const std::string& name, const std::string& url) {
    JSON_Value body = {{"name", name}, {"url", url}, {"io_options", {{"compression", "lz4"}}}};
    Answer a = call(HTTP_Method::POST, pools, &body);
    EXPECT_EQ(a.status, 201) << a.body.dump();
    return a.body.value("uuid", "");
  }

  // A set of VM `vm` on CVK "cvk-1"; `base` empty makes a full set.
  JSON_Value make_set(const std::string& uuid, const std::string& base, std::int64_t start_time,
                      const std::string& vm = "vm-1", const std::string& resource = "res-1") {
    H3C_CAS_Backup_Set s;
    s.uuid_ = uuid;
    s.job_uuid_ = "job-1";
    s.run_uuid_ = "run-" + uuid;
    s.definition_id_ = "def-1";
    s.resource_uuid_ = resource;
    s.vm_uuid_ = "uuid-" + vm;
    s.host_id_ = "cvk-1";
    s.host_name_ = "cvk1";
    s.host_ip_ = "10.0.0.1";
    s.vm_id_ = vm;
    s.vm_name_ = "name-" + vm;
    s.vm_title_ = "title-" + vm;
    s.backup_type_ = base.empty() ? "full" : "incremental";
    s.start_time_ = start_time;
    s.base_ = base.empty() ? uuid : base;
    s.incarnation_ = base.empty() ? uuid : incarnation_of(base);
    s.set_size_ = 4096;
    s.source_size_ = 1 << 20;
    s.cbt_name_ = "cbt-" + uuid;
    s.vm_disks_ = JSON_Value::array({{{"path", "/vms/" + vm + ".qcow2"}}});
    s.vm_config_path_ = "/cvk1/" + vm + "/vm_config.json";
    s.pool_uuid_ = pool_uuid;
    s.name_ = "nightly";
    s.host_uuid_ = "cvm-1";
    s.agent_ = "agent-1";
    s.instance_version_ = "E0750";
    s.add_piece(s.vm_config_path_, 0);
    s.add_piece("/cvk1/" + vm + "/chunk_" + uuid, 4096, "/vms/" + vm + ".qcow2");
    s.add_storage(pool_uuid, 3000, {{"code_name", "reborn"}});
    JSON_Value out;
    s.dump(out);
    incarnations_[uuid] = s.incarnation_;
    return out;
  }

  std::string incarnation_of(const std::string& uuid) {
    auto it = incarnations_.find(uuid);
    return it == incarnations_.end() ? uuid : it->second;
  }

  void commit(const JSON_Value& set) {
    Answer a = call(HTTP_Method::POST, commit_route, &set);
    ASSERT_EQ(a.status, 201) << a.body.dump();
  }

  static std::vector<std::string> uuids(const JSON_Value& array) {
    std::vector<std::string> out;
    for (const auto& s : array)
      out.push_back(s.value("uuid", "?"));
    return out;
  }

  Temp_Dir tmp;
  std::string data = tmp.file("data");
  Test_Process server;
  int port = 0;
  std::string key;
  std::string pool_uuid;
  std::map<std::string, std::string> incarnations_;
};

TEST_F(Catalog_Test, PoolsRegisterListAndGet) {
  std::string second = add_pool("p2", "s3://bucket/prefix");
  Answer list = call(HTTP_Method::GET, pools);
  ASSERT_EQ(list.status, 200);
  ASSERT_EQ(list.body.at("rows").size(), 2u);
  EXPECT_EQ(list.body["rows"][0]["uuid"], pool_uuid);
  EXPECT_EQ(list.body["rows"][1]["uuid"], second);

  Answer one = call(HTTP_Method::GET, pools + "?uuid=" + second);
  ASSERT_EQ(one.status, 200);
  EXPECT_EQ(one.body["name"], "p2");
  EXPECT_EQ(one.body["url"], "s3://bucket/prefix");
  EXPECT_EQ(one.body["io_options"]["compression"], "lz4");
  EXPECT_EQ(call(HTTP_Method::GET, pools + "?uuid=nope").status, 404);

  JSON_Value taken = {{"name", "P1"}, {"url", "file:///other"}};
  Answer dup = call(HTTP_Method::POST, pools, &taken);
  EXPECT_EQ(dup.status, 409);
  EXPECT_EQ(dup.body.value("uuid", ""), pool_uuid);
}

TEST_F(Catalog_Test, PoolRegistrationRefusesBadInput) {
  const JSON_Value bad[] = {
      {{"url", "file:///a"}},
      {{"name", ""}, {"url", "file:///a"}},
      {{"name", "x"}, {"url", "relative/dir"}},
      {{"name", "x"}, {"url", "file://host/dir"}},
      {{"name", "x"}, {"url", "file:///a/../etc"}},
      {{"name", "x"}, {"url", "http://pool"}},
      {{"name", "x"}, {"url", "file:///a"}, {"io_options", {{"compression", "rar"}}}},
      {{"name", "x"}, {"url", "file:///a"}, {"colour", "red"}},
  };
  for (const auto& body : bad)
    EXPECT_EQ(call(HTTP_Method::POST, pools, &body).status, 400) << body.dump();
  EXPECT_EQ(call(HTTP_Method::GET, pools).body.at("rows").size(), 1u);
}

TEST_F(Catalog_Test, CommitRefusesInvalidSets) {
  commit(make_set("f1", "", 100));
  struct Case {
    const char* what;
    JSON_Value set;
  };
  std::vector<Case> cases;
  for (const char* k : {"uuid", "resource_uuid", "vm_id", "pool_uuid", "pieces", "start_time",
                        "cbt_name", "vm_config_path", "uri"}) {
    JSON_Value s = make_set("x1", "", 200);
    s.erase(k);
    cases.push_back({k, s});
  }
  JSON_Value wrong_type = make_set("x1", "", 200);
  wrong_type["storages"] = "pool";
  cases.push_back({"storages as text", wrong_type});
  JSON_Value unknown_pool = make_set("x1", "", 200);
  unknown_pool["pool_uuid"] = "no-such-pool";
  cases.push_back({"unknown pool", unknown_pool});
  cases.push_back({"base absent", make_set("x1", "missing", 200)});
  cases.push_back({"base of another resource", make_set("x1", "f1", 200, "vm-1", "res-2")});
  JSON_Value wrong_incarnation = make_set("x1", "f1", 200);
  wrong_incarnation["incarnation"] = "x1";
  cases.push_back({"incarnation differs from the base's", wrong_incarnation});
  JSON_Value full_with_base = make_set("x1", "", 200);
  full_with_base["base"] = "f1";
  cases.push_back({"full set with a base", full_with_base});
  JSON_Value own_base = make_set("x1", "f1", 200);
  own_base["base"] = "x1";
  cases.push_back({"incremental on itself", own_base});
  JSON_Value bad_type = make_set("x1", "", 200);
  bad_type["backup_type"] = "weekly";
  cases.push_back({"unknown backup type", bad_type});

  for (const auto& c : cases)
    EXPECT_EQ(call(HTTP_Method::POST, commit_route, &c.set).status, 400) << c.what;
  Answer list = call(HTTP_Method::GET, sets);
  EXPECT_EQ(uuids(list.body.at("rows")), std::vector<std::string>{"f1"});
}

TEST_F(Catalog_Test, CommitIsIdempotent) {
  JSON_Value set = make_set("f1", "", 100);
  commit(set);
  Answer again = call(HTTP_Method::POST, commit_route, &set);
  EXPECT_EQ(again.status, 200);
  EXPECT_EQ(again.body.value("created", true), false);
  set["set_size"] = 1;
  EXPECT_EQ(call(HTTP_Method::POST, commit_route, &set).status, 409);
  Answer list = call(HTTP_Method::GET, sets);
  ASSERT_EQ(list.body.at("rows").size(), 1u);
  EXPECT_EQ(list.body["rows"][0]["set_size"], 4096);
}

TEST_F(Catalog_Test, ViewsFollowChains) {
  // Two chains of vm-1 (f1 <- i1 <- i2, f2 <- j1), one set of vm-2 and one of another resource.
  commit(make_set("f1", "", 100));
  commit(make_set("i1", "f1", 200));
  commit(make_set("g1", "", 250, "vm-2"));
  commit(make_set("i2", "i1", 300));
  commit(make_set("f2", "", 400));
  commit(make_set("j1", "f2", 500));
  commit(make_set("r1", "", 600, "vm-1", "res-2"));

  Answer base = call(HTTP_Method::GET, views +
                                           "base_catalog?resource_uuid=res-1&host_id=cvk-1"
                                           "&vm_id=vm-1");
  ASSERT_EQ(base.status, 200);
  EXPECT_EQ(uuids(base.body), (std::vector<std::string>{"j1", "f2", "i2", "i1", "f1"}));
  EXPECT_EQ(base.body[0]["incarnation"], "f2");
  EXPECT_EQ(base.body[0]["cbt_name"], "cbt-j1");
  EXPECT_EQ(base.body[0]["pool_uuid"], pool_uuid);
  Answer other = call(HTTP_Method::GET, views +
                                            "base_catalog?resource_uuid=res-1"
                                            "&host_id=cvk-2&vm_id=vm-1");
  EXPECT_EQ(other.body, JSON_Value::array());
  EXPECT_EQ(call(HTTP_Method::GET, views + "base_catalog?resource_uuid=res-1&vm_id=vm-1").status,
            400);

  struct Case {
    const char* set;
    std::vector<std::string> chain;
  };
  const Case cases[] = {
      {"f1", {"f1"}}, {"i1", {"f1", "i1"}}, {"i2", {"f1", "i1", "i2"}}, {"j1", {"f2", "j1"}}};
  for (const auto& c : cases) {
    Answer r = call(HTTP_Method::GET,
                    views + "restore?resource_uuid=res-1&set_uuid=" + std::string(c.set));
    ASSERT_EQ(r.status, 200) << c.set;
    EXPECT_EQ(uuids(r.body), c.chain) << c.set;
    for (const char* k : {"vm_disks", "pieces", "storages", "uri", "vm_config_path", "source_size"})
      EXPECT_TRUE(r.body.back().contains(k)) << k;
  }
  EXPECT_EQ(call(HTTP_Method::GET, views + "restore?resource_uuid=res-2&set_uuid=i2").status, 404);
  EXPECT_EQ(call(HTTP_Method::GET, views + "restore?resource_uuid=res-1&set_uuid=zz").status, 404);
  EXPECT_EQ(call(HTTP_Method::GET, views + "nothing?a=b").status, 404);

  Answer by_vm = call(HTTP_Method::GET, sets + "?vm_id=vm-1&host_uuid=cvm-1");
  ASSERT_EQ(by_vm.status, 200);
  EXPECT_EQ(uuids(by_vm.body["rows"]),
            (std::vector<std::string>{"r1", "j1", "f2", "i2", "i1", "f1"}));
  EXPECT_EQ(by_vm.body["rows"][3]["chain"], JSON_Value::array({"f1", "i1", "i2"}));
  EXPECT_EQ(by_vm.body["rows"][3]["storage_size"], 3000);
  EXPECT_EQ(uuids(call(HTTP_Method::GET, sets + "?vm_id=vm-2").body["rows"]),
            std::vector<std::string>{"g1"});
  EXPECT_EQ(call(HTTP_Method::GET, sets + "?host_uuid=cvm-9").body["rows"], JSON_Value::array());

  Answer one = call(HTTP_Method::GET, sets + "?uuid=i1");
  ASSERT_EQ(one.status, 200);
  EXPECT_EQ(one.body["chain"], JSON_Value::array({"f1", "i1"}));
  EXPECT_EQ(one.body["pieces"].size(), 2u);
  EXPECT_EQ(call(HTTP_Method::GET, sets + "?uuid=zz").status, 404);
}

TEST_F(Catalog_Test, EveryRouteNeedsAValidKey) {
  commit(make_set("f1", "", 100));
  JSON_Value set = make_set("f9", "", 900);
  JSON_Value pool = {{"name", "p9"}, {"url", "file:///p9"}};
  struct Route {
    HTTP_Method method;
    std::string target;
    const JSON_Value* body;
  };
  const Route routes[] = {
      {HTTP_Method::GET, pools, nullptr},
      {HTTP_Method::GET, pools + "?uuid=" + pool_uuid, nullptr},
      {HTTP_Method::POST, pools, &pool},
      {HTTP_Method::POST, commit_route, &set},
      {HTTP_Method::GET, views + "base_catalog?resource_uuid=res-1&host_id=cvk-1&vm_id=vm-1",
       nullptr},
      {HTTP_Method::GET, views + "restore?resource_uuid=res-1&set_uuid=f1", nullptr},
      {HTTP_Method::GET, sets, nullptr},
      {HTTP_Method::GET, sets + "?uuid=f1", nullptr},
  };
  const std::string wrong = std::string(64, 'a'), none;
  for (const auto& r : routes) {
    for (const std::string* k : {&wrong, &none}) {
      Answer a = call(r.method, r.target, r.body, k);
      EXPECT_EQ(a.status, 401) << r.target;
      EXPECT_FALSE(a.body.is_array() || (a.body.is_object() && a.body.contains("rows")))
          << r.target;
    }
  }
  // Nothing was stored by the refused requests.
  EXPECT_EQ(call(HTTP_Method::GET, pools).body["rows"].size(), 1u);
  EXPECT_EQ(call(HTTP_Method::GET, sets).body["rows"].size(), 1u);
}

TEST_F(Catalog_Test, HostClientCommitsAndReadsViews) {
  RESTful_Catalog_Operator op("127.0.0.1", port, false, key, -1, 5);
  H3C_CAS_Backup_Set full;
  full.uuid_ = full.base_ = full.incarnation_ = "c1";
  full.backup_type_ = "full";
  full.resource_uuid_ = "res-1";
  full.host_id_ = "cvk-1";
  full.vm_id_ = "vm-1";
  full.cbt_name_ = "cbt-c1";
  full.pool_uuid_ = pool_uuid;
  full.host_uuid_ = "cvm-1";
  full.start_time_ = 100;
  full.vm_config_path_ = "/h/v/vm_config.json";
  full.add_piece(full.vm_config_path_, 0);
  full.add_piece("/h/v/disk_0", 512, "/vms/d.qcow2");
  full.add_storage(pool_uuid, 700, {{"code_name", "reborn"}});
  ASSERT_TRUE(op.commit(full));
  ASSERT_TRUE(op.commit(full));  // a retried commit

  H3C_CAS_Backup_Set inc = full;
  inc.uuid_ = "c2";
  inc.base_ = "c1";
  inc.backup_type_ = "incremental";
  inc.start_time_ = 200;
  ASSERT_TRUE(op.commit(inc));
  inc.uuid_ = "c3";
  inc.base_ = "missing";
  EXPECT_FALSE(op.commit(inc));

  JSON_Value answer;
  ASSERT_TRUE(op.get_view("h3ccas", "base_catalog",
                          {{"resource_uuid", "res-1"}, {"host_id", "cvk-1"}, {"vm_id", "vm-1"}},
                          answer));
  ASSERT_TRUE(answer.is_array());
  EXPECT_EQ(uuids(answer), (std::vector<std::string>{"c2", "c1"}));
  EXPECT_EQ(answer[0]["incarnation"], "c1");
  EXPECT_EQ(answer[0]["cbt_name"], "cbt-c1");
  EXPECT_EQ(answer[0]["pool_uuid"], pool_uuid);

  ASSERT_TRUE(
      op.get_view("h3ccas", "restore", {{"resource_uuid", "res-1"}, {"set_uuid", "c2"}}, answer));
  ASSERT_EQ(uuids(answer), (std::vector<std::string>{"c1", "c2"}));
  const JSON_Value& last = answer.back();
  EXPECT_EQ(last["uri"], "cvm-1");  // defaults to the protected resource's entry
  EXPECT_EQ(last["pieces"][1],
            (JSON_Value{{"object", "/vms/d.qcow2"}, {"size", 512}, {"path", "/h/v/disk_0"}}));
  EXPECT_EQ(Backup_Set_Storage_Selector(last["storages"], 1).pool_uuid(), pool_uuid);
  EXPECT_FALSE(
      op.get_view("h3ccas", "restore", {{"resource_uuid", "res-1"}, {"set_uuid", "c3"}}, answer));

  Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", static_cast<std::uint16_t>(port),
                                                      false, key);
  Pool_Info info;
  ASSERT_TRUE(get_pool_info(Upstream_JSON_RESTful_Client::instance(), pool_uuid, nullptr, info,
                            true, nullptr, 5, -1));
  EXPECT_EQ(info.name, "p1");
  EXPECT_EQ(info.url, "file:///srv/p1");
  Client_IO_Base::Options opts;
  opts.retry_count_ = 7;
  ASSERT_TRUE(set_options_by_pool(opts, info));
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::Lz4);
  EXPECT_EQ(opts.retry_count_, 7);
  EXPECT_FALSE(get_pool_info("no-such-pool", nullptr, info));
  EXPECT_EQ(info.name, "p1");  // untouched by the failed lookup
}

TEST_F(Catalog_Test, HostClientRetriesUntilTheServerIsBack) {
  ASSERT_EQ(server.stop(), 0);
  RESTful_Catalog_Operator once("127.0.0.1", port, false, key, -1, 0);
  JSON_Value answer;
  EXPECT_FALSE(once.get_view("h3ccas", "base_catalog", JSON_Value::object(), answer));
  RESTful_Catalog_Operator short_retry("127.0.0.1", port, false, key, -1, 2);
  EXPECT_FALSE(short_retry.get_view("h3ccas", "base_catalog", JSON_Value::object(), answer));

  // The server comes back on its port while a commit keeps trying.
  RESTful_Catalog_Operator patient("127.0.0.1", port, false, key, -1, 60);
  H3C_CAS_Backup_Set set;
  set.uuid_ = set.base_ = set.incarnation_ = "b1";
  set.backup_type_ = "full";
  set.resource_uuid_ = "res-1";
  set.pool_uuid_ = pool_uuid;
  bool committed = false;
  std::thread client([&] { committed = patient.commit(set); });
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  bool restarted = start("127.0.0.1:" + std::to_string(port));
  client.join();
  ASSERT_TRUE(restarted);
  EXPECT_TRUE(committed);
  EXPECT_EQ(call(HTTP_Method::GET, sets + "?uuid=b1").status, 200);
}

TEST(Storage_Selector, PicksByMode) {
  const JSON_Value storages = JSON_Value::parse(R"([
      "junk", {"size": 5}, {"pool_uuid": "", "size": 9},
      {"pool_uuid": "a", "size": 10}, {"pool_uuid": "b", "size": 30}, {"pool_uuid": "c"}])");
  EXPECT_EQ(Backup_Set_Storage_Selector(storages, 1).pool_uuid(), "a");
  EXPECT_EQ(Backup_Set_Storage_Selector(storages, 2).pool_uuid(), "b");
  EXPECT_EQ(Backup_Set_Storage_Selector(JSON_Value::array(), 1).pool_uuid(), "");
  EXPECT_EQ(Backup_Set_Storage_Selector(JSON_Value::object(), 1).pool_uuid(), "");
}

TEST(Pool_Options, InvalidPoolOptionsLeaveOptionsAlone) {
  Pool_Info info;
  info.io_options = {{"compression", "zlib"}, {"compression_level", 99}};
  Client_IO_Base::Options opts;
  EXPECT_FALSE(set_options_by_pool(opts, info));
  EXPECT_EQ(opts.compression_, Client_IO_Base::Compression::Zstd);
  EXPECT_EQ(opts.compression_level_, 3);
}

}  // namespace
