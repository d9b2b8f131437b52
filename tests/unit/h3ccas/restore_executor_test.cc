#include "h3ccas/job/job_creator.h"
#include "host/catalog/server_api.h"
#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {

struct Handler : Job_Event_Handler {
  bool handle_vm_progress(const std::vector<VM_Job_Progress>&, int, bool) override { return true; }
};

struct Probe : Restore_Executor {
  using Restore_Executor::resolve_entries, Restore_Executor::resolve_options,
      Restore_Executor::vm_entries_, Restore_Executor::make_vm_request,
      Restore_Executor::validate_vm_name, Restore_Executor::servant_run;
  using Restore_Executor::Restore_Executor, Restore_Executor::init, Restore_Executor::results_;
};

const char new_vm[] = R"({"source_host_id":"1","source_host_name":"cvk1","source_vm_id":"7",
  "source_vm_name":"web","timepoint":"t","catalog_uuid":"set-1","target_host_id":"2",
  "target_host_ip":"10.0.0.2","target_host_name":"cvk2","target_vm_name":"Web01","cpu_count":0,
  "cpu_cores":0,"memory_mbytes":0,"networks":[],"disks":[{"source_path":"/a","target_pool_name":
  "p","target_pool_path":"/p","target_pool_type":"dir","provisioning_mode":"2"}]})";

// CVKs 1 and 2; a VM "web01" runs on CVK 1.
class Restore_Executor_Test : public Cas_Peer {
 protected:
  void SetUp() override {
    Cas_Peer::SetUp();
    peer_.set("/cas/casrs/host", Digest_Peer::json(R"({"host":[{"id":"1","ip":"10.0.0.1",
      "name":"cvk1","status":"1"},{"id":"2","ip":"10.0.0.2","name":"cvk2","status":"1"}]})"));
    peer_.set("/cas/casrs/vm/vmList?sortField=title",
              Digest_Peer::json(R"({"domain":{"hostName":"cvk1","vmStatus":"running","cpu":"2",
      "memory":"2","id":"9","name":"web01","title":"web01","uuid":"u9","hostId":"1"}})"));
    JSON_Value entry = cvm().dump();
    entry["password"] = encrypt_for_agent(cvm_password);
    server_.route(HTTP_Method::GET, server_api::cvm_route, [entry](Req, Res resp) {
      resp.body = JSON_Value{{"rows", {entry}}}.dump();
    });
    ASSERT_TRUE(server_.start(HTTP_Server::Options()));
    Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", server_.port(), false, "k");
  }
  // A restore job of one entry; `source` and `options` are merged into the defaults, the
  // source's "entry" into the entry.
  std::shared_ptr<Job> job(const S& source, const S& options = "{}") {
    JSON_Value s = json(source), entry = json(new_vm), o = json(R"({"write_buffer_size":4194304,
      "cvd_sdk_log_level":"info","cvd_sdk_network_timeout":10,"start_vm":false,
      "original_restore":false,"overwrite_vm":false})");
    entry.merge_patch(s.value("entry", JSON_Value::object())), s.erase("entry");
    s["entries"] = {entry};
    o.merge_patch(json(options));
    auto def = std::make_shared<Job_Definition>();
    def->uid = "j-1", def->name = "nightly", def->type = 2, def->host_id = "cvm-1";
    def->retry_count = 7, def->retry_interval = 60;
    def->source = std::make_shared<Restore_Source>(), def->source->set_value(s);
    def->options = std::make_shared<Restore_Options>(), def->options->set_value(o);
    auto j = std::make_shared<Restore_Job>(def);
    j->set_event_handler(std::make_shared<Handler>());
    return j;
  }
  Temp_Dir root_;
  Scoped_Env root_env_{"BRIMLET_ROOT", root_.path()};
  HTTP_Server server_;
};

