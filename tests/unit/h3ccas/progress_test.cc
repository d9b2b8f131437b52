#include "h3ccas/job/progress_reporter.h"
#include "host/core/paths.h"
#include "tests/unit/h3ccas/support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

namespace h3ccas {
namespace {
// What the agent was told last: per VM "uuid name status(state) processed/total
// disks processed/total start-end", with "+" for an end time of the pushing moment.
class Recording_Handler : public Job_Event_Handler {
 public:
  bool handle_vm_progress(const std::vector<VM_Job_Progress>& progress, int activity_state,
                          bool final) override {
    const std::int64_t now = std::time(nullptr);
    const auto n = [](auto v) { return std::to_string(v); };
    S out = n(activity_state) + (final ? " final" : "");
    for (const auto& e : progress)
      out += "; " + e.uuid + " " + e.name + " " + e.status + "(" + n(e.state) + ") " +
             n(e.processed_bytes) + "/" + n(e.total_bytes) + " " +
             n(e.processed_virtual_disk_count) + "/" + n(e.virtual_disk_count) + " " +
             n(e.start_time) + "-" + (e.end_time && now - e.end_time < 5 ? "+" : n(e.end_time));
    calls.push_back(out);
    return result;
  }
  std::vector<S> calls;
  bool result = true;
};

bool is_mapped(const S& path) {
  S maps;
  return read_file("/proc/self/maps", maps) && maps.find(path) != S::npos;
}

class Progress_Test : public ::testing::Test {
 protected:
  Progress_Test() { activity_.state = Job_Activity::running; }
  S progress_path(const S& job, const S& uuid) const {
    return root_.path() + "/var/opt/quorvex/brimlet5/h3c-cas/progress/" + job + "/" + uuid;
  }
  VM_Progress_Info_Handle servant(const S& job, const S& uuid) {
    VM_Progress_Info_Handle h;
    EXPECT_TRUE(h.open(job.c_str(), uuid.c_str(), false, true, 0750)) << uuid;
    return h;
  }
  Temp_Dir root_;
  Scoped_Env root_env_{"BRIMLET_ROOT", root_.path()};
  Job_Activity activity_{};
  Recording_Handler handler_;
};

TEST_F(Progress_Test, ServantStatesReachTheHandlerFlushEndsEveryVmMisuseIsRefused) {
  // A record left by an earlier run of the same job starts over as pending.
  VM_Progress_Info_Handle stale;
  ASSERT_TRUE(stale.open("job-1", "vm-a", true, true, 0750));
  stale->state = VM_Progress_Info::completed;
  Progress_Reporter reporter(handler_, activity_);
  ASSERT_TRUE(reporter.add_vm("vm-a", "alpha") && reporter.add_vm("vm-b", "beta"));
  ASSERT_TRUE(reporter.add_vm("vm-r", "refused by name", "failed") && reporter.activate("job-1"));
  EXPECT_EQ(stale->state, VM_Progress_Info::pending);
  struct stat st {};
  ASSERT_EQ(stat(progress_path("job-1", "vm-b").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 4096);
  ASSERT_TRUE(reporter.push_update());
  VM_Progress_Info_Handle a = servant("job-1", "vm-a"), b = servant("job-1", "vm-b");
  a->state = VM_Progress_Info::running, a->total_size = 3ull << 30, a->processed_size = 1ull << 20;
  a->total_virtual_disk = 3, a->processed_virtual_disk = 1, a->start_time = 1000;
  ASSERT_TRUE(reporter.push_update());
  a->state = VM_Progress_Info::completed, a->processed_size = 3ull << 30;
  a->processed_virtual_disk = 3, b->state = VM_Progress_Info::failed, b->start_time = 2000;
  ASSERT_TRUE(reporter.push_update());
  // A completed VM is not read again: its mapping is gone and later stores are ignored.
  stale.close(), a.close(), b.close();
  EXPECT_FALSE(is_mapped(progress_path("job-1", "vm-a")));
  EXPECT_TRUE(is_mapped(progress_path("job-1", "vm-b")));
  a = servant("job-1", "vm-a"), a->state = VM_Progress_Info::failed, a->processed_size = 1;
  activity_.state = Job_Activity::completed;
  ASSERT_TRUE(reporter.flush());
  const S r = std::to_string(Job_Activity::running) + "; ";
  const S done = "vm-a alpha completed(2) 3221225472/3221225472 3/3 1000-+; ";
  const S refused = "; vm-r refused by name failed(3) 0/0 0/0 0-0";
  EXPECT_EQ(handler_.calls,
            (std::vector<S>{
                r + "vm-a alpha pending(0) 0/0 0/0 0-0; vm-b beta pending(0) 0/0 0/0 0-0" + refused,
                r + "vm-a alpha running(1) 1048576/3221225472 1/3 1000-0; " +
                    "vm-b beta pending(0) 0/0 0/0 0-0" + refused,
                r + done + "vm-b beta failed(3) 0/0 0/0 2000-+" + refused,
                std::to_string(Job_Activity::completed) + " final; " + done +
                    "vm-b beta failed(3) 0/0 0/0 2000-+" + refused}));
  handler_.result = false;
  EXPECT_FALSE(reporter.push_update() || reporter.flush());
  // Flushing ends every VM as the servant left it (state and start time).
  handler_.result = true, activity_.state = Job_Activity::running;
  const std::tuple<const char*, std::int32_t, std::int64_t> cases[] = {
      {"crashed-before-writing", VM_Progress_Info::pending, 0},
      {"killed-midway", VM_Progress_Info::running, 500},
      {"done-since-last-push", VM_Progress_Info::completed, 600},
  };
  Progress_Reporter flushed(handler_, activity_);
  for (const auto& [uuid, state, start] : cases)
    ASSERT_TRUE(flushed.add_vm(uuid, "v"));
  ASSERT_TRUE(flushed.activate("job-2"));
  for (const auto& [uuid, state, start] : cases) {
    VM_Progress_Info_Handle h = servant("job-2", uuid);
    h->state = state, h->start_time = start;
  }
  ASSERT_TRUE(flushed.flush());
  EXPECT_EQ(handler_.calls.back(), std::to_string(Job_Activity::running) +
                                       " final; crashed-before-writing v failed(3) 0/0 0/0 0-0; "
                                       "killed-midway v failed(3) 0/0 0/0 500-+; "
                                       "done-since-last-push v completed(2) 0/0 0/0 600-+");
  // Misordered calls and records that cannot be mapped are refused.
  Progress_Reporter active(handler_, activity_);
  ASSERT_TRUE(active.add_vm("vm-a", "alpha") && active.activate("job-3"));
  // Activated without any VM, a flushed still takes none afterwards.
  Progress_Reporter empty(handler_, activity_);
  ASSERT_TRUE(empty.activate("job-0"));
  {
    Log_Capture log;
    EXPECT_FALSE(active.add_vm("vm-late", "late") || active.activate("job-4"));
    EXPECT_FALSE(empty.add_vm("vm-late", "late"));
    EXPECT_EQ(std::tuple(log.count(LM_EMERGENCY), log.count()), std::tuple(3u, 3u));
    EXPECT_TRUE(log.contains("Unexpected error in h3ccas/job/progress_reporter.cc:")) << log.text();
    EXPECT_TRUE(log.contains(", activated_ is true:\n")) << log.text();
  }
  ASSERT_TRUE(empty.flush());
  EXPECT_EQ(handler_.calls.back(), std::to_string(Job_Activity::running) + " final");
  EXPECT_NE(
      access((root_.path() + "/var/opt/quorvex/brimlet5/h3c-cas/progress/job-4").c_str(), F_OK), 0);
  ASSERT_TRUE(active.push_update());
  EXPECT_EQ(handler_.calls.back().find("late"), S::npos);
  // A directory where the record should be cannot be mapped.
  ASSERT_TRUE(make_dirs(progress_path("job-5", "vm-dir"), 0750));
  const std::pair<const char*, S> unmapped_cases[] = {
      {"", "id is NULL or \"\":\n"},
      {"job-5",
       "Failed to memory map " + progress_path("job-5", "vm-dir") + ", errno=21, Is a directory\n"},
  };
  for (const auto& [job, message] : unmapped_cases) {
    Progress_Reporter unmapped(handler_, activity_);
    ASSERT_TRUE(unmapped.add_vm("vm-a", "vm") && unmapped.add_vm("vm-dir", "vm"));
    Log_Capture log;
    EXPECT_FALSE(unmapped.activate(job)) << message;
    EXPECT_TRUE(log.contains(message)) << log.text();
    EXPECT_FALSE(unmapped.add_vm("vm-late", "late"));
  }
}
}  // namespace
}  // namespace h3ccas
