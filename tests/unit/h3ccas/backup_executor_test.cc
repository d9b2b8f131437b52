#include "h3ccas/job/defs.h"
#include "h3ccas/job/executor_base.h"
#include "h3ccas/job/job_creator.h"
#include "h3ccas/job/progress_reporter.h"
#include "host/catalog/server_api.h"
#include "host/core/identity.h"
#include "host/job/runs.h"
#include "host/module/module.h"
#include "tests/unit/h3ccas/support.h"
#include "tests/unit/job/test_job.h"

#include <algorithm>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>

namespace h3ccas {
namespace {

struct Handler : Job_Event_Handler {
  bool handle_vm_progress(const std::vector<VM_Job_Progress>&, int, bool) override { return true; }
};

struct Probe : Backup_Executor {
  using Backup_Executor::Backup_Executor, Backup_Executor::init, Backup_Executor::resolve_entries;
  using Backup_Executor::resolve_options, Backup_Executor::make_vm_request;
  using Backup_Executor::vm_entries_, Backup_Executor::results_, Backup_Executor::parallel_vms_;
  S entries() const {  // "1/1a 1/1b 2/2c ": CVK/VM
    std::set<S> all;
    for (const auto& [host, vms] : vm_entries_)
      for (const auto& vm : vms)
        all.insert(host + "/" + vm.first + " ");
    return std::accumulate(all.begin(), all.end(), S());
  }
};

// A CVM with CVKs 1 (VMs 1a "web", 1b "db"), 2 (2c, titled as named) and 4 (none); an unlisted
// CVK 3 cannot list its VMs. The backup server knows this CVM and pool "pool-1".
class Backup_Executor_Test : public Cas_Peer {
 protected:
  void SetUp() override {
    Cas_Peer::SetUp();
    JSON_Value hosts = JSON_Value::array();
    for (S id : {"1", "2", "4"})
      hosts.push_back({{"id", id}, {"ip", "10.0.0." + id}, {"name", "cvk" + id}, {"status", "1"}});
    peer_.set("/cas/casrs/host", Digest_Peer::json(JSON_Value{{"host", hosts}}.dump()));
    auto vm = [](const S& id, const S& title) {
      return R"({"hostName":"cvk","vmStatus":"running","cpu":"2","memory":"2","id":")" + id +
             R"(","name":"vm-)" + id + R"(","title":")" + title + R"(","uuid":"uuid-)" + id +
             R"(","hostId":")" + id.substr(0, 1) + "\"}";
    };
    for (const auto& [host, list] : {std::pair<S, S>{"1", vm("1a", "web") + "," + vm("1b", "db")},
                                     {"2", vm("2c", "vm-2c")},
                                     {"4", ""}})
      peer_.set("/cas/casrs/vm/vmList?hostId=" + host + "&sortField=title",
                Digest_Peer::json(R"({"domain":[)" + list + "]}"));
    JSON_Value entry = cvm().dump();
    entry["password"] = encrypt_for_agent(cvm_password);
    server_.route(HTTP_Method::GET, server_api::cvm_route, [entry](Req, Res resp) {
      resp.body = JSON_Value{{"rows", {entry}}}.dump();
    });
    server_.route(HTTP_Method::GET, server_api::pool_route, [this](Req req, Res resp) {
      if (hold_pool_)
        hold_pool_();
      resp.status = req.query.at("uuid") == "pool-1" ? 200 : 404;
      // The pool asks for zstd at a level lz4 would not take.
      resp.body = R"({"uuid":"pool-1","name":"p","url":"file:///srv/p1",
                                    "io_options":{"compression":"zstd","compression_level":19,
                                    "io_timeout":60}})";
    });
    ASSERT_TRUE(server_.start(HTTP_Server::Options()));
    Upstream_JSON_RESTful_Client::instance()->configure("127.0.0.1", server_.port(), false, "k");
    Host_Manager::instance()->set_access_key("agent-key");
    WebSocket_Options::instance()->port = 8443;
  }
  // A backup job of the CVM; `patch` is merged into its options, and its "def" member gives the
  // definition's "subtype" and "retry_count".
  std::shared_ptr<Job> job(const S& source, const S& patch = "{}") {
    JSON_Value o = json(R"({"restart_vm":true,"read_buffer_size":1048576,"compression":"zstd",
      "cvd_sdk_log_level":"info","cvd_sdk_network_timeout":5,"compression_level":5,
      "enable_cbt":true,"parallel_vms":8,"parallel_vms_per_host":4,"def":{}})");
    o.merge_patch(json(patch));
    auto def = std::make_shared<Job_Definition>();
    def->uid = "j-1", def->name = "nightly", def->type = 1, def->host_id = "cvm-1";
    def->agent = "agent-1", def->target_id = "pool-1", def->max_seconds_retry = 600;
    const S subtype = o["def"].value("subtype", "full");
    def->subtype = job_def_subtype_from_string(subtype.c_str(), subtype.size());
    def->retry_count = o["def"].value("retry_count", 0u), o.erase("def");
    auto src = std::make_shared<Backup_Source>();
    auto opts = std::make_shared<Backup_Options>();
    src->set_value(json(source)), opts->set_value(o), def->source = src, def->options = opts;
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
  const char* const host1 = R"({"type":"HostSystem","id":"1","name":"cvk1"})";
  const S vm = R"({"type":"VirtualMachine","name":"n","title":"t",)";
  const std::tuple<S, const char*, const char*> cases[] = {
      // source, VMs, a message it logs
      {R"({"entries":[{"type":"cas"}]})", "1/1a 1/1b 2/2c ",
       "2 VMs are to be backed up on CVK 'cvk1'.\n1 VM is to be backed up on CVK 'cvk2'.\n"},
      {R"({"exclusion":[],"entries":[{"type":"HostSystem","id":"4","name":"cvk4"}]})", "",
       "Unable to back up CVK 'cvk4': no VM found.\nAll VMs are excluded from backup.\n"},
      // By title only, then by the name of a VM titled as named.
      {R"({"exclusion":["we?","vm-2*"],"entries":[{"type":"cas"}]})", "1/1b ",
       "VM (name='vm-1a', title='web') is excluded from backup.\n"},
      {R"({"entries":[)" + vm + R"("host_id":"1","uuid":"uuid-1b"},)" + host1 + "]}", "1/1a 1/1b ",
       "2 VMs are to be backed up on CVK 'cvk1'.\n"},
      {R"({"entries":[)" + vm + R"("host_id":"1","uuid":"uuid-9"}]})", "",
       "VM (name='n', uuid='uuid-9') not found on CVK 'cvk1'.\n"},
      {R"({"entries":[)" + vm + R"("host_id":"9","uuid":"u","id":"9x"}]})", "",
       "CVK(id=9) not found on CAS.\n"},
      {R"({"entries":[{"type":"HostSystem","id":"3","name":"cvk3"}]})", "",
       "Failed to get VMs of CVK 'cvk3'.\n"},
      {R"({"entries":[{"type":"Folder"}]})", "",
       "Invalid type 'Folder' at source.entries in CAS job(uuid=j-1, name=nightly) definition.\n"},
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
    EXPECT_NE(messages(log).find(message), S::npos) << source << "\n" << messages(log);
  }
}

