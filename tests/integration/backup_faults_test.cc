#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <regex>
#include <set>
#include <thread>

namespace {

namespace fs = std::filesystem;

// Two running VMs of one CVK on qcow2 disks; web02 has two disks, so that one of them can fail
// after the other got through.
const char faults_world[] = R"({"knobs": {"task_duration_ms": 0},
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "defaultpool", "type": "dir", "path": "/vms/images", "capacity_mib": 512000}],
  "hosts": [{"id": 1, "name": "cvk01", "ip": "192.168.10.11", "vms": [
    {"id": 101, "uuid": "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01", "status":
     "running", "disks": [{"device_name": "vda", "size_mib": 4, "pool": "defaultpool", "path":
     "/vms/images/web01-vda", "content": {"pattern": "random", "allocated_percent": 100}}]},
    {"id": 102, "uuid": "4d7f6c3a-0000-4000-8000-000000000102", "name": "web02", "status":
     "running", "disks": [
     {"device_name": "vda", "size_mib": 4, "pool": "defaultpool", "path": "/vms/images/web02-vda",
      "content": {"pattern": "random", "allocated_percent": 100, "seed": 2}},
     {"device_name": "vdb", "size_mib": 4, "pool": "defaultpool", "path": "/vms/images/web02-vdb",
      "content": {"pattern": "random", "allocated_percent": 100, "seed": 3}}]}]}]})";

// The hidden name of an object being written.
const char partial[] = R"(\..*\.partial\..*)";

// Polls `done` every 20 ms for up to 30 s.
bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 1500; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
    if (done())
      return true;
  return false;
}

class Backup_Faults : public ::testing::Test {
 protected:
  void SetUp() override {
    write_text_file(stack_.dir().file("world.json"), faults_world);
    std::uint16_t port = stack_.start_sim("sim", stack_.dir().file("world.json"));
    ASSERT_NE(port, 0);
    ASSERT_TRUE(stack_.start_server_and_agent(
        {"CVD_SIM_ADDRESS_MAP=*=127.0.0.1:" + std::to_string(stack_.cvd_port("sim"))}));
    cvm_ = stack_.add_cvm("lab", port, "admin", "Adm1n pass");
    ASSERT_FALSE(cvm_.empty());
    ASSERT_EQ(stack_.cli({"pool", "add", "--name", "nas", "--url", "file://" + pool_}).exit_code,
              0);
  }

  // `brimlet backup` of both VMs, running while the test goes on.
  std::future<Run_Result> start_backup() const {
    return std::async(std::launch::async, [this] {
      return stack_.cli(words("backup lab --pool nas --interval 0.1 web01 web02"));
    });
  }
  // Its stderr with the run id as "R", and the run's log.
  std::string error_of(const Run_Result& r, std::string* log = nullptr) const {
    std::smatch run;
    std::regex_search(r.out, run, std::regex("Started run (\\S+)"));
    if (log)
      *log = stack_.cli({"job", "log", run[1]}).out;
    return std::regex_replace(r.err, std::regex("run \\S+ failed"), "run R failed");
  }
  // Reads of `disks` through the disk service block (or go on).
  void hold(const std::vector<std::string>& disks, bool hold) const {
    for (const auto& disk : disks)
      stack_.sim_control("sim", "POST", "/sim/cvd/hold", {{"disk", disk}, {"hold", hold}});
  }
  int waiting(const std::string& disk) const {
    return stack_.sim_control("sim", "GET", "/sim/cvd/hold")["waiting"].value(disk, 0);
  }
  std::size_t sets_of(const std::string& vm) const {
    Run_Result r = stack_.cli({"--json", "sets", "list", "--vm", vm});
    JSON_Value sets = JSON_Value::parse(r.out, nullptr, false);
    EXPECT_TRUE(r.exit_code == 0 && sets.is_array()) << r.err << r.out;
    return sets.is_array() ? sets.size() : 99;
  }
  // The files under `dir` whose names match `pattern`.
  static std::string files(const std::string& dir, const char* pattern = ".*") {
    std::string out;
    std::error_code ec;
    for (const auto& e : fs::recursive_directory_iterator(dir, ec))
      if (std::regex_match(e.path().filename().string(), std::regex(pattern)))
        out += e.path().string() + "\n";
    return out;
  }
  // What a failed VM leaves: no snapshot, no CBTer on its disks, no object of its own nor any
  // hidden partial one in the pool, no backup set.
  void expect_nothing_left_of(const std::string& vm) const {
    JSON_Value left = stack_.sim_control("sim", "GET", "/sim/leftovers");
    EXPECT_EQ(left["snapshots"], JSON_Value::array());
    for (const auto& cbter : left["cbters"])
      EXPECT_EQ(cbter["disk"].get<std::string>().find(vm), std::string::npos) << left.dump();
    EXPECT_EQ(files(vm_dir(vm)), "");
    EXPECT_EQ(files(pool_, partial), "");
    EXPECT_EQ(sets_of(vm), 0u);
  }
  std::string vm_dir(const std::string& vm) const { return pool_ + "/" + cvm_ + "/cvk01/" + vm; }

  Test_Stack stack_;
  std::string cvm_, pool_ = stack_.dir().path() + "/pool";
};

}  // namespace

