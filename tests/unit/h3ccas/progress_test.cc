#include "h3ccas/job/progress_reporter.h"
#include "host/core/paths.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace h3ccas {
namespace {

class Recording_Handler : public Job_Event_Handler {
 public:
  struct Call {
    std::vector<VM_Job_Progress> entries;
    int activity_state;
    bool final;
  };

  bool handle_vm_progress(const std::vector<VM_Job_Progress>& progress, int activity_state,
                          bool final) override {
    calls.push_back({progress, activity_state, final});
    return result;
  }
  // Entry `uuid` of the last call.
  const VM_Job_Progress& last(const std::string& uuid) const {
    for (const auto& e : calls.back().entries) {
      if (e.uuid == uuid)
        return e;
    }
    ADD_FAILURE() << "no entry " << uuid;
    static const VM_Job_Progress none;
    return none;
  }

  std::vector<Call> calls;
  bool result = true;
};

bool is_mapped(const std::string& path) {
  std::string maps;
  return read_file("/proc/self/maps", maps) && maps.find(path) != std::string::npos;
}

class Progress_Test : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("BRIMLET_ROOT", root_.path().c_str(), 1);
    activity_.state = Job_Activity::running;
  }
  void TearDown() override { unsetenv("BRIMLET_ROOT"); }

  std::string progress_path(const std::string& job, const std::string& uuid) const {
    return root_.path() + "/var/opt/quorvex/brimlet5/h3c-cas/progress/" + job + "/" + uuid;
  }
  // The servant's side of a VM's record.
  VM_Progress_Info_Handle servant(const std::string& job, const std::string& uuid) {
    VM_Progress_Info_Handle h;
    EXPECT_TRUE(h.open(job.c_str(), uuid.c_str(), false, true, 0750)) << uuid;
    return h;
  }

  Temp_Dir root_;
  Job_Activity activity_{};
  Recording_Handler handler_;
};

