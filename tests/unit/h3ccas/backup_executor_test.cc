#include "h3ccas/job/backup_executor.h"
#include "h3ccas/job/job_creator.h"
#include "host/catalog/server_api.h"
#include "host/core/identity.h"
#include "host/core/text.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

#include <map>
#include <set>

namespace h3ccas {
namespace {

struct Handler : Job_Event_Handler {
  bool handle_vm_progress(const std::vector<VM_Job_Progress>&, int, bool) override { return true; }
};

struct Probe : Backup_Executor {
  using Backup_Executor::Backup_Executor;
  using Backup_Executor::init, Backup_Executor::resolve_entries, Backup_Executor::resolve_options;
  using Backup_Executor::make_vm_request, Backup_Executor::vm_entries_, Backup_Executor::results_;
  using Backup_Executor::parallel_vms_, Backup_Executor::parallel_vms_per_host_;
  // "1:1a,1b 2:2c": VM ids by CVK id, sorted.
  std::string entries() const {
    std::map<std::string, std::set<std::string>> sorted;
    for (const auto& [host, vms] : vm_entries_)
      for (const auto& vm : vms)
        sorted[host].insert(vm.first);
    std::string out;
    for (const auto& [host, vms] : sorted) {
      out += (out.empty() ? "" : " ") + host + ":";
      for (const auto& vm : vms)
        out += (out.back() == ':' ? "" : ",") + vm;
    }
    return out;
  }
};

JSON_Value vm_json(const std::string& id, const std::string& title, const std::string& host) {
  return {{"id", id},
          {"name", "vm-" + id},
          {"title", title},
          {"vmStatus", "running"},
          {"hostId", host},
          {"hostName", "cvk"},
          {"cpu", "2"},
          {"memory", "2048"},
          {"uuid", "uuid-" + id}};
}

const char* const options_text = R"({"restart_vm":true,"read_buffer_size":1048576,
  "cvd_sdk_log_level":"info","cvd_sdk_network_timeout":5,"compression":"zstd",
  "compression_level":5,"enable_cbt":true,"parallel_vms":8,"parallel_vms_per_host":4})";

// A CVM with CVKs 1 (VMs 1a "web", 1b "db"), 2 (2c, titled as named) and 4 (none); a CVK 3 that
// is not listed cannot list its VMs either. The backup server knows this CVM and pool "pool-1".
class Backup_Executor_Test : public Cas_Peer {
 protected:
  void SetUp() override {
    Cas_Peer::SetUp();
    auto hosts = JSON_Value::array();
    for (const char* id : {"1", "2", "4"})
      hosts.push_back({{"id", id},
                       {"ip", std::string("10.0.0.") + id},
                       {"name", std::string("cvk") + id},
                       {"status", "1"}});
    peer_.set("/cas/casrs/host", Digest_Peer::json(JSON_Value{{"host", hosts}}.dump()));
    auto vms = [&](const std::string& host, JSON_Value list) {
      peer_.set("/cas/casrs/vm/vmList?hostId=" + host + "&sortField=title",
                Digest_Peer::json(JSON_Value{{"domain", list}}.dump()));
    };
    vms("1", {vm_json("1a", "web", "1"), vm_json("1b", "db", "1")});
    vms("2", {vm_json("2c", "vm-2c", "2")});
    vms("4", JSON_Value::array());
    JSON_Value entry = cvm().dump();
    entry["password"] = encrypt_for_agent(cvm_password);
    server_.route(HTTP_Method::GET, server_api::cvm_route,
                  [entry](const HTTP_Server_Request&, HTTP_Server_Response& resp) {
                    resp.body = JSON_Value{{"rows", {entry}}}.dump();
                  });
    server_.route(HTTP_Method::GET, server_api::pool_route,
                  [this](const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
                    if (hold_pool_)
                      hold_pool_();
                    auto uuid = req.query.find("uuid");
                    resp.status = uuid != req.query.end() && uuid->second == "pool-1" ? 200 : 404;
                    // The pool asks for lz4; the job's own compression wins.
                    resp.body = R"({"uuid":"pool-1","name":"pool one","url":"file:///srv/p1",
                                    "io_options":{"compression":"lz4","io_timeout":60}})";
                  });
    ASSERT_TRUE(server_.start(HTTP_Server::Options()));
    Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", server_.port(), false, "k");
    Host_Manager::instance()->set_access_key("agent-key");
    WebSocket_Options::instance()->port = 8443;
  }

  // A backup job of the CVM; `patch` is merged into the definition's options.
  std::shared_ptr<Job> job(const std::string& source, const std::string& patch = "{}",
                           Job_Definition_Subtype subtype = Job_Definition_Subtype::Full,
                           unsigned retry_count = 0) {
    auto def = std::make_shared<Job_Definition>();
    def->uid = "j-1", def->name = "nightly", def->type = 1, def->subtype = subtype;
    def->host_id = "cvm-1", def->agent = "agent-1", def->target_id = "pool-1";
    def->target_name = "pool one", def->retry_count = retry_count, def->max_seconds_retry = 600;
    auto src = std::make_shared<Backup_Source>();
    src->set_value(json(source));
    auto opts = std::make_shared<Backup_Options>();
    JSON_Value o = json(options_text);
    o.merge_patch(json(patch));
    opts->set_value(o);
    def->source = src, def->options = opts;
    auto j = std::make_shared<Backup_Job>(def);
    j->set_event_handler(std::make_shared<Handler>());
    return j;
  }

  std::function<void()> hold_pool_;  // runs when the pool is asked for
  Temp_Dir root_;
  Scoped_Env root_env_{"BRIMLET_ROOT", root_.path()};
  HTTP_Server server_;
};

