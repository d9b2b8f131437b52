#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>

namespace {

// One running VM on qcow2 disks, so that backups go through a snapshot and CBT.
const char backup_world[] = R"({"knobs": {"task_duration_ms": 0},
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "defaultpool", "type": "dir", "path": "/vms/images", "capacity_mib": 512000}],
  "hosts": [{"id": 1, "name": "cvk01", "ip": "192.168.10.11", "vms": [{"id": 101, "uuid":
    "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01", "status": "running", "disks": [
    {"device_name": "vda", "size_mib": 16, "pool": "defaultpool", "path": "/vms/images/web01-vda",
     "content": {"pattern": "random", "allocated_percent": 50, "seed": 1}},
    {"device_name": "vdb", "size_mib": 8, "pool": "defaultpool", "path": "/vms/images/web01-vdb",
     "content": {"pattern": "text", "allocated_percent": 25, "seed": 2}}]}]}]})";

// Bytes of the files under `dir`.
std::uintmax_t stored_bytes(const std::string& dir) {
  std::uintmax_t total = 0;
  std::error_code ec;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir, ec))
    if (e.is_regular_file())
      total += e.file_size();
  return total;
}

}  // namespace

// A full backup and an incremental one after guest writes, through the CLI, the agent, its
// servants, cas-sim's CVM and disk service and a file pool: both are cataloged, the incremental
// stores only what changed, and neither leaves a snapshot or CBTer behind.
TEST(Backup, FullThenIncrementalOfARunningVm) {
  Test_Stack stack;
  write_text_file(stack.dir().file("world.json"), backup_world);
  std::uint16_t port = stack.start_sim("sim", stack.dir().file("world.json"));
  ASSERT_NE(port, 0);
  ASSERT_TRUE(stack.start_server_and_agent(
      {"CVD_SIM_ADDRESS_MAP=*=127.0.0.1:" + std::to_string(stack.cvd_port("sim"))}));
  ASSERT_FALSE(stack.add_cvm("lab", port, "admin", "Adm1n pass").empty());
  std::string pool = stack.dir().path() + "/pool";
  Run_Result r = stack.cli({"pool", "add", "--name", "nas", "--url", "file://" + pool});
  ASSERT_EQ(r.exit_code, 0) << r.err;

  r = stack.cli({"backup", "lab", "--pool", "nas", "--full", "--interval", "0.1", "web01"});
  ASSERT_EQ(r.exit_code, 0) << r.err << r.out;
  std::uintmax_t full_bytes = stored_bytes(pool);
  EXPECT_GT(full_bytes, 8u << 20);
  JSON_Value clean = {{"snapshots", JSON_Value::array()}, {"cbters", JSON_Value::array()}};
  EXPECT_EQ(stack.sim_control("sim", "GET", "/sim/leftovers").dump(), clean.dump());

  JSON_Value write = {{"disk", "/vms/images/web01-vda"}, {"offset", 1 << 20}, {"length", 65536}};
  ASSERT_TRUE(stack.sim_control("sim", "POST", "/sim/disks/write", write).is_object());
  r = stack.cli({"backup", "lab", "--pool", "nas", "--interval", "0.1", "web01"});
  ASSERT_EQ(r.exit_code, 0) << r.err << r.out;
  std::uintmax_t increment = stored_bytes(pool) - full_bytes;
  EXPECT_GT(increment, 0u);
  EXPECT_LT(increment, full_bytes / 4);
  EXPECT_EQ(stack.sim_control("sim", "GET", "/sim/leftovers").dump(), clean.dump());

  r = stack.cli({"--json", "sets", "list", "--vm", "web01"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  JSON_Value sets = JSON_Value::parse(r.out, nullptr, false);
  ASSERT_TRUE(sets.is_array()) << r.out;
  ASSERT_EQ(sets.size(), 2u) << r.out;
  std::cout << sets.dump(2) << "\n";
}
