#include "tests/integration/restore_world.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <regex>
#include <thread>

namespace {

namespace fs = std::filesystem;

// Polls `done` every 20 ms for up to 30 s.
bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 1500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
    if (done())
      return true;
  return false;
}

class Restore_Faults : public Restore_World {
 protected:
  void SetUp() override {
    Restore_World::SetUp();
    if (HasFatalFailure())
      return;
    backup(true);
    set_ = set_uuids("web01").at(0);
    before_ = inventory();
  }

  std::future<Run_Result> start_restore(const std::string& name) const {
    return std::async(std::launch::async, [this, name] {
      return stack_.cli({"restore", set_, "--name", name, "--interval", "0.1"});
    });
  }
  // Its stderr with the run id as "R".
  static std::string error_of(const Run_Result& r) {
    return std::regex_replace(r.err, std::regex("run \\S+ failed"), "run R failed");
  }
  // A restore that worked: the VM's disks hold the source's data, and only its own disks
  // were added.
  void expect_restored(const std::string& name, std::size_t disks) const {
    EXPECT_EQ(digests(name), digests("web01"));
    EXPECT_EQ(disk_count(), disks);
  }
  void hold_all(bool hold) const {
    stack_.sim_control("sim", "POST", "/sim/cvd/hold", {{"disk", "*"}, {"hold", hold}});
  }
  bool writer_waits() const {
    const JSON_Value holds = stack_.sim_control("sim", "GET", "/sim/cvd/hold");
    for (const auto& [disk, waiting] : holds["waiting"].items())
      if (waiting.get<int>() > 0)
        return true;
    return false;
  }
  // The image object of the VM's second disk.
  std::string object_of_vdb() const {
    for (const auto& e : fs::recursive_directory_iterator(pool_))
      if (e.path().filename().string().find("web01-vdb") != std::string::npos)
        return e.path().string();
    return "";
  }

  std::string set_, before_;
};

}  // namespace

// An image object damaged in the pool is named by verify and by a restore, and the restore
// leaves no VM or volume behind; once the object is whole again both succeed.
TEST_F(Restore_Faults, DamagedObjectsAreNamedAndLeaveNothingBehind) {
  const std::string object = object_of_vdb();
  ASSERT_FALSE(object.empty());
  const std::string name = fs::path(object).filename().string(), whole = object + ".whole";
  fs::copy_file(object, whole);
  struct Row {
    const char* what;
    std::function<void()> damage;
  } rows[] = {
      {"corrupt",
       [&] {
         std::fstream f(object, std::ios::in | std::ios::out | std::ios::binary);
         f.seekp(static_cast<std::streamoff>(fs::file_size(object) / 2));
         f.put('\x5a').put('\xa5');
       }},
      {"truncated", [&] { fs::resize_file(object, fs::file_size(object) - 100); }},
      {"missing", [&] { fs::remove(object); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.damage();
    Run_Result r = stack_.cli({"sets", "verify", set_});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE((r.out + r.err).find(name), std::string::npos) << r.out << r.err;
    r = start_restore("web01-copy").get();
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find(name), std::string::npos) << r.err;
    EXPECT_EQ(inventory(), before_);
    fs::copy_file(whole, object, fs::copy_options::overwrite_existing);
  }
  EXPECT_EQ(stack_.cli({"sets", "verify", set_}).exit_code, 0);
  EXPECT_EQ(start_restore("web01-copy").get().exit_code, 0);
  expect_restored("web01-copy", 4);
}

// A CAS or disk-service failure that passes is retried at once and the VM is restored with
// nothing of the failed attempt left; one that lasts fails the run naming why, leaving nothing.
TEST_F(Restore_Faults, CasAndDiskServiceFailures) {
  auto fault = [&](const char* method, const char* path, int count) {
    return [=] {
      stack_.sim_control("sim", "POST", "/sim/faults",
                         {{"path", path}, {"method", method}, {"count", count}, {"status", 500}});
    };
  };
  struct Row {
    const char* vm;
    std::function<void()> plant;
    const char* reason;  // nullptr: the restore succeeds
  } rows[] = {
      {"r1", fault("POST", "/cas/casrs/vm/add", 1), nullptr},
      {"r2", fault("POST", "/cas/casrs/vm/add", 99), "Failed to create CAS VM 'r2' on CVK 'cvk01'."},
      {"r3",
       [&] {
         stack_.sim_control("sim", "POST", "/sim/cvd/drop", {{"after_bytes", 1 << 20}});
       },
       nullptr},
      {"r4", fault("PUT", "/cas/casrs/vm/addDevice", 99), "Failed to create disk for CAS VM 'r4'."},
  };
  std::size_t disks = disk_count();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.vm);
    row.plant();
    Run_Result r = start_restore(row.vm).get();
    stack_.sim_control("sim", "DELETE", "/sim/faults");
    if (!row.reason) {
      EXPECT_EQ(r.exit_code, 0) << r.err;
      expect_restored(row.vm, disks += 2);
    } else {
      EXPECT_EQ(error_of(r), std::string("brimlet: restore run R failed: 1 of 1 VMs failed: ") +
                                 row.vm + ": " + row.reason + "\n");
      EXPECT_EQ(inventory(), before_);
    }
    before_ = inventory();
  }
}

// A stop while the disks are written: the run ends stopped and the VM and its volumes go.
TEST_F(Restore_Faults, StopMidRun) {
  hold_all(true);
  auto restore = start_restore("web01-copy");
  ASSERT_TRUE(eventually([&] { return writer_waits(); }));
  JSON_Value runs = stack_.agent_call("job.list", JSON_Value::object())["result"]["runs"];
  ASSERT_EQ(runs.size(), 2u) << runs.dump();  // the backup's and the restore's
  EXPECT_EQ(stack_.cli({"job", "stop", runs[1]["run_id"]}).exit_code, 0);
  hold_all(false);
  Run_Result r = restore.get();
  EXPECT_EQ(std::tuple(r.exit_code, error_of(r)),
            std::tuple(1, "brimlet: restore run R failed: the run was stopped\n"));
  EXPECT_EQ(inventory(), before_);
}

// The servant is killed while it writes: the next attempt removes what the dead one made and
// restores the VM.
TEST_F(Restore_Faults, ServantKilledMidRunIsRetried) {
  hold_all(true);
  auto restore = start_restore("web01-copy");
  ASSERT_TRUE(eventually([&] { return writer_waits(); }));
  pid_t servant = -1;
  for (const auto& task :
       fs::directory_iterator("/proc/" + std::to_string(stack_.agent_pid()) + "/task")) {
    std::ifstream children(task.path() / "children");
    for (pid_t pid; children >> pid;)
      servant = pid;
  }
  ASSERT_GT(servant, 0);
  ASSERT_EQ(kill(servant, SIGKILL), 0);
  hold_all(false);
  Run_Result r = restore.get();
  EXPECT_EQ(r.exit_code, 0) << r.err;
  expect_restored("web01-copy", 4);
}
