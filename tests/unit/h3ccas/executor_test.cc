#include "h3ccas/job/executor_base.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <thread>

namespace h3ccas {
namespace {

struct Src : Job_Source {
  void set_value(JSON_Value) override {}
  void generate(yajl_gen) const override {}
};
struct Opts : Job_Options {
  void set_value(JSON_Value) override {}
  int generate(yajl_gen) override { return 0; }
};

// What the jobs did: "<uid> body", "<uid> waits", "<uid> succeeded|canceled|failed".
std::mutex g_mutex;
std::condition_variable g_cv;
std::vector<std::string> g_events;
void note(const std::string& event) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_events.push_back(event);
  g_cv.notify_all();
}
void await(const std::string& event) {
  std::unique_lock<std::mutex> lock(g_mutex);
  g_cv.wait(lock, [&] { return std::count(g_events.begin(), g_events.end(), event) > 0; });
}

struct Handler : Job_Event_Handler {
  void handle_success(Job& j) override { note(j.definition().uid + " succeeded"); }
  void handle_canceled(Job& j) override { note(j.definition().uid + " canceled"); }
  void handle_failure(Job& j) override { note(j.definition().uid + " failed"); }
  bool handle_vm_progress(const std::vector<VM_Job_Progress>&, int, bool) override { return true; }
};

// A job named "hold" keeps its CVM until it is stopped.
struct Test_Executor : Executor_Base<Src, Opts> {
  using Executor_Base::Executor_Base;
  bool init() override { return true; }
  bool resolve_entries() override { return true; }
  bool resolve_options() override { return true; }
  bool run_vms(const Job_Args*) override {
    note(def_->uid + " body");
    if (def_->name == "hold")
      job_.wait_state(std::chrono::hours(1), [](int s) { return s == JOB_STOPPED; });
    return !is_canceled();
  }
};

TEST(Executor_Base, JobsOfOneCvmRunOneAtATime) {
  g_events.clear();
  Temp_Dir root;
  Scoped_Env root_env("BRIMLET_ROOT", root.path());
  auto handler = std::make_shared<Handler>();
  auto start = [&](const char* uid, const char* name, const char* cvm) {
    auto def = std::make_shared<Job_Definition>();
    def->uid = uid, def->name = name, def->type = 1, def->host_id = cvm;
    def->source = std::make_shared<Src>();
    auto job = std::make_shared<Controllable_Job_T<Test_Executor>>(def);
    job->set_event_handler(handler);
    job->set_log_callback([uid](const std::string& line) {
      if (line.find("Waiting for other jobs of this CAS(cvm-1) to be completed.\n") !=
          std::string::npos)
        note(uid + std::string(" waits"));
    });
    EXPECT_EQ(job->start(), 0) << uid;
    return job;
  };
  auto first = start("j1", "hold", "cvm-1");
  await("j1 body");
  auto waiting = start("j2", "nightly", "cvm-1");
  await("j2 waits");
  auto other_cvm = start("j3", "nightly", "cvm-2");
  other_cvm->wait();
  // Stopped while it waits, the second job ends without its body.
  ASSERT_EQ(waiting->stop(), 0);
  waiting->wait();
  ASSERT_EQ(first->stop(), 0);
  first->wait();
  auto next = start("j4", "nightly", "cvm-1");
  next->wait();
  std::lock_guard<std::mutex> lock(g_mutex);
  EXPECT_EQ(g_events,
            (std::vector<std::string>{"j1 body", "j2 waits", "j3 body", "j3 succeeded",
                                      "j2 canceled", "j1 canceled", "j4 body", "j4 succeeded"}));
}

TEST(Executor_Base, OptionChecks) {
  Job_Definition def;
  def.uid = "j-1", def.name = "nightly";
  using Check = std::pair<std::function<bool()>, const char*>;  // the check, its option
  auto buffer = [&](int n) {
    return Check{[&, n] { return check_buffer_size(def, n, "read_buffer_size"); },
                 "read_buffer_size"};
  };
  auto sdk = [&](std::string s) {
    return Check{[&, s] { return check_cvd_sdk_log_level(def, s); }, "cvd_sdk_log_level"};
  };
  auto level = [&](int method, int n) {
    return Check{[&, method, n] { return check_compression_level(def, method, n); },
                 "compression_level"};
  };
  auto retries = [&](std::int64_t n) {
    return Check{[&, n] { return check_range(def, n, "backup_retry_count", 0, 10); },
                 "backup_retry_count"};
  };
  const std::pair<Check, const char*> rows[] = {
      // the value as the message shows it; nullptr when valid
      {buffer(65536), nullptr},
      {buffer(8388608), nullptr},
      {buffer(69632), nullptr},
      {buffer(65535), "65535"},
      {buffer(8392704), "8392704"},
      {buffer(69633), "69633"},
      {buffer(-65536), "-65536"},
      {sdk("debug"), nullptr},
      {sdk("info"), nullptr},
      {sdk("warn"), nullptr},
      {sdk("error"), nullptr},
      {sdk("Info"), "Info"},
      {sdk(""), ""},
      {level(1, 22), nullptr},
      {level(1, 23), "23"},
      {level(2, 12), nullptr},
      {level(2, 13), "13"},
      {level(3, 10), "10"},
      {level(1, 0), nullptr},
      {level(1, -1), "-1"},
      {level(4, 30), nullptr},
      {retries(10), nullptr},
      {retries(11), "11"},
      {retries(-1), "-1"},
  };
  for (const auto& [check, bad] : rows) {
    Log_Capture log;
    EXPECT_EQ(check.first(), bad == nullptr) << check.second << " " << (bad ? bad : "valid");
    const std::string expected = bad ? std::string("Invalid value '") + bad + "' of option '" +
                                           check.second + "' of CAS job(uuid=j-1, name=nightly).\n"
                                     : "";
    EXPECT_EQ(messages(log), expected);
    EXPECT_EQ(log.count(LM_ERROR), bad ? 1u : 0u);
  }
}

TEST(Executor_Base, ServantResultsFromSeveralThreadsAddUp) {
  VM_Results results;
  constexpr int threads = 4, vms = 4000;
  for (int i = 0; i < vms; ++i)
    ASSERT_TRUE(results.add("vm-" + std::to_string(i), {"cvk-1", "n", 0, 0, 0, false}));
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] {
      for (int i = t; i < vms; i += threads)  // odd VMs fail
        EXPECT_TRUE(results.record("vm-" + std::to_string(i), i % 2 == 0, 1, 2, 3));
    });
  for (auto& t : pool)
    t.join();
  EXPECT_EQ(std::tuple(results.succeeded(), results.storage_size(), results.source_size(),
                       results.set_size()),
            std::tuple(vms / 2, vms / 2 * 1ull, vms / 2 * 2ull, vms / 2 * 3ull));
  Log_Capture log;
  EXPECT_FALSE(results.add("vm-1", {}));
  EXPECT_FALSE(results.record("vm-x", true, 1, 1, 1));
  EXPECT_EQ(messages(log),
            "VM 'vm-1' is listed twice in the job.\nA result for VM 'vm-x', which is not in the "
            "job.\n");
  JSON_Value out = results.eject();
  ASSERT_EQ(out.size(), std::size_t{vms});
  for (const auto& e : out) {
    const bool even = std::stoi(e["uuid"].get<std::string>().substr(3)) % 2 == 0;
    EXPECT_EQ(e, JSON_Value({{"uuid", e["uuid"]},
                             {"host", "cvk-1"},
                             {"name", "n"},
                             {"size", even ? 2 : 0},
                             {"set_size", even ? 3 : 0},
                             {"storaged_size", even ? 1 : 0},
                             {"succeed", even}}));
  }
}

}  // namespace
}  // namespace h3ccas
