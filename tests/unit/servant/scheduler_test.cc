#include "host/servant/servant.h"
#include "host/servant/task_scheduler.h"
#include "tests/unit/servant/fixture.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <vector>

namespace {

// Pids written by "hang" servants into `dir`.
std::vector<pid_t> pids_in(const std::string& dir) {
  std::vector<pid_t> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.')
        out.push_back(static_cast<pid_t>(std::stol(e->d_name)));
    closedir(d);
  }
  return out;
}

class Servant_Task_Scheduler_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    conf_ = write_servant_conf(dir_, dir_.file("svc.json"));
    markers_ = dir_.file("markers");
    mkdir(markers_.c_str(), 0700);
  }

  // Starts each task's servant with the test configuration and records "<label>:<attempt> ".
  Servant_Task_Scheduler::Setup setup() {
    return [this](Servant& s, const Servant_Task& t) {
      std::lock_guard<std::mutex> lock(mutex_);
      runs_ += t.label + ":" + std::to_string(t.attempt) + " ";
      s.reset("tester", conf_.c_str(), nullptr, nullptr, t.label.c_str());
      return true;
    };
  }
  // Records '+' for an answer, '-' for none, and returns decide(answered).
  Servant_Task_Scheduler::Result_Handler handler(std::function<int(bool)> decide) {
    return [this, decide](const Servant_Task&, std::shared_ptr<JSON_RPC_Response> r) {
      std::lock_guard<std::mutex> lock(mutex_);
      bool answered = r && !r->is_error();
      answered_ += answered ? '+' : '-';
      return decide(answered);
    };
  }

  Temp_Dir dir_;
  std::string conf_, markers_;
  std::mutex mutex_;
  std::string runs_, answered_;
};

TEST_F(Servant_Task_Scheduler_Test, RetriesWhenTheHandlerSaysSoWithinTheCount) {
  struct Case {
    const char* method;
    JSON_Value params;
    int (*decide)(bool answered);
    const char *runs, *answered;
    int succeeded, failed;
  } cases[] = {
      // Killed mid-request every time: the first run and two retries, then a final failure.
      {"crash", JSON_Value::object(), [](bool) { return 2; }, "vm:0 vm:1 vm:2 ", "---", 0, 1},
      // Killed once, answers on the retry.
      {"flaky",
       {{"marker", dir_.file("flaky")}},
       [](bool a) { return a ? 0 : 2; },
       "vm:0 vm:1 ",
       "-+",
       1,
       0},
      // A failure the handler does not want retried.
      {"garbage", {{"kind", "text"}}, [](bool) { return 1; }, "vm:0 ", "-", 0, 1},
  };
  for (const auto& c : cases) {
    runs_.clear();
    answered_.clear();
    Servant_Task_Scheduler sched(c.method);
    ASSERT_TRUE(sched.enable_retry(2, 0));
    ASSERT_TRUE(sched.activate(1, setup(), handler(c.decide)));
    ASSERT_TRUE(sched.enqueue_task(c.params, "cvk1", "vm"));
    sched.wait();
    EXPECT_EQ(runs_, c.runs) << c.method;
    EXPECT_EQ(answered_, c.answered) << c.method;
    EXPECT_EQ(sched.succeeded(), c.succeeded) << c.method;
    EXPECT_EQ(sched.failed(), c.failed) << c.method;
  }
}

TEST_F(Servant_Task_Scheduler_Test, KeepsToTheTotalAndPerOwnerLimits) {
  // Each servant waits until three are there at once, and reports the most it saw. Queued in
  // owner order, so that ignoring the owner limit would start three of one owner.
  Servant_Task_Scheduler sched("gather");
  ASSERT_TRUE(sched.enable_owner_limit(2));
  int max_total = 0, max_owner = 0;
  ASSERT_TRUE(
      sched.activate(3, setup(), [&](const Servant_Task&, std::shared_ptr<JSON_RPC_Response> r) {
        if (!r || r->is_error())
          return 1;
        std::lock_guard<std::mutex> lock(mutex_);
        max_total = std::max(max_total, r->result()["max_total"].get<int>());
        max_owner = std::max(max_owner, r->result()["max_owner"].get<int>());
        return 0;
      }));
  for (const char* owner : {"cvk1", "cvk1", "cvk1", "cvk2", "cvk2", "cvk2"})
    ASSERT_TRUE(sched.enqueue_task(
        {{"dir", markers_}, {"owner", owner}, {"expect", 3}, {"wait_ms", 8000}}, owner));
  sched.wait();
  EXPECT_EQ(sched.succeeded(), 6);
  EXPECT_EQ(max_total, 3);
  EXPECT_EQ(max_owner, 2);
}