TEST_F(Backup_Executor_Test, RefusesBadOptionsOnce) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // options, the value and option refused (no value: the key is missing)
      {R"({"parallel_vms":65})", "65", "parallel_vms"},
      {R"({"parallel_disks_per_vm":0})", "0", "parallel_disks_per_vm"},
      {R"({"parallel_workers_per_disk":6})", "6", "parallel_workers_per_disk"},
      {R"({"def":{"retry_count":11}})", "11", "backup_retry_count"},
      {R"({"read_buffer_size":69633})", "69633", "read_buffer_size"},
      {R"({"cvd_sdk_log_level":"Info"})", "Info", "cvd_sdk_log_level"},
      {R"({"cvd_sdk_network_timeout":0})", "0", "cvd_sdk_network_timeout"},
      // An unknown method is zstd, whose levels end at 22.
      {R"({"compression":"brotli","compression_level":23})", "23", "compression_level"},
      {R"({"no_cbt":"Skip","def":{"subtype":"incremental"}})", "Skip", "no_cbt"},
      {R"({"restart_vm":null})", nullptr, "restart_vm"},
  };
  for (const auto& [patch, value, option] : cases) {
    auto j = job(R"({"entries":[{"type":"cas"}]})", patch);
    Probe e(*j);
    ASSERT_TRUE(e.init() && e.resolve_entries());
    Log_Capture log;
    EXPECT_FALSE(e.resolve_options()) << patch;
    const S j1 = "CAS job(uuid=j-1, name=nightly)";
    EXPECT_EQ(messages(log).substr(messages(log).find('\n') + 1),
              value ? "Invalid value '" + S(value) + "' of option '" + option + "' of " + j1 + ".\n"
                    : "Invalid options in CAS backup job(uuid=j-1, name=nightly) definition: "
                      "missing key '" +
                          S(option) + "'.\n");
  }
}