TEST_F(Restore_Executor_Test, ResolvesEntriesChecksOptionsInOrderAndRetriesAtOnce) {
  const std::tuple<const char*, const char*, S> cases[] = {
      // source, options (null: removed), the last message ("": resolved)
      {R"({"entry":{"target_vm_name":null}})", "{}",
       "Invalid CAS job definition at options or source.entries: missing key 'target_vm_name'\n"},
      // A verify needs no target, no name check and none of the restore's switches.
      {R"({"verify":true,"entry":{"target_host_id":null,"disks":null}})",
       R"({"start_vm":null,"original_restore":null,"overwrite_vm":null})", ""},
      {"{}", R"({"original_restore":true})", "nightly) definition: missing key 'reserve_mac'.\n"},
      {"{}", R"({"start_vm":null})", "nightly) definition: missing key 'start_vm'.\n"},
      {"{}", R"({"write_buffer_size":69633,"parallel_vms":65})", "69633' of option 'write_buf"},
      {"{}", R"({"parallel_vms":65,"parallel_disks_per_vm":6})", "65' of option 'parallel_vms'"},
      {"{}", R"({"parallel_disks_per_vm":6,"cvd_sdk_log_level":"x"})", "6' of option 'parallel_d"},
      {"{}", R"({"cvd_sdk_log_level":"x","cvd_sdk_network_timeout":0})", "x' of option 'cvd_sdk_l"},
      {"{}", R"({"cvd_sdk_network_timeout":0})", "0' of option 'cvd_sdk_network_timeout' of CAS"},
  };
  for (const auto& [source, options, message] : cases) {
    auto j = job(source, options);
    Probe e(*j);
    Log_Capture log;
    const bool ok = e.init() && e.resolve_entries() && e.resolve_options();
    EXPECT_EQ(e.servant_run().retry_count * 100 + e.servant_run().retry_interval, 300);
    EXPECT_EQ(ok, message.empty()) << source << options;
    EXPECT_EQ(log.count(LM_ERROR), message.empty() ? 0u : 1u) << log.text();
    EXPECT_NE(messages(log).find(message), S::npos) << messages(log);
  }
}

// Web01 is taken by web01 unless the job overwrites it; a verify keeps its source's names.
TEST_F(Restore_Executor_Test, ChecksTargetNamesAndBuildsRequests) {
  for (const char* patch : {"{}", R"({"overwrite_vm":true})", R"({"verify":true})"}) {
    const bool verify = S(patch).find("verify") != S::npos;
    auto j = job(verify ? patch : "{}", verify ? "{}" : patch);
    Probe e(*j);
    ASSERT_TRUE(e.init() && e.resolve_entries() && e.resolve_options());
    JSON_Value r;
    auto& vm = *e.vm_entries_[verify ? "1" : "2"].at(0);
    const bool named = verify || e.validate_vm_name(vm);
    EXPECT_EQ(named, S(patch) != "{}") << patch;
    ASSERT_TRUE(e.make_vm_request(vm, r));
    EXPECT_EQ(JSON_Value({r["action"], r["target_vm_name"], r["existing_vm_id"],
                          r["cvd_target_addr"], r["bak_resource_uuid"], r["def_id"]})
                  .dump(),
              verify ? R"(["verify","web","","","cvm-1","j-1"])"
                     : S(R"(["restore","Web01",")") + (named ? "9" : "") +
                           R"(","10.0.0.2","cvm-1","j-1"])");
  }
}

// Web01 is refused: no servant starts, and the job fails. A verify checks no name.
TEST_F(Restore_Executor_Test, RefusedNamesFailTheJob) {
  for (const char* source : {"{}", R"({"verify":true,"entry":{"source_vm_name":"Web01"}})"}) {
    const bool verify = source[1] == '"';
    Log_Capture log;
    auto j = job(source);
    ASSERT_EQ(j->start(), 0);
    j->wait();
    EXPECT_EQ(j->state(), JOB_FAILED);
    EXPECT_TRUE(
        log.contains(S(verify ? "verify" : "restore") + " result (succeeded/total): 0/1.\n"));
    EXPECT_EQ(log.contains("CAS VM 'Web01', the case insensitive name has been used.\n"), !verify);
    EXPECT_EQ(log.text().find("servant") != S::npos, verify) << log.text();
    EXPECT_EQ(j->result()["h3c-cas"].dump(),
              R"([{"host":")" + S(verify ? "" : "10.0.0.2") +
                  R"(","name":"Web01","set_size":0,"size":0,"storaged_size":0,"succeed":false,)"
                  R"("uuid":"7"}])");
  }
}

}  // namespace
}  // namespace h3ccas
