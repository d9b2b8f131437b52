#include "models/task/thread_task_scheduler.h"

#include "host/core/log.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

namespace h3ccas {
namespace {
using namespace std::chrono_literals;

// Long enough never to be reached on a loaded machine unless something is broken.
constexpr auto generous = 10s;
using Scheduler = Thread_Task_Scheduler<int>;
auto item = [](int n) { return std::make_shared<int>(n); };

// Threads meet in pairs; false when no partner came within the time-out.
struct Meeting {
  bool arrive(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    const unsigned round = round_;
    if (++arrived_ == 2) {
      arrived_ = 0, ++round_, cv_.notify_all();
      return true;
    }
    return cv_.wait_for(lock, timeout, [&] { return round_ != round; }) || (--arrived_, false);
  }
  std::mutex mutex_;
  std::condition_variable cv_;
  int arrived_ = 0;
  unsigned round_ = 0;
};

struct Gate {
  void open() {
    std::call_once(once, [this] { promise.set_value(); });
  }
  bool wait() { return future.wait_for(generous) == std::future_status::ready; }
  std::once_flag once;
  std::promise<void> promise;
  std::shared_future<void> future = promise.get_future().share();
};

class Thread_Task_Scheduler_Test : public ::testing::Test {
 protected:
  // With debug lines: the scheduler reports each run at debug priority.
  static void SetUpTestSuite() { ASSERT_TRUE(open_log({"task_test", "", false, true})); }
};

// Two owners' tasks, interleaved, on 3 workers with one per owner at a time, each waiting for a
// partner: different owners' tasks meet, one owner's never do (null and empty are one owner).
TEST_F(Thread_Task_Scheduler_Test, OwnerLimitSerialisesAnOwnerAndOverlapsOwners) {
  const struct {
    const char *first, *second;
    bool together;
  } cases[] = {{"a", "b", true}, {"a", "a", false}, {nullptr, "", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.first ? c.first : "null") + "/" + c.second);
    Scheduler scheduler;
    ASSERT_TRUE(scheduler.enable_owner_limit(1));
    Meeting meeting;
    std::atomic<int> met{0};
    // Apart, the partner never comes: a short wait keeps the case quick.
    ASSERT_TRUE(scheduler.activate(3, [&](const std::shared_ptr<int>&) {
      met += meeting.arrive(c.together ? generous : 150ms);
      return Task_Base::Succeeded;
    }));
    for (int n = 0; n < 4; ++n)
      ASSERT_TRUE(scheduler.enqueue_task(item(n), n % 2 ? c.second : c.first, 1, "pair"));
    scheduler.wait();
    EXPECT_EQ(met, c.together ? 4 : 0);
  }
}

TEST_F(Thread_Task_Scheduler_Test, RetryRunsAgainAsANewEnqueueUntilDoneFailedOrDestroyed) {
  Log_Capture log;
  Scheduler scheduler;
  std::atomic<int> runs{0};
  ASSERT_TRUE(scheduler.activate(2, [&](const std::shared_ptr<int>& it) {
    return *it == 2 ? Task_Base::Failed : ++runs < 3 ? Task_Base::Retry : Task_Base::Succeeded;
  }));
  ASSERT_TRUE(scheduler.enqueue_task(item(1), "disk", 1, "retried"));
  ASSERT_TRUE(scheduler.enqueue_task(item(2), "disk", 1, "final"));
  scheduler.wait();
  EXPECT_EQ(runs, 3);
  for (const char* line : {"Task failed, id: 1, name: retried, count: 1, enqueuing again.",
                           "Enqueueing task, id: 1, name: retried, count: 2.",
                           "Processing task, id: 1, name retried, count: 3.",
                           "Task succeeded, id: 1, name: retried, count: 3.",
                           "Task failed, id: 2, name: final, count: 1."})
    EXPECT_TRUE(log.contains(line)) << line;
  EXPECT_FALSE(log.contains("id: 1, name retried, count: 4") ||
               log.contains("id: 2, name: final, count: 1, enqueuing again") ||
               log.contains("Task scheduler stopped."));
  // Endless retries keep a scheduler busy until it is destroyed, which must stop it rather than
  // wait for a drain that never comes.
  Gate retried;
  {
    Scheduler endless;
    ASSERT_TRUE(endless.activate(2, [&](const std::shared_ptr<int>&) {
      if (++runs == 6)
        retried.open();
      return Task_Base::Retry;
    }));
    ASSERT_TRUE(endless.enqueue_task(item(1), "disk") && retried.wait());
  }
  EXPECT_TRUE(log.contains("Task scheduler stopped."));
}

// Within one owner, higher weights run first and equal weights in the order they came. The stop
// callback then turns true, seen at the dispatcher's next wake-up or at the latest its periodic
// re-check (3 seconds): waiting tasks are dropped and new ones refused.
TEST_F(Thread_Task_Scheduler_Test, OneOwnersTasksRunByWeightThenArrivalUntilStopped) {
  Log_Capture log;
  Scheduler scheduler;
  ASSERT_TRUE(scheduler.enable_owner_limit(1));
  std::atomic<bool> stop{false};
  Gate started[2], release[2], stopping;
  ASSERT_TRUE(scheduler.register_stop_callback([&] {
    if (stop)
      stopping.open();
    return stop.load();
  }));
  std::vector<int> order;  // one owner: one task at a time
  ASSERT_TRUE(scheduler.activate(2, [&](const std::shared_ptr<int>& it) {
    order.push_back(*it);
    if (*it % 10 == 0)  // items 0 and 10 hold the owner's only place until released
      started[*it / 10].open(), release[*it / 10].wait();
    return Task_Base::Succeeded;
  }));
  ASSERT_TRUE(scheduler.enqueue_task(item(0), "disk", 0) && started[0].wait());
  const std::pair<int, int> queued[] = {{1, 1}, {2, 5}, {3, 3}, {4, 5}, {5, 1}, {10, 0}};
  for (const auto& [n, weight] : queued)
    ASSERT_TRUE(scheduler.enqueue_task(item(n), "disk", weight));
  release[0].open();
  ASSERT_TRUE(started[1].wait());
  EXPECT_EQ(order, (std::vector<int>{0, 2, 4, 3, 1, 5, 10}));
  ASSERT_TRUE(scheduler.enqueue_task(item(11), "disk"));
  stop = true;
  ASSERT_TRUE(stopping.wait());
  // Another owner with a free worker: it would run if it were taken.
  EXPECT_FALSE(scheduler.enqueue_task(item(12), "other"));
  release[1].open();
  scheduler.wait();
  EXPECT_TRUE(log.contains("Task scheduler stopped."));
  EXPECT_EQ(order.size(), 7u);
}

// Each misuse fails after one check line naming the failed condition, and leaves the scheduler
// usable with the first run function that was accepted; once waited for, it takes no items.
TEST_F(Thread_Task_Scheduler_Test, MisuseFailsWithItsCheckMessage) {
  std::atomic<int> first{0}, second{0};
  auto count_first = [&](const std::shared_ptr<int>&) { return ++first, Task_Base::Succeeded; };
  auto count_second = [&](const std::shared_ptr<int>&) { return ++second, Task_Base::Succeeded; };
  Log_Capture log;
  Scheduler scheduler;
  EXPECT_FALSE(scheduler.enable_owner_limit(0) || scheduler.activate(0, count_first) ||
               scheduler.activate(1, nullptr) || scheduler.register_stop_callback(nullptr));
  ASSERT_TRUE(scheduler.activate(1, count_first));
  EXPECT_FALSE(scheduler.activate(1, count_second) || scheduler.enqueue_task(nullptr, "disk") ||
               scheduler.register_stop_callback([] { return true; }));
  EXPECT_EQ(log.count(LM_EMERGENCY), 7u) << log.text();
  EXPECT_TRUE(log.contains("Unexpected error in models/task/thread_task_scheduler.h:"));
  for (const char* condition : {", limit_per_owner(0) < 1:\n", ", n_worker_threads(0) < 1:\n",
                                ", worker_ is true:\n", ", params.get() is NULL:\n"})
    EXPECT_TRUE(log.contains(condition)) << condition;
  ASSERT_TRUE(scheduler.enqueue_task(item(1), "disk"));
  scheduler.wait();
  EXPECT_FALSE(scheduler.enqueue_task(item(2)));
  EXPECT_EQ(std::tuple(first.load(), second.load()), std::tuple(1, 0));
}
}  // namespace
}  // namespace h3ccas