TEST_F(Servant_Task_Scheduler_Test, AHungServantIsEndedAtTheTimeLimit) {
  Servant_Task_Scheduler sched("hang");
  ASSERT_TRUE(sched.set_time_limit(1));
  // No retries enabled: final all the same.
  ASSERT_TRUE(sched.activate(1, setup(), handler([](bool) { return 2; })));
  ASSERT_TRUE(sched.enqueue_task({{"dir", markers_}}, "cvk1"));
  sched.wait();
  EXPECT_EQ(answered_, "-");
  EXPECT_EQ(sched.failed(), 1);
  auto pids = pids_in(markers_);
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_TRUE(process_gone(pids[0]));
}

// The callback turns true once both servants are in their request.
TEST_F(Servant_Task_Scheduler_Test, TheStopCallbackEndsRunningServantsAndDropsWaitingWork) {
  Servant_Task_Scheduler sched("hang");
  ASSERT_TRUE(sched.register_stop_callback([this] { return pids_in(markers_).size() >= 2; }));
  ASSERT_TRUE(sched.enable_retry(3, 0));
  // Would be retried, were the work not stopped.
  ASSERT_TRUE(sched.activate(2, setup(), handler([](bool) { return 2; })));
  for (int i = 0; i < 4; ++i)
    ASSERT_TRUE(sched.enqueue_task({{"dir", markers_}}, "cvk" + std::to_string(i)));
  EXPECT_TRUE(sched.is_running());
  sched.wait();
  EXPECT_FALSE(sched.is_running());
  EXPECT_EQ(answered_, "--");
  EXPECT_EQ(sched.failed(), 2);
  EXPECT_EQ(std::count(runs_.begin(), runs_.end(), ':'), 2) << runs_;
  ASSERT_EQ(pids_in(markers_).size(), 2u);
  for (pid_t pid : pids_in(markers_))
    EXPECT_TRUE(process_gone(pid)) << pid;
  EXPECT_FALSE(sched.enqueue_task(JSON_Value::object(), "cvk1"));
}

TEST_F(Servant_Task_Scheduler_Test, SettingsAreCheckedAndFixedOnceRunning) {
  auto ok = handler([](bool) { return 0; });
  Servant_Task_Scheduler sched("echo");
  EXPECT_FALSE(sched.enqueue_task(JSON_Value::object(), "cvk1"));  // not active yet
  EXPECT_FALSE(sched.enable_owner_limit(0));
  EXPECT_FALSE(sched.enable_retry(-1, 0));
  EXPECT_FALSE(sched.enable_retry(1, -1));
  EXPECT_FALSE(sched.set_time_limit(-1));
  EXPECT_FALSE(sched.activate(0, setup(), ok));
  EXPECT_FALSE(sched.activate(1, nullptr, ok));
  ASSERT_TRUE(sched.activate(1, setup(), ok));
  EXPECT_FALSE(sched.activate(1, setup(), ok));
  EXPECT_FALSE(sched.enable_owner_limit(2));
  EXPECT_FALSE(sched.enable_retry(1, 1));
  EXPECT_FALSE(sched.register_stop_callback([] { return false; }));
  EXPECT_FALSE(Servant_Task_Scheduler(nullptr).activate(1, setup(), ok));
  // A set-up that fails is a failed run, reported like any other.
  Servant_Task_Scheduler refused("echo");
  ASSERT_TRUE(refused.activate(
      1, [](Servant&, const Servant_Task&) { return false; }, handler([](bool) { return 1; })));
  ASSERT_TRUE(refused.enqueue_task(JSON_Value::object(), "cvk1"));
  refused.wait();
  EXPECT_EQ(answered_, "-");
  EXPECT_EQ(refused.failed(), 1);
  sched.wait();
}

}  // namespace
