#include "tests/integration/restore_world.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Every point of a chain (full, incremental, incremental), each backed up through the CLI, the
// agent, its servants, cas-sim and a file pool while the guest writes between them, comes back
// as a new VM whose disks equal the source's at that point, on the source's host and pool or on
// others.
TEST_F(Restore_World, EveryPointOfAChainToANewVm) {
  std::vector<Disk_Digests> points;
  for (const auto& write : std::vector<std::vector<Guest_Write>>{
           {}, {{0, 1 << 20, 65536}, {1, 3 << 20, 65536}}, {{0, 0, 131072}}}) {
    guest_writes(write);
    backup(points.empty());
    points.push_back(digests("web01"));
  }
  ASSERT_NE(points[0], points[1]);
  ASSERT_NE(points[1], points[2]);
  const std::vector<std::string> sets = set_uuids("web01");  // newest first
  ASSERT_EQ(sets.size(), 3u);

  struct Row {
    std::string set;
    std::vector<std::string> flags;
    std::size_t point;
    const char* host;
    const char* pool_path;
    std::size_t nics;
  } rows[] = {
      {sets[2], {"--name", "web01-full"}, 0, "cvk01", "/vms/images/web01-vd", 1},
      {sets[1],
       {"--name", "web01-inc", "--host", "cvk02", "--pool", "fastpool", "--no-network"},
       1,
       "cvk02",
       "/vms/fast/web01-vd",
       0},
      {sets[2], {"--name", "web01-latest", "--latest"}, 2, "cvk01", "/vms/images/web01-vd", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.flags[1]);
    std::vector<std::string> args = {"restore", row.set, "--interval", "0.1"};
    args.insert(args.end(), row.flags.begin(), row.flags.end());
    Run_Result r = stack_.cli(args);
    ASSERT_EQ(r.exit_code, 0) << r.err << r.out;
    EXPECT_EQ(digests(row.flags[1]), points[row.point]);
    const JSON_Value vm = find_vm(row.flags[1]);
    EXPECT_EQ(vm.value("host", ""), row.host);
    EXPECT_EQ(vm["vm"]["networks"].size(), row.nics);
    for (const JSON_Value& disk : vm["vm"]["disks"])
      EXPECT_EQ(disk["path"].get<std::string>().rfind(row.pool_path, 0), 0u) << disk.dump();
  }
  // Nothing but the three VMs and their disks was made.
  EXPECT_EQ(disk_count(), 4 * 2u);

  // A name in use, in any case, is refused before anything is made.
  Run_Result r = stack_.cli({"restore", sets[0], "--name", "WEB01-Full"});
  EXPECT_EQ(std::tuple(r.exit_code, r.err),
            std::tuple(1,
                       "brimlet: a VM named 'web01-full' exists on this CVM; give --overwrite to "
                       "replace it\n"));
  EXPECT_EQ(disk_count(), 4 * 2u);

  // Every set reads back whole.
  r = stack_.cli({"sets", "verify", "--all", "--pool", "nas"});
  EXPECT_EQ(r.exit_code, 0) << r.err << r.out;
}

// Over the original: refused while the VM exists unless overwriting is asked for; then the VM
// is replaced by one holding the set's data, on the same host, under the same name, and the
// replaced VM's disks stay whole in their pool.
TEST_F(Restore_World, OverTheOriginal) {
  backup(true);
  const Disk_Digests backed_up = digests("web01");
  guest_writes({{0, 0, 1 << 20}, {1, 2 << 20, 1 << 20}});
  const Disk_Digests replaced = digests("web01");
  ASSERT_NE(replaced, backed_up);
  const std::string set = set_uuids("web01").at(0);

  Run_Result r = stack_.cli({"restore", set, "--original"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("--overwrite"), std::string::npos) << r.err;
  EXPECT_EQ(find_vm("web01")["vm"]["id"], 101);

  r = stack_.cli({"restore", set, "--original", "--overwrite", "--interval", "0.1"});
  ASSERT_EQ(r.exit_code, 0) << r.err << r.out;
  const JSON_Value vm = find_vm("web01");
  EXPECT_NE(vm["vm"]["id"], 101);
  EXPECT_EQ(vm.value("host", ""), "cvk01");
  EXPECT_EQ(digests("web01"), backed_up);
  for (int i = 0; i < 2; ++i) {
    const JSON_Value old_disk =
        stack_.sim_control("sim", "GET", std::string("/sim/disks/digest?disk=") + disks[i]);
    EXPECT_EQ(replaced[i], std::string(i ? "vdb " : "vda ") + old_disk.value("sha256", ""));
  }
}