// What the servant of VM 1a gets: the job's compression over the pool's (at the default level, the
// pool's being for another method), the CVK's management
// address for disk data, the policy as its number; the parallel VMs are cut to the VM count.
TEST_F(Backup_Executor_Test, BuildsTheServantRequest) {
  auto j = job(R"({"entries":[{"type":"HostSystem","id":"1","name":"cvk1"}]})",
               R"({"compression":"lz4","compression_level":null,"no_cbt":"skip",
                  "def":{"subtype":"incremental"}})");
  Probe e(*j);
  ASSERT_TRUE(e.init() && e.resolve_entries() && e.resolve_options());
  EXPECT_EQ(e.parallel_vms_, 2);
  JSON_Value request, expected = json(R"({"action":"backup","access_key":"agent-key",
    "backup_type":"incremental","backupd_host":"127.0.0.1","backupd_port":8443,
    "backupd_ssl":false,"catalog":{"agent":"agent-1","host_uuid":"cvm-1",
    "instance_version":"E0750","name":"nightly","pool_uuid":"pool-1"},
    "cvd_target_addr":"10.0.0.1","def_id":"j-1","enable_cbt":true,"host_id":"1",
    "host_ip":"10.0.0.1","host_name":"cvk1","no_cbt":1,"parallel_disks_per_vm":1,
    "parallel_workers_per_disk":1,"pool_url":"file:///srv/p1/cvm-1","read_buffer_size":1048576,
    "resource_uuid":"cvm-1","restart_vm":true,"retry_seconds":600,
    "storage_reserved_bytes":107374182400,"storage_reserved_percent":10,"vm_id":"1a",
    "vm_name":"vm-1a","vm_title":"web","vm_uuid":"uuid-1a"})");
  ASSERT_TRUE(e.make_vm_request(*e.vm_entries_["1"]["1a"], request));
  expected["cvm"] = cvm().dump();
  Client_IO_Base::Options io;
  io.io_timeout_ = 60, io.compression_ = Client_IO_Base::Compression::Lz4;
  io.compression_level_ = 1;
  io >> expected["io_opts"];
  EXPECT_EQ(request.dump(1), expected.dump(1));
}

TEST_F(Backup_Executor_Test, CountsServantResults) {
  auto j = job(R"({"entries":[{"type":"cas"}]})");
  Probe e(*j);
  auto result = [&](const char* vm, const char* text) {
    EXPECT_TRUE(e.results_.add(vm, {}));
    auto r = text ? std::make_shared<JSON_RPC_Response>(1) : nullptr;
    if (r)
      r->set_result(json(text));
    return e.handle_vm_result(vm, r);
  };
  const char* unrecognized = R"({"code":0,"source_size":2,"storage_size":1,"vm_id":"c"})";
  Log_Capture log;
  const std::vector<int> codes = {
      result("a", R"({"code":0,"storage_size":1,"source_size":20,"set_size":300,"vm_id":"a",)"
                  R"("backup_type":"full"})"),
      result("b", R"({"code":3})"), result("c", unrecognized), result("d", nullptr),
      // Damaged objects read the same on another try.
      result("f", R"({"code":1,"bad_objects":[{"object":"o"}]})"),
      (j->state_i(JOB_STOPPED), result("e", R"({"code":3})"))};
  EXPECT_EQ(codes, (std::vector<int>{0, 2, 1, 1, 1, 1}));
  EXPECT_TRUE(log.contains("Unrecognized CAS VM backup response: " + S(unrecognized)));
  EXPECT_EQ(std::tuple(e.results_.succeeded(), e.results_.storage_size(), e.results_.source_size(),
                       e.results_.set_size()),
            std::tuple(1, 1ull, 20ull, 300ull));
  // The job's result lists damaged objects, and the backup each VM made.
  S bad;
  for (const auto& vm : e.results_.eject())
    bad += (vm.contains("bad_objects") ? vm["uuid"].get<S>() + vm["bad_objects"].dump() : "") +
           vm.value("type", "");
  EXPECT_EQ(bad, R"(f[{"object":"o"}]full)");
}