TEST_F(Backup_Executor_Test, ResolvesEntriesWithExclusions) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // source, VMs, a message it logs
      {R"({"entries":[{"type":"cas"}]})", "1:1a,1b 2:2c",
       "2 VMs are to be backed up on CVK 'cvk1'.\n1 VM is to be backed up on CVK 'cvk2'.\n"},
      {R"({"exclusion":[],"entries":[{"type":"HostSystem","id":"4","name":"cvk4"},
                                      {"type":"HostSystem","id":"2","name":"cvk2"}]})",
       "2:2c", "Unable to back up CVK 'cvk4': no VM found.\n"},
      // By title only, then by the name of a VM titled as named.
      {R"({"exclusion":["we?","vm-2*"],"entries":[{"type":"cas"}]})", "1:1b",
       "VM (name='vm-1a', title='web') is excluded from backup.\n"},
      {R"({"exclusion":["*"],"entries":[{"type":"HostSystem","id":"1","name":"cvk1"}]})", "",
       "All VMs are excluded from backup.\n"},
      {R"({"entries":[{"type":"VirtualMachine","host_id":"1","name":"vm-1b","title":"db",
                       "uuid":"uuid-1b"},{"type":"HostSystem","id":"1","name":"cvk1"}]})",
       "1:1a,1b", "2 VMs are to be backed up on CVK 'cvk1'.\n"},
      {R"({"entries":[{"type":"VirtualMachine","host_id":"1","name":"gone","title":"gone",
                       "uuid":"uuid-9"}]})",
       "", "VM (name='gone', uuid='uuid-9') not found on CVK 'cvk1'.\n"},
      {R"({"entries":[{"type":"VirtualMachine","host_id":"9","name":"x","title":"x",
                       "uuid":"u","id":"9x"}]})",
       "", "CVK(id=9) not found on CAS.\n"},
      {R"({"entries":[{"type":"HostSystem","id":"3","name":"cvk3"}]})", "",
       "Failed to get VMs of CVK 'cvk3'.\n"},
      {R"({"entries":[{"type":"Folder"}]})", "",
       "Invalid type 'Folder' at source.entries in CAS job(uuid=j-1, name=nightly) "
       "definition.\n"},
      {R"({"entries":[{"type":"HostSystem","id":"1"}]})", "",
       "Invalid CAS job(uuid=j-1, name=nightly) definition at source.entries: missing key "
       "'name'.\n"},
  };
  for (const auto& [source, vms, message] : cases) {
    auto j = job(source);
    Probe e(*j);
    Log_Capture log;
    ASSERT_TRUE(e.init());
    EXPECT_EQ(e.resolve_entries(), *vms != 0) << source;
    EXPECT_EQ(e.entries(), vms) << source;
    EXPECT_NE(messages(log).find(message), std::string::npos) << source << "\n" << messages(log);
  }
}

