#include "h3ccas/job/executor_base.h"
#include "h3ccas/job/progress_reporter.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"
#include "tests/unit/job/test_job.h"

#include <algorithm>
#include <thread>

namespace h3ccas {
namespace {

using job_test::g_cv, job_test::g_mutex;
std::vector<std::string> g_events;  // "<uid> body", "<uid> waits"

void note(const std::string& event) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_events.push_back(event);
  g_cv.notify_all();
}

struct Handler : Job_Event_Handler {
  bool handle_vm_progress(const std::vector<VM_Job_Progress>&, int, bool) override { return true; }
};

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
  auto run = [&](const std::string& uid, const std::string& cvm, const std::string& awaited) {
    auto def = std::make_shared<Job_Definition>();
    def->uid = uid, def->type = 1, def->host_id = cvm;
    def->source = std::make_shared<job_test::Test_Source>();
    jobs.push_back(std::make_shared<Controllable_Job_T<Test_Executor>>(def));
    jobs.back()->set_event_handler(std::make_shared<Handler>());
    jobs.back()->set_log_callback([uid](const std::string& line) {
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
  EXPECT_EQ(g_events, (std::vector<std::string>{"hold body", "second waits", "other-cvm body",
                                                "bad refused", "next body"}));
  std::vector<int> states;
  for (auto& job : jobs)
    states.push_back(job->state());
  EXPECT_EQ(states,
            (std::vector<int>{JOB_STOPPED, JOB_STOPPED, JOB_SUCCEEDED, JOB_FAILED, JOB_SUCCEEDED}));
}

TEST(Executor_Base, OptionChecks) {
  Job_Definition d;
  d.uid = "j-1", d.name = "nightly";
  const char *buffer = "read_buffer_size", *level = "compression_level";
  Log_Capture log;
  const std::vector<bool> results = {
      check_buffer_size(d, 65536, buffer),      check_buffer_size(d, 8388608, buffer),
      check_buffer_size(d, 69632, buffer),      check_buffer_size(d, 65535, buffer),
      check_buffer_size(d, 8392704, buffer),    check_buffer_size(d, 69633, buffer),
      check_buffer_size(d, -65536, buffer),     check_cvd_sdk_log_level(d, "debug"),
      check_cvd_sdk_log_level(d, "info"),       check_cvd_sdk_log_level(d, "warn"),
      check_cvd_sdk_log_level(d, "error"),      check_cvd_sdk_log_level(d, "Info"),
      check_compression_level(d, 1, 22),        check_compression_level(d, 1, 0),
      check_compression_level(d, 2, 12),        check_compression_level(d, 4, 30),
      check_compression_level(d, 1, 23),        check_compression_level(d, 2, 13),
      check_compression_level(d, 3, 10),        check_compression_level(d, 1, -1),
      check_range(d, 10, "retry_count", 0, 10), check_range(d, 11, "retry_count", 0, 10),
      check_range(d, -1, "retry_count", 0, 10)};
  EXPECT_EQ(results, (std::vector<bool>{1, 1, 1, 0, 0, 0, 0, 1, 1, 1, 1, 0,
                                        1, 1, 1, 1, 0, 0, 0, 0, 1, 0, 0}));
  std::string expected;
  // value, option of each refused one
  const char* refused[] = {"65535", buffer,       "8392704", buffer, "69633",
                           buffer,  "-65536",     buffer,    "Info", "cvd_sdk_log_level",
                           "23",    level,        "13",      level,  "10",
                           level,   "-1",         level,     "11",   "retry_count",
                           "-1",    "retry_count"};
  for (std::size_t i = 0; i < std::size(refused); i += 2)
    expected += std::string("Invalid value '") + refused[i] + "' of option '" + refused[i + 1] +
                "' of CAS job(uuid=j-1, name=nightly).\n";
  EXPECT_EQ(messages(log), expected);
  EXPECT_EQ(log.count(LM_ERROR), 11u);
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

}  // namespace
}  // namespace h3ccas
