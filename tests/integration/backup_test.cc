#include "host/core/crypto.h"
#include "host/core/text.h"
#include "host/storage/client_io.h"
#include "host/storage/image.h"
#include "tests/integration/test_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <future>

#include <filesystem>
#include <regex>
#include <set>
#include <thread>

namespace {

using namespace std::chrono_literals;

// One running VM on three qcow2 disks, so that backups go through a snapshot and CBT.
const char backup_world[] = R"({"knobs": {"task_duration_ms": 0},
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "defaultpool", "type": "dir", "path": "/vms/images", "capacity_mib": 512000}],
  "hosts": [{"id": 1, "name": "cvk01", "ip": "192.168.10.11", "vms": [{"id": 101, "uuid":
    "4d7f6c3a-0000-4000-8000-000000000101", "name": "web01", "status": "running", "disks": [
    {"device_name": "vda", "size_mib": 16, "pool": "defaultpool", "path": "/vms/images/web01-vda",
     "content": {"pattern": "random", "allocated_percent": 50, "seed": 1}},
    {"device_name": "vdb", "size_mib": 8, "pool": "defaultpool", "path": "/vms/images/web01-vdb",
     "content": {"pattern": "text", "allocated_percent": 25, "seed": 2}},
    {"device_name": "vdc", "size_mib": 8, "pool": "defaultpool", "path": "/vms/images/web01-vdc",
     "content": {"pattern": "zeros_and_random", "allocated_percent": 60, "seed": 3}}]}]}]})";
const char* const disks[] = {"/vms/images/web01-vda", "/vms/images/web01-vdb",
                             "/vms/images/web01-vdc"};
const std::size_t disk_bytes[] = {16u << 20, 8u << 20, 8u << 20};

// What a backup leaves on the simulated CVM: no snapshot, and one CBTer per disk, the run's own,
// which the next incremental reads: "<disk> <name prefix>" lines.
std::string leftovers(const Test_Stack& stack) {
  JSON_Value left = stack.sim_control("sim", "GET", "/sim/leftovers");
  std::string out = left["snapshots"].dump();
  for (const JSON_Value& c : left["cbters"])
    out += "\n" + c["disk"].get<std::string>() + " " +
           c["name"].get<std::string>().substr(0, c["name"].get<std::string>().rfind('_'));
  return out;
}

// The objects under `dir`, sorted, with their times as "T".
std::string objects(const std::string& dir) {
  std::set<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir, ec))
    if (e.is_regular_file())
      names.insert(std::regex_replace(std::filesystem::relative(e.path(), dir).string(),
                                      std::regex("_[0-9]{14}_"), "_T_"));
  std::string out;
  for (const auto& n : names)
    out += n + "\n";
  return out;
}

// A disk's path as the names of its image objects begin.
std::string flat(std::string disk) {
  std::replace(disk.begin(), disk.end(), '/', '_');
  return disk;
}

// The SHA-256 of a disk as cas-sim holds it now.
std::string sim_digest(const Test_Stack& stack, const std::string& disk) {
  return stack.sim_control("sim", "GET", "/sim/disks/digest?disk=" + disk)["sha256"].dump();
}