TEST_F(Backup_Executor_Test, RefusesBadOptionsOnce) {
  auto invalid = [](const char* value, const char* option) {
    return string_sprintf("Invalid value '%s' of option '%s' of CAS job(uuid=j-1, name=nightly).\n",
                          value, option);
  };
  const std::tuple<const char*, Job_Definition_Subtype, unsigned, std::string> cases[] = {
      {R"({"parallel_vms":65})", Job_Definition_Subtype::Full, 0, invalid("65", "parallel_vms")},
      {R"({"parallel_disks_per_vm":0})", Job_Definition_Subtype::Full, 0,
       invalid("0", "parallel_disks_per_vm")},
      {R"({"parallel_workers_per_disk":6})", Job_Definition_Subtype::Full, 0,
       invalid("6", "parallel_workers_per_disk")},
      {"{}", Job_Definition_Subtype::Full, 11, invalid("11", "backup_retry_count")},
      {R"({"read_buffer_size":69633})", Job_Definition_Subtype::Full, 0,
       invalid("69633", "read_buffer_size")},
      {R"({"cvd_sdk_log_level":"Info"})", Job_Definition_Subtype::Full, 0,
       invalid("Info", "cvd_sdk_log_level")},
      {R"({"cvd_sdk_network_timeout":0})", Job_Definition_Subtype::Full, 0,
       invalid("0", "cvd_sdk_network_timeout")},
      // An unknown method is zstd, whose levels end at 22.
      {R"({"compression":"brotli","compression_level":23})", Job_Definition_Subtype::Full, 0,
       invalid("23", "compression_level")},
      {R"({"no_cbt":"Skip"})", Job_Definition_Subtype::Incremental, 0, invalid("Skip", "no_cbt")},
      {R"({"restart_vm":null})", Job_Definition_Subtype::Full, 0,
       "Invalid options in CAS backup job(uuid=j-1, name=nightly) definition: missing key "
       "'restart_vm'.\n"},
      {R"({"enable_cbt":null})", Job_Definition_Subtype::Full, 0,
       "Invalid options in CAS backup job(uuid=j-1, name=nightly) definition: missing key "
       "'enable_cbt'.\n"},
  };
  for (const auto& [patch, subtype, retries, message] : cases) {
    auto j = job(R"({"entries":[{"type":"cas"}]})", patch, subtype, retries);
    Probe e(*j);
    ASSERT_TRUE(e.init() && e.resolve_entries());
    Log_Capture log;
    EXPECT_FALSE(e.resolve_options()) << patch;
    EXPECT_EQ(log.count(LM_ERROR), 1u) << log.text();
    EXPECT_NE(messages(log).find(message), std::string::npos) << patch << "\n" << messages(log);
  }
}

// What the servant of VM 1a receives: the job's options over the pool's, the CVK's management
// address for disk data, and the clamped parallelism.
TEST_F(Backup_Executor_Test, BuildsTheServantRequest) {
  auto j = job(R"({"entries":[{"type":"HostSystem","id":"1","name":"cvk1"}]})",
               R"({"compression_level":null,"parallel_vms":3,"no_cbt":"skip"})",
               Job_Definition_Subtype::Incremental);
  Probe e(*j);
  ASSERT_TRUE(e.init() && e.resolve_entries() && e.resolve_options());
  EXPECT_EQ(std::tuple(e.parallel_vms_, e.parallel_vms_per_host_), std::tuple(2, 2));
  JSON_Value request;
  ASSERT_TRUE(e.make_vm_request(*e.vm_entries_["1"]["1a"], request));
  JSON_Value expected = json(R"({"action":"backup","access_key":"agent-key",
    "backup_type":"incremental","backupd_host":"127.0.0.1","backupd_port":8443,
    "backupd_ssl":false,"catalog":{"agent":"agent-1","host_uuid":"cvm-1",
    "instance_version":"E0750","name":"nightly","pool_uuid":"pool-1"},
    "cvd_target_addr":"10.0.0.1","def_id":"j-1","enable_cbt":true,"host_id":"1",
    "host_ip":"10.0.0.1","host_name":"cvk1","no_cbt":1,"parallel_disks_per_vm":1,
    "parallel_workers_per_disk":1,"pool_url":"file:///srv/p1/cvm-1","read_buffer_size":1048576,
    "resource_uuid":"cvm-1","restart_vm":true,"retry_seconds":600,
    "storage_reserved_bytes":107374182400,"storage_reserved_percent":10,"vm_id":"1a",
    "vm_name":"vm-1a","vm_title":"web","vm_uuid":"uuid-1a"})");
  expected["cvm"] = cvm().dump();
  Client_IO_Base::Options io;
  io.compression_ = Client_IO_Base::Compression::Zstd;
  io.io_timeout_ = 60;
  io >> expected["io_opts"];
  EXPECT_EQ(request.dump(1), expected.dump(1));
  EXPECT_EQ(request["io_opts"]["compression"], "zstd");
}