// No servant can back up here: each VM fails on its own, the others still run, the job fails and
// its record says so. A job stopped while it resolves starts no servant.
TEST_F(Backup_Executor_Test, FailedServantsFailTheJobAndStopsCancelIt) {
  auto j = job(R"({"entries":[{"type":"cas"}]})");
  Log_Capture log;
  ASSERT_EQ(j->start(), 0);
  j->wait();
  EXPECT_EQ(j->state(), JOB_FAILED);
  EXPECT_TRUE(log.contains("CAS VM backup result (succeeded/total): 0/3.\n")) << log.text();
  // Why each VM failed is said once, where its servant was seen to fail (it may end before or
  // after it is sent the request).
  EXPECT_EQ(std::tuple(log.count(LM_ERROR), log.count(LM_EMERGENCY)), std::tuple(3u, 0u))
      << log.text();
  S outcomes;
  const JSON_Value result = j->result();
  for (const auto& vm : result["h3c-cas"])
    outcomes += vm["succeed"].dump() + " ";
  EXPECT_EQ(outcomes, "false false false ");
  const Job_Activity* act = j->activity().get();
  ASSERT_TRUE(act);
  EXPECT_EQ(std::tuple(act->stored_size, act->set_size, act->source_size, act->last_run_time > 0),
            std::tuple(0ull, 0ull, 0ull, true));
  auto stopped = job(R"({"entries":[{"type":"cas"}]})");
  hold_pool_ = [&stopped] { EXPECT_EQ(stopped->stop(), 0); };
  Log_Capture log2;
  ASSERT_EQ(stopped->start(), 0);
  stopped->wait();
  EXPECT_EQ(stopped->state(), JOB_STOPPED);
  EXPECT_EQ(log2.text().find("servant"), S::npos) << log2.text();
}

using job_test::g_cv, job_test::g_mutex;
std::vector<S> g_events;  // "<uid> body", "<uid> waits"
void note(const S& event) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_events.push_back(event);
  g_cv.notify_all();
}

// Job "hold" keeps its CVM until it is stopped; job "bad" has an invalid option.
struct Test_Executor : Executor_Base<job_test::Test_Source, job_test::Test_Options> {
  using Executor_Base::Executor_Base;
  bool init() override { return true; }
  bool resolve_entries() override { return true; }
  bool resolve_options() override {
    return check_compression_level(1, def_->uid == "bad" ? 23 : 0);
  }
  bool run_vms(const Job_Args*) override {
    note(def_->uid + " body");
    if (def_->uid == "hold")
      job_.wait_state(std::chrono::hours(1), [](int s) { return s == JOB_STOPPED; });
    return !is_canceled();
  }
};