// The SHA-256 of disk `index` rebuilt from zeros by every image object of it in `vm_dir` of the
// pool, oldest first: what a restore of the newest set gives.
std::string rebuilt_digest(const std::string& pool, const std::string& vm_dir, int index) {
  const std::string tag = flat(disks[index]) + "_";
  std::set<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(pool + "/" + vm_dir, ec))
    if (e.path().filename().string().rfind(tag, 0) == 0)
      names.insert(vm_dir + e.path().filename().string());
  std::string disk(disk_bytes[index], '\0');
  Client_IO_Ex io;
  if (!io.connect("file://" + pool, Client_IO_Base::Options()))
    return io.error();
  for (const std::string& name : names) {
    Image_Block_Reader reader(&io, 1 << 20);
    if (!io.open(name, Client_IO_Ex::Read) ||
        !reader.read_blocks([&](const void* data, std::size_t length, std::uint64_t offset) {
          return offset + length <= disk.size() && memcpy(&disk[offset], data, length);
        }) ||
        !io.close())
      return "cannot read " + name;
  }
  MD_Generator md(disk.data(), disk.size(), MD_SHA256);
  return JSON_Value(Hex_String_T(md.get(), md.length()).str()).dump();
}

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
// servants, cas-sim's CVM and disk service and a file pool: both are cataloged, each set's images
// rebuild the disks as they were, the incremental stores only what changed, and each leaves no
// snapshot and only its own CBTers behind.
TEST(Backup, FullThenIncrementalOfARunningVm) {
  Test_Stack stack;
  write_text_file(stack.dir().file("world.json"), backup_world);
  std::uint16_t port = stack.start_sim("sim", stack.dir().file("world.json"));
  ASSERT_NE(port, 0);
  ASSERT_TRUE(stack.start_server_and_agent(
      {"CVD_SIM_ADDRESS_MAP=*=127.0.0.1:" + std::to_string(stack.cvd_port("sim"))}));
  std::string cvm = stack.add_cvm("lab", port, "admin", "Adm1n pass");
  ASSERT_FALSE(cvm.empty());
  std::string pool = stack.dir().path() + "/pool";
  Run_Result r = stack.cli({"pool", "add", "--name", "nas", "--url", "file://" + pool});
  ASSERT_EQ(r.exit_code, 0) << r.err;

  r = stack.cli({"backup", "lab", "--pool", "nas", "--full", "--interval", "0.1", "web01"});
  ASSERT_EQ(r.exit_code, 0) << r.err << r.out;
  std::uintmax_t full_bytes = stored_bytes(pool);
  EXPECT_GT(full_bytes, 8u << 20);
  // The pool holds the CVM's objects by host and VM: an image per disk and the VM's configuration.
  std::string vm_dir = cvm + "/cvk01/web01/";
  auto images = [&](std::initializer_list<const char*> types) {
    std::string out;
    for (const char* disk : disks)
      for (const char* type : types)
        out += vm_dir + flat(disk) + "_T_" + type + "_0.zst\n";
    return out;
  };
  EXPECT_EQ(objects(pool), images({"full"}) + vm_dir + "vm_config_T_full.json.zst\n");
  auto cbters = [](const std::string& type) {
    std::string out = "[]";
    for (const char* disk : disks)
      out += "\n" + std::string(disk) + " Brimlet5_" + type;
    return out;
  };
  EXPECT_EQ(leftovers(stack), cbters("full"));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(rebuilt_digest(pool, vm_dir, i), sim_digest(stack, disks[i])) << disks[i];

  // The guest writes into the first and last disks, over data and over holes.
  for (auto [disk, offset] : {std::pair(disks[0], 1 << 20), std::pair(disks[2], 7 << 20)}) {
    JSON_Value write = {{"disk", disk}, {"offset", offset}, {"length", 65536}};
    ASSERT_TRUE(stack.sim_control("sim", "POST", "/sim/disks/write", write).is_object());
  }
  r = stack.cli({"backup", "lab", "--pool", "nas", "--interval", "0.1", "web01"});
  ASSERT_EQ(r.exit_code, 0) << r.err << r.out;
  std::uintmax_t increment = stored_bytes(pool) - full_bytes;
  EXPECT_GT(increment, 0u);
  EXPECT_EQ(objects(pool), images({"full", "incremental"}) + vm_dir +
                               "vm_config_T_full.json.zst\n" + vm_dir +
                               "vm_config_T_incremental.json.zst\n");
  EXPECT_LT(increment, full_bytes / 8);
  EXPECT_EQ(leftovers(stack), cbters("incremental"));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(rebuilt_digest(pool, vm_dir, i), sim_digest(stack, disks[i])) << disks[i];

  r = stack.cli({"--json", "sets", "list", "--vm", "web01"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  JSON_Value sets = JSON_Value::parse(r.out, nullptr, false);
  ASSERT_TRUE(sets.is_array()) << r.out;
  ASSERT_EQ(sets.size(), 2u) << r.out;
  // Newest first: the incremental, on the full as its base.
  EXPECT_EQ(sets[0]["backup_type"], "incremental");
  EXPECT_EQ(sets[1]["backup_type"], "full");
  EXPECT_EQ(sets[0]["base"], sets[1]["uuid"]);
  EXPECT_EQ(sets[0]["chain"], JSON_Value::array({sets[1]["uuid"], sets[0]["uuid"]}));
  EXPECT_LT(sets[0]["storage_size"].get<std::uint64_t>(),
            sets[1]["storage_size"].get<std::uint64_t>() / 4);

  // A new full set while the guest rewrites a disk under it: the set holds the disk as the
  // snapshot froze it, and the CBTers of the old chain go.
  const std::string frozen = sim_digest(stack, disks[1]);
  stack.sim_control("sim", "POST", "/sim/cvd/hold", {{"disk", disks[1]}, {"hold", true}});
  auto full = std::async(std::launch::async, [&] {
    return stack.cli({"backup", "lab", "--pool", "nas", "--full", "--interval", "0.1", "web01"});
  });
  bool reading = false;
  for (int i = 0; i < 1500 && !reading; ++i, std::this_thread::sleep_for(20ms))
    reading = stack.sim_control("sim", "GET", "/sim/cvd/hold")["waiting"].value(disks[1], 0) > 0;
  // The guest writes where the disk is now: an external snapshot moved it into an overlay.
  JSON_Value now = stack.sim_control("sim", "GET", "/sim/world")["hosts"][0]["vms"][0]["disks"][1];
  JSON_Value write = {{"disk", now["path"]}, {"offset", 0}, {"length", disk_bytes[1]}};
  EXPECT_TRUE(stack.sim_control("sim", "POST", "/sim/disks/write", write).is_object());
  stack.sim_control("sim", "POST", "/sim/cvd/hold", {{"disk", disks[1]}, {"hold", false}});
  r = full.get();
  ASSERT_TRUE(reading && r.exit_code == 0) << r.err << r.out;
  EXPECT_NE(sim_digest(stack, disks[1]), frozen);
  EXPECT_EQ(rebuilt_digest(pool, vm_dir, 1), frozen);
  EXPECT_EQ(leftovers(stack), cbters("full"));
}