TEST_F(Backup_Executor_Test, CountsServantResults) {
  auto j = job(R"({"entries":[{"type":"cas"}]})");
  Probe e(*j);
  for (const char* vm : {"a", "b", "c", "d", "e"})
    ASSERT_TRUE(e.results_.add(vm, {}));
  auto reply = [](const char* result) {
    auto r = std::make_shared<JSON_RPC_Response>(1);
    r->set_result(json(result));
    return r;
  };
  Log_Capture log;
  const std::vector<int> codes = {
      e.handle_vm_result("a", reply(R"({"code":0,"storage_size":1,"source_size":20,
                                          "set_size":300,"vm_id":"a"})")),
      e.handle_vm_result("b", reply(R"({"code":3})")),
      e.handle_vm_result("c", reply(R"({"code":0,"storage_size":1,"source_size":2,
                                          "vm_id":"c"})")),
      e.handle_vm_result("d", nullptr),
      (j->state_i(JOB_STOPPED), e.handle_vm_result("e", reply(R"({"code":3})")))};
  EXPECT_EQ(codes, (std::vector<int>{0, 2, 1, 1, 1}));
  EXPECT_TRUE(
      log.contains("Unrecognized CAS VM backup response: "
                   "{\"code\":0,\"source_size\":2,\"storage_size\":1,\"vm_id\":\"c\"}.\n"))
      << log.text();
  EXPECT_EQ(std::tuple(e.results_.succeeded(), e.results_.storage_size(), e.results_.source_size(),
                       e.results_.set_size()),
            std::tuple(1, 1ull, 20ull, 300ull));
}

// No servant can back up here: each VM fails on its own, the others still run, the job fails and
// its record says so.
TEST_F(Backup_Executor_Test, FailedServantsFailTheJob) {
  auto j = job(R"({"entries":[{"type":"cas"}]})");
  Log_Capture log;
  ASSERT_EQ(j->start(), 0);
  j->wait();
  EXPECT_EQ(j->state(), JOB_FAILED);
  EXPECT_TRUE(log.contains("CAS VM backup result (succeeded/total): 0/3.\n")) << log.text();
  EXPECT_EQ(log.count(LM_EMERGENCY), 3u) << log.text();  // no response, once per VM
  JSON_Value result = j->result()["h3c-cas"];
  ASSERT_EQ(result.size(), 3u) << result;
  for (const auto& vm : result)
    EXPECT_FALSE(vm["succeed"].get<bool>()) << vm;
  const Job_Activity* act = j->activity().get();
  ASSERT_TRUE(act);
  EXPECT_EQ(std::tuple(act->stored_size, act->set_size, act->source_size),
            std::tuple(0ull, 0ull, 0ull));
  EXPECT_GT(act->last_run_time, 0);
}

}  // namespace
}  // namespace h3ccas

namespace h3ccas {
namespace {

// A stop while the job resolves its options ends it cancelled before any servant starts.
TEST_F(Backup_Executor_Test, StopBeforeServantsCancels) {
  auto j = job(R"({"entries":[{"type":"cas"}]})");
  hold_pool_ = [&j] { EXPECT_EQ(j->stop(), 0); };
  Log_Capture log;
  ASSERT_EQ(j->start(), 0);
  j->wait();
  EXPECT_EQ(j->state(), JOB_STOPPED);
  EXPECT_EQ(log.text().find("servant"), std::string::npos) << log.text();
}

}  // namespace
}  // namespace h3ccas