TEST(Executor_Base, JobsOfOneCvmRunOneAtATime) {
  g_events.clear();
  Temp_Dir root;
  Scoped_Env root_env("BRIMLET_ROOT", root.path());
  std::vector<std::shared_ptr<Job>> jobs;
  auto run = [&](const S& uid, const S& cvm, const S& awaited) {
    auto def = std::make_shared<Job_Definition>();
    def->uid = uid, def->type = 1, def->host_id = cvm;
    def->source = std::make_shared<job_test::Test_Source>();
    jobs.push_back(std::make_shared<Controllable_Job_T<Test_Executor>>(def));
    jobs.back()->set_event_handler(std::make_shared<Handler>());
    jobs.back()->set_log_callback([uid](const S& line) {
      if (line.find("Waiting for other jobs of this CAS(cvm-1) to be completed.\n") != line.npos)
        note(uid + " waits");
      if (line.find("Invalid value '23' of option 'compression_level'") != line.npos)
        note(uid + " refused");
    });
    ASSERT_EQ(jobs.back()->start(), 0);
    if (awaited.empty())
      return jobs.back()->wait();
    std::unique_lock<std::mutex> lock(g_mutex);
    g_cv.wait(lock, [&] { return std::count(g_events.begin(), g_events.end(), awaited) > 0; });
  };
  run("hold", "cvm-1", "hold body");
  run("second", "cvm-1", "second waits");
  run("other-cvm", "cvm-2", "other-cvm body");
  // Stopped while it waits, the second job ends without its body.
  for (int i : {1, 0}) {
    ASSERT_EQ(jobs[i]->stop(), 0);
    jobs[i]->wait();
  }
  run("bad", "cvm-1", "");
  run("next", "cvm-1", "next body");
  for (auto& job : jobs)
    job->wait();
  EXPECT_EQ(g_events, (std::vector<S>{"hold body", "second waits", "other-cvm body", "bad refused",
                                      "next body"}));
  std::vector<int> states;
  for (auto& job : jobs)
    states.push_back(job->state());
  EXPECT_EQ(states,
            (std::vector<int>{JOB_STOPPED, JOB_STOPPED, JOB_SUCCEEDED, JOB_FAILED, JOB_SUCCEEDED}));
}

TEST(Executor_Base, OptionChecks) {
  Job_Definition d;
  d.uid = "j-1", d.name = "nightly";
  // "check value taken": b buffer size, l log level, 1-4 level for that compression, r retries
  const char* const rows[] = {"b 65536 1", "b 8388608 1", "b 69632 1", "b 65535 0", "b 8392704 0",
                              "b 69633 0", "b -65536 0",  "l debug 1", "l info 1",  "l warn 1",
                              "l error 1", "l Info 0",    "1 22 1",    "1 0 1",     "2 12 1",
                              "4 30 1",    "1 23 0",      "2 13 0",    "3 10 0",    "1 -1 0",
                              "r 10 1",    "r 11 0",      "r -1 0"};
  for (const char* row : rows) {
    std::istringstream in(row);
    S check, value;
    bool ok;
    in >> check >> value >> ok;
    const int n = std::atoi(value.c_str());
    const char* option = check == "b"   ? "read_buffer_size"
                         : check == "l" ? "cvd_sdk_log_level"
                         : check == "r" ? "retry_count"
                                        : "compression_level";
    Log_Capture log;
    EXPECT_EQ(check == "b"   ? check_buffer_size(d, n, option)
              : check == "l" ? check_cvd_sdk_log_level(d, value)
              : check == "r" ? check_range(d, n, option, 0, 10)
                             : check_compression_level(d, std::stoi(check), n),
              ok)
        << row;
    EXPECT_EQ(messages(log), ok ? ""
                                : "Invalid value '" + value + "' of option '" + option +
                                      "' of CAS job(uuid=j-1, name=nightly).\n");
    EXPECT_EQ(log.count(LM_ERROR), ok ? 0u : 1u);
  }
}

// Result handlers record VMs while a servant's disk workers count their progress.
TEST(Executor_Base, ConcurrentUpdatesAddUp) {
  VM_Results results;
  VM_Progress_Info progress{};
  constexpr int threads = 4, vms = 4000;
  for (int i = 0; i < vms; ++i)
    ASSERT_TRUE(results.add(std::to_string(i), {"cvk-1", "n", 0, 0, 0, false}));
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] {
      for (int chunk = 0; chunk < 1000000; ++chunk)
        progress.add_processed_size(256);
      for (int i = t; i < vms; i += threads) {  // odd VMs fail
        EXPECT_TRUE(results.record(std::to_string(i), i % 2 == 0, 1, 2, 3));
        progress.add_processed_virtual_disk();
      }
    });
  for (auto& t : pool)
    t.join();
  EXPECT_EQ(std::tuple(results.succeeded(), results.storage_size(), results.source_size(),
                       results.set_size()),
            std::tuple(vms / 2, vms / 2 * 1ull, vms / 2 * 2ull, vms / 2 * 3ull));
  EXPECT_EQ(std::tuple(progress.processed_size, progress.processed_virtual_disk),
            std::tuple(threads * 256000000ull, vms));
  Log_Capture log;
  EXPECT_FALSE(results.add("1", {}) || results.record("x", true, 1, 1, 1));
  EXPECT_EQ(messages(log),
            "VM '1' is listed twice in the job.\nA result for VM 'x', which is not in the job.\n");
  int succeeded = 0;
  std::uint64_t size = 0;  // sizes of failed VMs stay 0
  for (const auto& e : results.eject())
    succeeded += e["succeed"].get<bool>(), size += e["size"].get<std::uint64_t>();
  EXPECT_EQ(std::tuple(succeeded, size), std::tuple(vms / 2, vms * 1ull));
}

