#include "host/servant/servant.h"
#include "host/servant/task_scheduler.h"
#include "tests/unit/servant/fixture.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>

namespace {
class Scheduler_Test : public Servant_Fixture {
 protected:
  // Pid and tag of each "hang" servant that reached its request.
  std::map<pid_t, std::string> hung() {
    std::map<pid_t, std::string> out;
    if (DIR* d = opendir(markers_.c_str())) {
      while (dirent* e = readdir(d))
        if (e->d_name[0] != '.')
          out[std::stoi(e->d_name)] = strchr(e->d_name, '.') + 1;
      closedir(d);
    }
    return out;
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
  const std::string markers_ = dir_.file("markers");
  std::mutex mutex_;
  std::string runs_, answered_;
};

TEST_F(Scheduler_Test, SettingsAreCheckedAndTheHandlerDecidesRetriesWithinTheCount) {
  auto ok = handler([](bool) { return 0; });
  Servant_Task_Scheduler sched("echo");
  EXPECT_FALSE(sched.enqueue_task(JSON_Value::object(), "cvk1"));  // not active yet
  EXPECT_FALSE(sched.enable_owner_limit(0) || sched.enable_retry(-1, 0) ||
               sched.enable_retry(1, -1) || sched.set_time_limit(-1));
  EXPECT_FALSE(sched.activate(0, setup(), ok) || sched.activate(1, nullptr, ok));
  ASSERT_TRUE(sched.activate(1, setup(), ok));
  EXPECT_FALSE(sched.activate(1, setup(), ok) || sched.enable_owner_limit(2) ||
               sched.enable_retry(1, 1) || sched.register_stop_callback([] { return false; }));
  EXPECT_FALSE(Servant_Task_Scheduler(nullptr).activate(1, setup(), ok));
  // A set-up that fails is a failed run, reported like any other; without retries enabled, final.
  Servant_Task_Scheduler refused("echo");
  ASSERT_TRUE(refused.activate(
      1, [](Servant&, const Servant_Task&) { return false; }, handler([](bool) { return 2; })));
  ASSERT_TRUE(refused.enqueue_task(JSON_Value::object(), "cvk1"));
  refused.wait();
  EXPECT_EQ(std::tuple(answered_, refused.failed()), std::tuple("-", 1));
  sched.wait();
  // The handler answers 0 for an answer, else `on_failure` (2: may run again).
  const std::tuple<const char*, JSON_Value, int, const char*, const char*, int, int> cases[] = {
      // Killed mid-request every time: the first run and two retries, then a final failure.
      {"crash", JSON_Value::object(), 2, "vm:0 vm:1 vm:2 ", "---", 0, 1},
      // Killed once, answers on the retry.
      {"flaky", {{"marker", dir_.file("flaky")}}, 2, "vm:0 vm:1 ", "-+", 1, 0},
      // Failures the handler does not want retried; a hung servant is ended at the time limit.
      {"garbage", {{"kind", "text"}}, 1, "vm:0 ", "-", 0, 1},
      {"hang", JSON_Value::object(), 1, "vm:0 ", "-", 0, 1},
  };
  for (const auto& [method, params, on_failure, runs, answered, succeeded, failed] : cases) {
    runs_.clear(), answered_.clear();
    Servant_Task_Scheduler sched(method);
    ASSERT_TRUE(sched.enable_retry(2, 0) && sched.set_time_limit(1));
    const int retry = on_failure;
    ASSERT_TRUE(sched.activate(1, setup(), handler([retry](bool a) { return a ? 0 : retry; })));
    ASSERT_TRUE(sched.enqueue_task(params, "cvk1", "vm"));
    sched.wait();
    EXPECT_EQ(runs_ + " " + answered_, std::string(runs) + " " + answered) << method;
    EXPECT_EQ(std::make_pair(sched.succeeded(), sched.failed()), std::make_pair(succeeded, failed))
        << method;
  }
}

// Three servants at most, two per owner: queued in owner order, so that ignoring the owner limit
// would start three of one owner. The stop callback turns true once three hang in their request;
// it ends them, drops the waiting work and the retries it asked for.
TEST_F(Scheduler_Test, KeepsToTheLimitsAndTheStopCallbackEndsEverything) {
  ASSERT_EQ(mkdir(markers_.c_str(), 0700), 0);
  Servant_Task_Scheduler sched("hang");
  ASSERT_TRUE(sched.enable_owner_limit(2) && sched.enable_retry(3, 0));
  ASSERT_TRUE(sched.register_stop_callback([this] { return hung().size() >= 3; }));
  ASSERT_TRUE(sched.activate(3, setup(), handler([](bool) { return 2; })));
  for (const char* owner : {"cvk1", "cvk1", "cvk1", "cvk2", "cvk2", "cvk2"})
    ASSERT_TRUE(sched.enqueue_task({{"dir", markers_}, {"tag", owner}}, owner, owner));
  EXPECT_TRUE(sched.is_running());
  sched.wait();
  EXPECT_FALSE(sched.is_running());
  EXPECT_EQ(std::tuple(answered_, sched.failed()), std::tuple("---", 3));
  EXPECT_EQ(std::count(runs_.begin(), runs_.end(), ':'), 3) << runs_;
  EXPECT_NE(runs_.find("cvk2:0"), std::string::npos) << runs_;
  std::string tags;
  for (const auto& [pid, tag] : hung()) {
    EXPECT_TRUE(process_gone(pid)) << pid;
    tags += tag;
  }
  EXPECT_EQ(tags.size(), 12u) << tags;
  EXPECT_NE(tags.find("cvk2"), std::string::npos) << tags;
  EXPECT_FALSE(sched.enqueue_task(JSON_Value::object(), "cvk1"));
}
}  // namespace