// One VM of a job fails in each of these ways, each run after the other: the job fails naming it
// and why; the VM leaves nothing behind while the other is backed up.
TEST_F(Backup_Faults, OneVmFailsAndLeavesNothingBehind) {
  struct Row {
    const char* what;
    std::function<void()> plant;
    const char* reason;  // the whole of it, or how it begins
  } rows[] = {
      {"create_snapshot fails",
       [&] {
         stack_.sim_control("sim", "POST", "/sim/faults",
                            {{"path", "/cas/casrs/vm/snapshot"},
                             {"method", "POST"},
                             {"request_contains", R"("vmId":"102")"},
                             {"count", 1},
                             {"status", 500}});
       },
       "Failed to create snapshot for CAS VM 'web02'."},
      {"the disk service drops a connection mid-chunk",
       [&] {
         stack_.sim_control("sim", "POST", "/sim/cvd/drop",
                            {{"after_bytes", 1 << 20}, {"disk", "/vms/images/web02-vdb"}});
       },
       "Failed to read data from CAS VM 'web02' on CVK '192.168.10.11'."},
      {"the pool cannot take the VM's objects",
       [&] {
         fs::remove_all(vm_dir("web02"));
         fs::create_directories(vm_dir(""));
         write_text_file(vm_dir("web02"), "in the way\n");
       },
       "Failed to open '/cvk01/web02/_vms_images_web02-vd"},
  };
  std::size_t runs = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    row.plant();
    Run_Result r = start_backup().get();
    std::string log, error = error_of(r, &log);
    const std::string said =
        std::string("brimlet: backup run R failed: 1 of 2 VMs failed: web02: ") + row.reason;
    EXPECT_EQ(std::tuple(r.exit_code, error.substr(0, said.size())), std::tuple(1, said)) << r.out;
    EXPECT_EQ(error.find('\n'), error.size() - 1) << error;
    EXPECT_EQ(log.find("Failed to delete"), std::string::npos) << log;  // only what exists
    std::error_code ec;
    fs::remove(vm_dir("web02"), ec);  // the file in the way, or an empty folder
    expect_nothing_left_of("web02");
    EXPECT_EQ(sets_of("web01"), ++runs);
  }
}

// A stop while both VMs read their disks: the run ends stopped and neither VM leaves anything.
TEST_F(Backup_Faults, StopMidRun) {
  const std::vector<std::string> disks = {"/vms/images/web01-vda", "/vms/images/web02-vda",
                                          "/vms/images/web02-vdb"};
  hold(disks, true);
  auto backup = start_backup();
  ASSERT_TRUE(eventually(
      [&] { return waiting(disks[0]) > 0 && waiting(disks[1]) + waiting(disks[2]) > 0; }));
  JSON_Value runs = stack_.agent_call("job.list", JSON_Value::object())["result"]["runs"];
  ASSERT_EQ(runs.size(), 1u) << runs.dump();
  Run_Result stop = stack_.cli({"job", "stop", runs[0]["run_id"]});
  EXPECT_EQ(stop.exit_code, 0) << stop.err;
  hold(disks, false);
  Run_Result r = backup.get();
  EXPECT_EQ(std::tuple(r.exit_code, error_of(r)),
            std::tuple(1, "brimlet: backup run R failed: the run was stopped\n"));
  expect_nothing_left_of("web01");
  expect_nothing_left_of("web02");
}

// The servant of web02 is killed mid-read: the job fails for web02 only (each VM runs in a
// servant of its own); the next run of web02 cleans what the dead one left and succeeds.
TEST_F(Backup_Faults, ServantKilledMidRun) {
  const std::vector<std::string> disks = {"/vms/images/web02-vda", "/vms/images/web02-vdb"};
  hold(disks, true);
  auto backup = start_backup();
  ASSERT_TRUE(eventually([&] { return waiting(disks[0]) + waiting(disks[1]) > 0; }));
  // The agent's child whose servant label is the VM's name.
  pid_t servant = -1;
  for (const auto& task :
       fs::directory_iterator("/proc/" + std::to_string(stack_.agent_pid()) + "/task")) {
    std::ifstream children(task.path() / "children");
    for (pid_t pid; children >> pid;) {
      std::ifstream environ("/proc/" + std::to_string(pid) + "/environ");
      std::string env((std::istreambuf_iterator<char>(environ)), {});
      if (env.find(std::string("BRIMLET_SERVANT_LABEL=web02") + '\0') != std::string::npos)
        servant = pid;
    }
  }
  ASSERT_GT(servant, 0);
  ASSERT_EQ(kill(servant, SIGKILL), 0);
  hold(disks, false);
  Run_Result r = backup.get();
  EXPECT_EQ(std::tuple(r.exit_code, error_of(r)),
            std::tuple(1,
                       "brimlet: backup run R failed: 1 of 2 VMs failed: web02: Servant 'web02' "
                       "(pid " +
                           std::to_string(servant) +
                           ") ended without answering 'h3ccas.exec': killed by signal 9.\n"));
  EXPECT_EQ(sets_of("web01"), 1u);
  EXPECT_EQ(sets_of("web02"), 0u);
  // The dead servant left its snapshot and a hidden partial object.
  EXPECT_EQ(stack_.sim_control("sim", "GET", "/sim/leftovers")["snapshots"].size(), 1u);
  EXPECT_NE(files(vm_dir("web02"), partial), "");

  r = stack_.cli(words("backup lab --pool nas --interval 0.1 web02"));
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(sets_of("web02"), 1u);
  JSON_Value left = stack_.sim_control("sim", "GET", "/sim/leftovers");
  EXPECT_EQ(left["snapshots"], JSON_Value::array());
  // One CBTer on each disk, the run's own: the dead run's went with its snapshot.
  std::map<std::string, std::set<std::string>> cbters;
  for (const auto& c : left["cbters"])
    cbters[c["disk"]].insert(c["name"].get<std::string>());
  EXPECT_EQ(cbters[disks[0]].size(), 1u) << left.dump();
  EXPECT_EQ(cbters[disks[0]], cbters[disks[1]]) << left.dump();
  EXPECT_EQ(files(pool_, partial), "");
}