// Definitions parsed by the module loaded through its manifest, and run by the agent's jobs.
TEST(Cas_Job_Defs, PartsAreKeptWholeGeneratedBackAndRun) {
  auto module = Module::load(S(BRIMLET_LIB_DIR) + "/h3ccas.module.json");
  Job_Module jobs;
  ASSERT_TRUE(module && Job_Module::load(*module, jobs));
  Temp_Dir dir;
  Scoped_Env root("BRIMLET_ROOT", dir.path());
  Job_Runs runs;
  runs.add_module(jobs);
  // A part of a type the module has no parser for finds a null creator.
  auto parse = [&](const S& text, Job_Definition& def) {
    S error;
    def.parse(
        text, [&](auto& d, const char* part) { return jobs.parsers[d.type][part].get(); }, error);
    return error;
  };
  // Each part is kept whole by the records of its job type (keys nobody reads, numbers at full
  // precision, empty parts) and generated back unchanged; the run fails saying why.
  for (const char* text :
       {R"({"type": 1, "source": {"entries": [{"type": "cas"}], "exclusion": ["tmp*"]}, "options":
            {"storage_reserved_bytes": 18446744073709551615, "later": [0.1, null, true, ""]}})",
        R"({"type": 1, "source": {}, "options": {}})",
        R"({"type": 2, "source": {"entries": [{"source_vm_id": "7"}]}, "options": []})"}) {
    JSON_Value in = json(text);
    in["uid"] = "j" + in["type"].dump();
    Job_Definition def;
    ASSERT_EQ(parse(in.dump(), def), "");
    const bool backup = in["type"] == 1;
    EXPECT_TRUE(typeid(*def.source) == (backup ? typeid(Backup_Source) : typeid(Restore_Source)));
    EXPECT_TRUE(typeid(*def.options) ==
                (backup ? typeid(Backup_Options) : typeid(Restore_Options)));
    const auto& source = dynamic_cast<const Opts_Src_Base&>(*def.source);
    const auto& options = dynamic_cast<const Opts_Src_Base&>(*def.options);
    EXPECT_EQ(std::tie(source.value(), options.value()), std::tie(in["source"], in["options"]));
    const S generated = def.generate();
    JSON_Value out = JSON_Value::parse(generated, nullptr, false);
    EXPECT_EQ(std::tie(out["source"], out["options"]), std::tie(in["source"], in["options"]));
    JSON_Value run, status, log;
    S error;
    ASSERT_TRUE(runs.run(in.dump(), run, error) && runs.wait(run["run_id"]) &&
                runs.status(run["run_id"], status, error) && runs.log(run["run_id"], 0, log, error))
        << error;
    EXPECT_EQ(status["state"], "failed");
    // Each job runs until it looks for its CVM, which nobody serves here.
    EXPECT_NE(log["text"].get<S>().find("Failed to get CVM info, uuid = .\n"), S::npos);
  }
  // Refusals: a number no JSON value holds, a generator that is done.
  Job_Definition def;
  EXPECT_EQ(parse(R"({"uid": "j", "type": 1, "source": [1e400], "options": {}})", def),
            "invalid value of 'source'");
  ASSERT_EQ(parse(R"({"uid": "j", "type": 1, "source": 1, "options": 2})", def), "");
  Log_Capture capture;
  std::unique_ptr<yajl_gen_t, void (*)(yajl_gen)> gen(yajl_gen_alloc(nullptr), yajl_gen_free);
  def.source->generate(gen.get());
  EXPECT_EQ(def.options->generate(gen.get()), -1);
  EXPECT_EQ(messages(capture),
            "Failed to generate the CAS backup options of a job definition (yajl status 4).\n");
}
}  // namespace
}  // namespace h3ccas