TEST_F(Progress_Test, ServantStatesReachTheHandler) {
  // A record left by an earlier run of the same job starts over as pending.
  VM_Progress_Info_Handle stale;
  ASSERT_TRUE(stale.open("job-1", "vm-a", true, true, 0750));
  stale->state = VM_Progress_Info::completed;

  Progress_Reporter reporter(handler_, activity_);
  ASSERT_TRUE(reporter.add_vm("vm-a", "alpha"));
  ASSERT_TRUE(reporter.add_vm("vm-b", "beta"));
  ASSERT_TRUE(reporter.activate("job-1"));
  EXPECT_EQ(stale->state, VM_Progress_Info::pending);
  struct stat st {};
  ASSERT_EQ(stat(progress_path("job-1", "vm-b").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 4096);

  ASSERT_TRUE(reporter.push_update());
  ASSERT_EQ(handler_.calls.size(), 1u);
  const auto& first = handler_.calls[0];
  ASSERT_EQ(first.entries.size(), 2u);
  EXPECT_EQ(first.entries[0].uuid, "vm-a");
  EXPECT_EQ(first.entries[0].name, "alpha");
  EXPECT_EQ(first.entries[1].uuid, "vm-b");
  EXPECT_EQ(first.entries[1].status, "pending");
  EXPECT_EQ(first.activity_state, Job_Activity::running);
  EXPECT_FALSE(first.final);

  VM_Progress_Info_Handle a = servant("job-1", "vm-a");
  VM_Progress_Info_Handle b = servant("job-1", "vm-b");
  a->state = VM_Progress_Info::running;
  a->total_size = 3ull << 30;
  a->processed_size = 1ull << 20;
  a->total_virtual_disk = 3;
  a->processed_virtual_disk = 1;
  a->start_time = 1000;
  ASSERT_TRUE(reporter.push_update());
  const VM_Job_Progress running = handler_.last("vm-a");
  EXPECT_EQ(running.status, "running");
  EXPECT_EQ(running.state, VM_Job_Progress::running);
  EXPECT_EQ(running.total_bytes, 3ull << 30);
  EXPECT_EQ(running.processed_bytes, 1ull << 20);
  EXPECT_EQ(running.virtual_disk_count, 3);
  EXPECT_EQ(running.processed_virtual_disk_count, 1);
  EXPECT_EQ(running.start_time, 1000);
  EXPECT_EQ(running.end_time, 0);
  EXPECT_EQ(handler_.last("vm-b").status, "pending");

  a->state = VM_Progress_Info::completed;
  a->processed_size = 3ull << 30;
  a->processed_virtual_disk = 3;
  b->state = VM_Progress_Info::failed;
  b->start_time = 2000;
  const std::int64_t before = std::time(nullptr);
  ASSERT_TRUE(reporter.push_update());
  const std::int64_t after = std::time(nullptr);
  const VM_Job_Progress done = handler_.last("vm-a");
  EXPECT_EQ(done.status, "completed");
  EXPECT_EQ(done.processed_bytes, 3ull << 30);
  EXPECT_EQ(done.processed_virtual_disk_count, 3);
  EXPECT_GE(done.end_time, before);
  EXPECT_LE(done.end_time, after);
  EXPECT_EQ(handler_.last("vm-b").status, "failed");
  EXPECT_GE(handler_.last("vm-b").end_time, before);

  // A completed VM is not read again: its mapping is gone and later stores are ignored.
  stale.close();
  a.close();
  b.close();
  EXPECT_FALSE(is_mapped(progress_path("job-1", "vm-a")));
  EXPECT_TRUE(is_mapped(progress_path("job-1", "vm-b")));
  a = servant("job-1", "vm-a");
  a->state = VM_Progress_Info::failed;
  a->processed_size = 1;
  activity_.state = Job_Activity::completed;
  ASSERT_TRUE(reporter.flush());
  const auto& last = handler_.calls.back();
  EXPECT_TRUE(last.final);
  EXPECT_EQ(last.activity_state, Job_Activity::completed);
  EXPECT_EQ(handler_.last("vm-a").status, "completed");
  EXPECT_EQ(handler_.last("vm-a").processed_bytes, 3ull << 30);
  EXPECT_EQ(handler_.last("vm-a").end_time, done.end_time);
  EXPECT_EQ(handler_.last("vm-b").status, "failed");
  EXPECT_EQ(handler_.last("vm-b").state, VM_Job_Progress::failed);
}

TEST_F(Progress_Test, FlushEndsEveryVm) {
  const struct {
    const char* uuid;
    std::int32_t state;  // as the servant left it
    std::int64_t start_time;
    const char* status;  // after flush
    bool ended;
  } cases[] = {
      {"crashed-before-writing", VM_Progress_Info::pending, 0, "failed", false},
      {"killed-midway", VM_Progress_Info::running, 500, "failed", true},
      {"done-since-last-push", VM_Progress_Info::completed, 600, "completed", true},
      {"failed", VM_Progress_Info::failed, 700, "failed", true},
  };
  Progress_Reporter reporter(handler_, activity_);
  for (const auto& c : cases)
    ASSERT_TRUE(reporter.add_vm(c.uuid, c.uuid));
  ASSERT_TRUE(reporter.activate("job-2"));
  for (const auto& c : cases) {
    VM_Progress_Info_Handle h = servant("job-2", c.uuid);
    h->state = c.state;
    h->start_time = c.start_time;
  }
  const std::int64_t before = std::time(nullptr);
  ASSERT_TRUE(reporter.flush());
  ASSERT_TRUE(handler_.calls.back().final);
  for (const auto& c : cases) {
    const VM_Job_Progress& e = handler_.last(c.uuid);
    EXPECT_EQ(e.status, c.status) << c.uuid;
    EXPECT_EQ(e.state, vm_job_state_from_name(c.status)) << c.uuid;
    EXPECT_EQ(e.start_time, c.start_time) << c.uuid;
    if (c.ended) {
      EXPECT_GE(e.end_time, before) << c.uuid;
    } else {
      EXPECT_EQ(e.end_time, 0) << c.uuid;
    }
  }
}

TEST_F(Progress_Test, MisorderedCallsAreRefusedAndChangeNothing) {
  Progress_Reporter reporter(handler_, activity_);
  ASSERT_TRUE(reporter.add_vm("vm-a", "alpha", ""));
  ASSERT_TRUE(reporter.add_vm("vm-r", "refused by name", "failed"));
  ASSERT_TRUE(reporter.activate("job-3"));

  const std::string check = "Unexpected error in h3ccas/job/progress_reporter.cc:";
  {
    Log_Capture log;
    EXPECT_FALSE(reporter.add_vm("vm-late", "late"));
    EXPECT_TRUE(log.contains(check)) << log.text();
    EXPECT_TRUE(log.contains(", wrapper_.empty() is false:\n")) << log.text();
  }
  {
    Log_Capture log;
    EXPECT_FALSE(reporter.activate("job-4"));
    EXPECT_TRUE(log.contains(", wrapper_.empty() is false:\n")) << log.text();
  }
  EXPECT_NE(
      access((root_.path() + "/var/opt/quorvex/brimlet5/h3c-cas/progress/job-4").c_str(), F_OK), 0);

  ASSERT_TRUE(reporter.push_update());
  const auto& entries = handler_.calls.back().entries;
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].status, "pending");
  // A VM that never gets a servant keeps the status it was added with.
  EXPECT_EQ(entries[1].status, "failed");
  EXPECT_EQ(entries[1].state, VM_Job_Progress::failed);

  handler_.result = false;
  EXPECT_FALSE(reporter.push_update());
  EXPECT_FALSE(reporter.flush());
}

TEST_F(Progress_Test, ActivateFailsWhenARecordCannotBeMapped) {
  // A directory where the record should be cannot be mapped.
  ASSERT_TRUE(make_dirs(progress_path("job-5", "vm-dir"), 0750));
  const struct {
    const char* job;
    std::vector<std::string> uuids;
    std::string message;
  } cases[] = {
      {"", {"vm-a"}, "id is NULL or \"\":\n"},
      {"job-5", {"vm-a", ""}, "basename is NULL or \"\":\n"},
      {"job-5",
       {"vm-dir"},
       "Failed to memory map " + progress_path("job-5", "vm-dir") + ", errno=21, Is a directory\n"},
  };
  for (const auto& c : cases) {
    Progress_Reporter reporter(handler_, activity_);
    for (const auto& uuid : c.uuids)
      ASSERT_TRUE(reporter.add_vm(uuid, "vm"));
    Log_Capture log;
    EXPECT_FALSE(reporter.activate(c.job)) << c.message;
    EXPECT_TRUE(log.contains(c.message)) << log.text();
  }
}

}  // namespace
}  // namespace h3ccas
