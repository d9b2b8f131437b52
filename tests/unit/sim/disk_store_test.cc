// The disk images behind the disk service: seeded content, lookups by path and pool, snapshots,
// CBTers and block lists; then the same through a running cas-sim's CVM and control routes (curl
// as the client).
#include "host/core/paths.h"
#include "sim/cas/simulator.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

namespace {
using namespace cas_sim;
using S = std::string;
constexpr std::uint64_t B = Disk_Store::block_size;

constexpr std::size_t unit = 64 << 10;

World load(const std::string& text) {
  JSON_Value json;
  World world;
  std::string error;
  EXPECT_TRUE(parse_json_text(text, json, error) && load_world(json, "world", world, error))
      << error;
  return world;
}

// One VM in pool "p1" with a disk per pattern (the one whose share of data is measured large
// enough for many extents), and a disk without content.
World make_world(std::uint64_t seed) {
  std::string text =
      R"({"operators": [{"id": 1, "login_name": "a", "password": "p", "group_id": 1}],
      "pools": [{"name": "p1", "type": "rbd", "path": "/p1", "capacity_mib": 1000}],
      "hosts": [{"id": 1, "name": "h", "ip": "10.0.0.1", "vms": [{"id": 1, "uuid": "u", "name": "v",
        "disks": [
          {"device_name": "vda", "size_mib": 64, "pool": "p1", "path": "/p1/random",
           "content": {"pattern": "random", "allocated_percent": 30, "seed": SEED}},
          {"device_name": "vdb", "size_mib": 16, "pool": "p1", "path": "/p1/text",
           "content": {"pattern": "text", "allocated_percent": 100, "seed": SEED}},
          {"device_name": "vdc", "size_mib": 16, "pool": "p1", "path": "/p1/mixed",
           "content": {"pattern": "zeros_and_random", "allocated_percent": 100, "seed": SEED}},
          {"device_name": "vdd", "size_mib": 16, "pool": "p1", "path": "/p1/empty",
           "content": {"pattern": "empty", "allocated_percent": 50}},
          {"device_name": "vdf", "size_mib": 3, "pool": "p1", "path": "/p1/bare"}]}]}]})";
  for (std::size_t at; (at = text.find("SEED")) != std::string::npos;)
    text.replace(at, 4, std::to_string(seed));
  return load(text);
}

// Bytes the file system holds for the file, holes left out.
std::uint64_t allocated_bytes(const std::string& path) {
  struct stat st = {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return static_cast<std::uint64_t>(st.st_blocks) * 512;
}
bool all_zero(const std::string& bytes, std::size_t from, std::size_t length) {
  return std::all_of(bytes.begin() + from, bytes.begin() + from + length,
                     [](char c) { return c == 0; });
}

struct Store {
  explicit Store(std::uint64_t seed) : sim(make_world(seed), dir.path()) {}
  // Opens (and so seeds) a disk and answers its image's bytes.
  std::string image(const std::string& path) {
    Disk_Store::Opened opened = sim.disks().open(path, "", false);
    std::string text;
    EXPECT_TRUE(opened.error == 0 && read_file(sim.disks().file_of(path), text)) << path;
    return text;
  }
  Temp_Dir dir;
  Simulator sim;
};

TEST(Disk_Store, SeedsEachPatternAlikeOpensByPathOrPoolAndRefusesOthers) {
  Store one(7), again(7), other(8);
  const std::uint64_t size = 64 << 20, small = 16 << 20;
  for (const char* path : {"/p1/random", "/p1/text", "/p1/mixed", "/p1/empty"}) {
    std::string bytes = one.image(path);
    ASSERT_EQ(bytes.size(), path == std::string("/p1/random") ? size : small) << path;
    EXPECT_EQ(again.image(path), bytes) << path;
    EXPECT_EQ(other.image(path) == bytes, std::string(path) == "/p1/empty") << path;
  }
  // About the share of the disk the world asks for holds data; the rest are holes.
  std::uint64_t random = allocated_bytes(one.sim.disks().file_of("/p1/random"));
  EXPECT_GT(random, size * 25 / 100);
  EXPECT_LT(random, size * 35 / 100);
  EXPECT_GE(allocated_bytes(one.sim.disks().file_of("/p1/text")), small);
  EXPECT_EQ(allocated_bytes(one.sim.disks().file_of("/p1/empty")), 0u);
  std::string bare = one.image("/p1/bare");
  EXPECT_EQ(bare.size(), 3u << 20);
  EXPECT_TRUE(all_zero(bare, 0, bare.size()));
  // Random data: data units use every byte value; holes read as zeros.
  std::string bytes = one.image("/p1/random");
  std::size_t data_units = 0;
  for (std::size_t at = 0; at < size; at += unit) {
    if (all_zero(bytes, at, unit))
      continue;
    ++data_units;
    bool seen[256] = {};
    for (std::size_t i = at; i < at + unit; ++i)
      seen[static_cast<unsigned char>(bytes[i])] = true;
    EXPECT_EQ(std::count(std::begin(seen), std::end(seen), true), 256) << at;
  }
  // The file system may count a block or two of its own extent tree.
  EXPECT_NEAR(static_cast<double>(data_units * unit), static_cast<double>(random), unit);
  Store store(1);
  Disk_Store& disks = store.sim.disks();
  const std::tuple<const char*, const char*, bool, int> cases[] = {
      // name, snapshot, rw, error
      {"/p1/random", "", true, 0},       {"rbd:p1/random", "", false, 0},
      {"p1/random", "", false, -ENOENT}, {"rbd:p1/", "", false, -ENOENT},
      {"rbd:p1", "", false, -ENOENT},    {"/p1/random", "../text", false, -ENOENT},
  };
  for (const auto& [name, snapshot, writable, error] : cases) {
    Disk_Store::Opened opened = disks.open(name, snapshot, writable);
    EXPECT_EQ(opened.error, error) << name << "@" << snapshot;
    EXPECT_EQ(opened.fd >= 0, error == 0) << name;
    EXPECT_EQ(opened.size, error ? 0u : 64u << 20) << name;
  }
  EXPECT_FALSE(disks.take_snapshot("/p1/absent", "s1") || disks.take_snapshot("/p1/random", "a/b"));
  // Without a data folder there is nowhere to keep images.
  Simulator no_data(make_world(1), "");
  EXPECT_EQ(no_data.disks().open("/p1/random", "", false).error, -EIO);
}

TEST(Disk_Store, SnapshotsFreezeCopyOnWriteAndTrackersNoteWrites) {
  Temp_Dir dir;
  Simulator sim(
      load(R"({"operators": [{"id": 1, "login_name": "a", "password": "p", "group_id": 1}],
      "pools": [{"name": "p1", "path": "/p1", "capacity_mib": 9000}],
      "hosts": [{"id": 1, "name": "h", "ip": "10.0.0.1", "vms": [{"id": 1, "uuid": "u", "name": "v",
        "disks": [{"device_name": "vda", "size_mib": 4, "pool": "p1", "path": "/p1/small"},
                  {"device_name": "vdb", "size_mib": 4096, "pool": "p1", "path": "/p1/big"}]}]}]})"),
      dir.path());
  Disk_Store& disks = sim.disks();
  Disk_Store::Opened small = disks.open("/p1/small", "", true),
                     big = disks.open("/p1/big", "", true);
  ASSERT_EQ(small.error | big.error, 0);
  auto write = [&](const Disk_Store::Opened& d, std::uint64_t offset, char c, std::size_t n = B) {
    ASSERT_EQ(disks.write(d, offset, std::string(n, c).data(), n), 0);
  };
  write(small, 100, 'x', 1), write(small, B, 'A'), write(big, 7 * B, 'A');
  ASSERT_TRUE(disks.add_tracker("/p1/small", "t1"));
  write(small, 3 * B, 'T');
  // Taking a snapshot copies nothing, whatever the size of the disk.
  for (const char* path : {"/p1/small", "/p1/big"}) {
    ASSERT_TRUE(disks.take_snapshot(path, "s1"));
    EXPECT_EQ(allocated_bytes(disks.file_of(path) + "@s1"), 0u) << path;
  }
  EXPECT_FALSE(disks.take_snapshot("/p1/small", "s1"));
  write(small, B, 'C');
  write(small, B + 10, 'c', 10);  // saved once only
  write(small, 5 * B, 'D'), write(big, 7 * B, 'C');
  // Only the blocks written since hold bytes: one block each, for 4 MiB as for 4 GiB.
  EXPECT_EQ(allocated_bytes(disks.file_of("/p1/small") + "@s1"), B);
  EXPECT_EQ(allocated_bytes(disks.file_of("/p1/big") + "@s1"), B);
  Disk_Store::Opened frozen = disks.open("/p1/small", "s1", false);
  ASSERT_EQ(frozen.error, 0);
  std::string bytes(8 * B, '?'), live(8 * B, '?');
  ASSERT_EQ(disks.read(frozen, 0, &bytes[0], bytes.size()), static_cast<long>(8 * B));
  ASSERT_EQ(disks.read(small, 0, &live[0], live.size()), static_cast<long>(8 * B));
  EXPECT_EQ(bytes.substr(B, B), std::string(B, 'A'));
  EXPECT_EQ(bytes.substr(5 * B, B), std::string(B, '\0'));
  EXPECT_EQ(bytes.substr(3 * B, B), std::string(B, 'T'));
  EXPECT_EQ(live.substr(B, 20), std::string(10, 'C') + std::string(10, 'c'));
  EXPECT_EQ(live.substr(5 * B, B), std::string(B, 'D'));
  EXPECT_EQ(disks.open("/p1/small", "s1", true).error, -EINVAL);
  EXPECT_EQ(disks.open("rbd:p1/small@s2", "", false).error, -ENOENT);
  EXPECT_EQ(disks.open("rbd:p1/small@s1", "", false).snapshot, "s1");
  using E = std::vector<Extent>;
  // tracker (null: allocated blocks), snapshot, success, blocks
  const std::tuple<const char*, const char*, bool, E> lists[] = {
      {nullptr, "", true, {{0, 2 * B}, {3 * B, B}, {5 * B, B}}},
      {nullptr, "s1", true, {{0, 2 * B}, {3 * B, B}}},
      {nullptr, "s9", false, {}},
      {"t1", "", true, {{B, B}, {3 * B, B}, {5 * B, B}}},
      {"t1", "s1", true, {{3 * B, B}}},
      {"t9", "", false, {}},
  };
  for (const auto& [tracker, snapshot, ok, blocks] : lists) {
    E got;
    EXPECT_EQ(tracker ? disks.changed_blocks("/p1/small", tracker, snapshot, got)
                      : disks.allocated_blocks("/p1/small", snapshot, got),
              ok)
        << (tracker ? tracker : "-") << "@" << snapshot;
    EXPECT_TRUE(got == blocks) << (tracker ? tracker : "-") << "@" << snapshot;
  }
  // A disk with snapshots keeps its size; a resize invalidates its trackers.
  bool valid = false;
  EXPECT_FALSE(disks.resize("/p1/small", 8 << 20));
  std::string path, backing;
  ASSERT_TRUE(disks.drop_snapshot("/p1/small", "s1", path, backing));
  EXPECT_EQ(path, "/p1/small");
  EXPECT_FALSE(disks.drop_snapshot("/p1/small", "s1", path, backing));
  ASSERT_TRUE(disks.tracker_valid("/p1/small", "t1", valid) && valid);
  EXPECT_FALSE(disks.resize("/p1/small", 2 << 20));
  ASSERT_TRUE(disks.resize("/p1/small", 8 << 20));
  ASSERT_TRUE(disks.tracker_valid("/p1/small", "t1", valid));
  EXPECT_FALSE(valid);
  E got;
  EXPECT_FALSE(disks.changed_blocks("/p1/small", "t1", "", got));
  EXPECT_EQ(disks.read(frozen, 0, &bytes[0], 1), -EIO);  // its snapshot is gone
  ASSERT_TRUE(disks.fail_reads("/p1/big", true));
  EXPECT_EQ(disks.read(big, 0, &bytes[0], 1), -EIO);
  ASSERT_TRUE(disks.drop_tracker("/p1/small", "t1"));
  EXPECT_FALSE(disks.tracker_valid("/p1/small", "t1", valid));
}

// The CVM routes a backup calls and the control routes a test drives, in the order a backup
// with an external snapshot uses them. Each row: "METHOD target" (a target without '/' is a CVM
// route), body, status, and a JSON document the answer must include (objects by subset, everything
// else exactly).
bool includes(const JSON_Value& got, const JSON_Value& want) {
  if (!want.is_object() || !got.is_object())
    return got == want;
  for (auto it = want.begin(); it != want.end(); ++it)
    if (!got.contains(it.key()) || !includes(got[it.key()], it.value()))
      return false;
  return true;
}

using Row = std::tuple<S, S, int, S>;

// Sends each row to the simulator at `base` with curl. A refusal's `want`, when given, is its
// "Error-Code Error-Message".
template <std::size_t N>
void expect_answers(const S& base, const Row (&rows)[N]) {
  for (const auto& [request, body, status, want] : rows) {
    const S method = request.substr(0, request.find(' ')),
            target = request.substr(method.size() + 1);
    // The control API asks for no credentials; curl would send a first digest request bare.
    const S url = base + (target[0] == '/' ? "" : "/cas/casrs/") + target;
    std::vector<S> argv = {"/usr/bin/curl",
                           "-s",
                           "-X",
                           method,
                           "-w",
                           "\n%{http_code} %header{error-code} %header{error-message}",
                           url};
    if (target[0] != '/')
      argv.insert(argv.begin() + 2, {"--digest", "-u", "admin:pw"});
    if (!body.empty())
      argv.insert(argv.end() - 1, {"--data-binary", body});
    Run_Result run = run_program(argv, "", {}, 30);
    std::size_t newline = run.out.rfind('\n');
    ASSERT_NE(newline, S::npos) << request << ": " << run.err;
    const S last = run.out.substr(newline + 1);
    EXPECT_EQ(last.substr(0, 3), std::to_string(status)) << request;
    if (status != 200) {
      EXPECT_TRUE(want.empty() || last.substr(4) == want) << request << ": " << last;
      continue;
    }
    JSON_Value got = JSON_Value::parse(run.out.substr(0, newline), nullptr, false);
    EXPECT_TRUE(includes(got, JSON_Value::parse(want))) << request << ": " << run.out;
  }
}

// Starts cas-sim on the world in `dir`; answers the base URL of its HTTP API.
S start_sim(Test_Process& sim, const Temp_Dir& dir) {
  JSON_Value ready;
  EXPECT_TRUE(sim.start({"cas-sim", "--world", dir.file("world.json"), "--ready-file",
                         dir.file("ready.json"), "--cvd-listen", "127.0.0.1:0", "--data",
                         dir.file("data")}) &&
              sim.wait_ready(dir.file("ready.json"), ready));
  return "http://127.0.0.1:" + std::to_string(ready.value("http_port", 0));
}

TEST(Cas_Sim_VM_Ops, SnapshotsTrackersBlocksPowerAndControlRoutesAnswerAsCasDoes) {
  Temp_Dir dir;
  write_text_file(dir.file("world.json"), R"({"knobs": {"task_duration_ms": 0},
      "operators": [{"id": 1, "login_name": "admin", "password": "pw", "group_id": 1}],
      "pools": [{"name": "p1", "path": "/p1", "capacity_mib": 1000}],
      "hosts": [{"id": 1, "name": "h", "ip": "127.0.0.1", "vms": [
        {"id": 1, "uuid": "u1", "name": "v", "disks": [
          {"device_name": "vda", "size_mib": 4, "pool": "p1", "path": "/p1/a",
           "backing_file": "/p1/base"}]},
        {"id": 2, "uuid": "u2", "name": "r", "disks": [
          {"device_name": "vda", "size_mib": 4, "format": "raw", "pool": "p1", "path": "/p1/r"}]},
        {"id": 3, "uuid": "u3", "name": "n", "disks": [{"device_name": "vda", "size_mib": 4,
          "format": "raw", "file_type": "network", "pool": "p1", "path": "p1/n"}]}]}]})");
  write_text_file(dir.file("fs.img"), "hello");
  Test_Process sim;
  const S base = start_sim(sim, dir);
  const std::string snap = R"({"vmId": "1", "name": "s1", "snapMem": "false",
      "noStopVirtSnapMem": "false", "snapshotMode": "2", "snapshotTimeOut": 1,
      "keepBitmap": "true", "snapBlock": "true"})";
  const S sha = R"({"sha256": ")",
          hello = sha + "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824\"}",
          HELLO = sha + "3733cd977ff8eb18b987357e22ced99f46097f31ecb239e878ae63760e83e4d5\"}";
  const auto msg = [](const char* id) { return R"({"msgId": ")" + S(id) + "\"}"; };
  const S tracker = "vm/disk/changedBlockTracker?vmName=v&name=c1";
  const Row rows[] = {
      {"POST /sim/disks/write", R"({"disk": "/p1/a", "offset": 0, "base64": "aGVsbG8="})", 200,
       R"({"written": 5})"},
      {"POST " + tracker + "&subordinateOnly=true", "", 200, msg("1")},
      {"GET " + tracker, "", 200, R"({"dirtyBitmapInfo": {"image": "/p1/a", "valid": "true"}})"},
      {"POST /sim/disks/write",
       R"({"disk": "/p1/a", "offset": 131072, "length": 65536, "pattern": "byte", "byte": 7})", 200,
       R"({"written": 65536})"},
      {"POST vm/snapshot", snap, 200, msg("2")},
      {"GET message/2", "", 200, R"({"completed": "true", "result": "0"})"},
      {"POST vm/snapshot", snap, 200, msg("3")},
      {"GET message/3", "", 200, R"({"result": "1", "failMsg": "快照名称已存在"})"},
      {"GET vm/detail/1", "", 200, R"({"storage": {"path": "/p1/a.s1", "backingFile": "/p1/a"}})"},
      {"GET vm/snapshot/1", "", 200,
       R"({"snapshot": {"snapshots": {"snapshot": {"name": "s1", "snapshotMode": "0"}}}})"},
      {"POST /sim/disks/write", R"({"disk": "/p1/a.s1", "offset": 0, "base64": "SEVMTE8="})", 200,
       "{}"},
      {"GET /sim/disks/digest?disk=/p1/a&length=5", "", 200, hello},
      {"GET /sim/disks/digest?disk=/p1/a.s1&offset=0&length=5", "", 200, HELLO},
      {"GET vm/disk/dataBlock?hostId=1&vmId=1&image=/p1/a&snapshot=s1", "", 200,
       R"({"dataBlockInfo": [{"offset": "0", "length": "65536"},
                             {"offset": "131072", "length": "65536"}]})"},
      {"GET vm/disk/changedBlock?vmId=1&srcPath=/p1/a&name=c1&snapshotName=s1", "", 200,
       R"({"dataBlockInfo": {"offset": "131072", "length": "65536"}})"},
      {"GET vm/disk/changedBlock?vmId=1&srcPath=/p1/a&name=c1", "", 200,
       R"({"dataBlockInfo": [{"offset": "0", "length": "65536"},
                             {"offset": "131072", "length": "65536"}]})"},
      {"GET vm/disk/changedBlock?vmId=1&srcPath=/p1/a&name=c9", "", 404, ""},
      {"GET /sim/leftovers", "", 200,
       R"({"snapshots": [{"vm_id": 1, "vm": "v", "name": "s1", "internal": false}],
           "cbters": [{"disk": "/p1/a", "name": "c1"}]})"},
      {"PUT /sim/disks/size", R"({"disk": "/p1/a", "size_mib": 8})", 409, ""},
      {"DELETE vm/snapshot/1/s1?tidyVmImages=false", "", 200, msg("4")},
      {"DELETE vm/snapshot/1/s1?tidyVmImages=false", "", 404, ""},
      {"GET vm/detail/1", "", 200, R"({"storage": {"path": "/p1/a", "backingFile": "/p1/base"}})"},
      {"GET /sim/disks/digest?disk=/p1/a&length=5", "", 200, HELLO},
      {"PUT /sim/disks/size", R"({"disk": "/p1/a", "size_mib": 8})", 200, "{}"},
      {"GET " + tracker, "", 200, R"({"dirtyBitmapInfo": {"valid": "false"}})"},
      {"DELETE " + tracker + "&isRegex=false", "", 200, msg("5")},
      {"GET /sim/leftovers", "", 200, R"({"snapshots": [], "cbters": []})"},
      {"POST vm/snapshot", R"({"vmId": "2", "name": "x", "snapshotMode": "1"})", 200, msg("6")},
      {"GET message/6", "", 200, R"({"result": "1", "failMsg": "raw格式的本地磁盘不支持快照"})"},
      {"POST vm/snapshot", R"({"vmId": "9", "name": "x", "snapshotMode": "1"})", 404, ""},
      {"PUT vm/stop/1", "", 200, msg("7")},
      {"GET message/7", "", 200, R"({"result": "0", "targetId": "1"})"},
      {"GET vm/detail/1", "", 200, R"({"status": "shutOff"})"},
      {"PUT vm/stop/1", "", 200, msg("8")},
      {"GET message/8", "", 200, R"({"result": "1", "failMsg": "虚拟机已关闭"})"},
      {"PUT vm/start/1", "", 200, "{}"},
      {"GET vm/detail/1", "", 200, R"({"status": "running"})"},
      {"POST /sim/cvd/fail_reads", R"({"disk": "/p1/none"})", 404, ""},
      {"POST /sim/cvd/drop", R"({"after_bytes": 10, "count": -1})", 400, ""},
      {"POST /sim/cvd/drop", R"({"after_bytes": 10, "disk": "/p1/none"})", 404, ""},
      {"POST /sim/cvd/hold", R"({"disk": "/p1/none"})", 404, ""},
      {"POST /sim/cvd/hold", R"({"disk": "/p1/a"})", 200, R"({"hold": true})"},
      {"GET /sim/cvd/hold", "", 200, R"({"waiting": {"/p1/a": 0}})"},
      {"POST /sim/disks/import", R"({"disk": "p1/n", "file": ")" + dir.file("fs.img") + "\"}", 200,
       R"({"written": 1048576})"},
      {"POST vm/snapshot", R"({"vmId": "3", "name": "n1", "snapshotMode": "1"})", 200, msg("10")},
      {"GET message/10", "", 200, R"({"result": "0"})"},
      {"POST /sim/disks/write", R"({"disk": "rbd:p1/n", "offset": 0, "length": 5})", 200, "{}"},
      {"GET /sim/disks/digest?disk=rbd:p1/n@n1&length=5", "", 200, hello},
      {"GET /sim/disks/digest?disk=p1/n&snapshot=n1&offset=5&length=5", "", 200,
       sha + "8855508aade16ec573d21e6a485dfd0a7624085c1a14b5ecdd6485de0c6839a4\"}"},
      // A state change takes as long as its task.
      {"PUT /sim/knobs", R"({"task_duration_ms": 3600000})", 200, "{}"},
      {"PUT vm/stop/3", "", 200, msg("11")},
      {"GET message/11", "", 200, R"({"completed": "false"})"},
      {"GET vm/detail/3", "", 200, R"({"status": "running"})"},
  };
  expect_answers(base, rows);
}

// What a restore makes, in its order: a VM, volumes, disks, data; then the removal of all of it.
TEST(Cas_Sim_Restore_Ops, VmsVolumesAndDisksAreMadeAndRemovedAsOnCas) {
  Temp_Dir dir;
  write_text_file(dir.file("world.json"), R"({"knobs": {"task_duration_ms": 0},
      "operators": [{"id": 1, "login_name": "admin", "password": "pw", "group_id": 1}],
      "pools": [{"name": "p1", "path": "/p1", "capacity_mib": 100}, {"name": "lun", "type": "iscsi",
        "path": "/dev/lun", "capacity_mib": 10, "volumes": [{"name": "l0", "size_mib": 10}]}],
      "port_profiles": [{"id": 1, "name": "Default"}],
      "hosts": [{"id": 1, "name": "h", "ip": "127.0.0.1", "vswitches": [{"id": 5, "name": "vs0"}],
        "vms": [{"id": 1, "uuid": "u1", "name": "v",
          "disks": [{"device_name": "vda", "size_mib": 4, "pool": "p1", "path": "/p1/a"}]}]}]})");
  Test_Process sim;
  const S base = start_sim(sim, dir);
  const S add = R"({"name": "r1", "title": "R", "hostId": "1", "memory": "2048",
      "cpuSockets": "2", "cpuCores": "2", "cpuShares": "1024", "maxCpuSocket": "16",
      "blkiotune": "500", "autoMigrate": "1", "formatEnable": "1", "osBit": "x86_64",
      "storage": [{"device": "floppy", "targetBus": "fdc"}], "system": "0", "osVersion": "W",
      "network": {"vsId": "5", "vsName": "vs0", "profileId": "1", "isKernelAccelerated": "1",
                  "deviceModel": "virtio"}})",
          vol = R"({"hostId": "1", "spName": "p1", "clusterSize": "65536", "volName": )",
          attach = R"({"id": "2", "name": "r1", "storage": {"device": "disk", "path": )",
          ok = R"({"result": "0"})", sha = R"({"sha256": ")";
  const auto msg = [](int id) { return R"({"msgId": ")" + std::to_string(id) + "\"}"; };
  const auto failed = [](S text) { return R"({"result": "1", "failMsg": ")" + text + "\"}"; };
  const Row rows[] = {
      {"POST vm/add", add, 200, msg(1)},
      {"GET message/1", "", 200, R"({"result": "0", "targetId": "2"})"},
      {"GET vm/detail/2", "", 200, R"({"status": "shutOff", "basic": {"name": "r1", "title": "R",
         "hostId": "1", "architecture": "x86_64", "system": "0", "osVersion": "W",
         "blkiotune": "500", "autoMigrate": "1"}, "cpu": {"cpuSockets": "2", "cpuCores": "2",
         "cpuShares": "1024", "maxCpuNum": "16"}, "memory": {"size": "2048"},
         "network": {"mac": "0c:da:41:00:02:00", "vsName": "vs0", "profileName": "Default"}})"},
      {"POST vm/add", add, 200, msg(2)},
      {"GET message/2", "", 200, failed("虚拟机名称已存在")},
      {"POST vm/add", R"({"name": "x", "hostId": "9"})", 404, "404 主机不存在"},
      {"POST vm/add", R"({"name": "x", "hostId": "1", "memory": "1.5"})", 400, "400 参数错误"},
      {"POST storage/volume", vol + R"("r1-vda", "capacity": 8, "mode": "1"})", 200, msg(3)},
      {"POST storage/volume", vol + R"("r1-vdb", "capacity": "8", "mode": "2", "format": "raw"})",
       200, msg(4)},
      {"POST storage/volume", vol + R"("r1-vda", "capacity": "8", "mode": "0"})", 500,
       "2005 存储卷已存在"},
      {"POST storage/volume", vol + R"("big", "capacity": "93", "mode": "0"})", 200, msg(5)},
      {"GET message/5", "", 200, failed("存储池空间不足")},
      {"POST storage/volume", vol + R"("x", "capacity": "1", "mode": "3"})", 400, "400 参数错误"},
      {"GET storage/volume?hostId=1&poolName=p1", "", 200, R"({"storageVolume": [
         {"name": "r1-vda", "path": "/p1/r1-vda", "size": "8", "allocation": "8", "users": "",
          "format": "qcow2", "mode": "1"},
         {"name": "r1-vdb", "path": "/p1/r1-vdb", "size": "8", "allocation": "0", "users": "",
          "format": "raw", "mode": "2"},
         {"name": "a", "path": "/p1/a", "size": "4", "allocation": "4", "users": "v",
          "format": "qcow2", "mode": "2"}]})"},
      {"PUT vm/addDevice", attach + R"("/p1/r1-vda", "fileType": "qcow2", "targetBus": "virtio",
         "deviceName": "vda", "cacheType": "none", "size": 8}})",
       200, msg(6)},
      {"GET message/6", "", 200, R"({"result": "0", "targetId": "2"})"},
      {"PUT vm/addDevice", attach + R"("/p1/r1-vda"}})", 200, msg(7)},
      {"GET message/7", "", 200, failed("存储卷已被虚拟机使用")},
      {"PUT vm/addDevice", attach + R"("/p1/none"}})", 200, msg(8)},
      {"GET message/8", "", 200, failed("存储卷不存在")},
      {"PUT vm/addDevice", attach + R"("/dev/lun/l0", "fileType": "raw"}})", 200, msg(9)},
      {"GET message/9", "", 200, ok},
      {"PUT vm/addDevice", R"({"id": "9", "storage": {"path": "/p1/r1-vdb"}})", 404,
       "404 虚拟机不存在"},
      {"GET vm/detail/2", "", 200, R"({"storage": [{"device": "disk", "deviceName": "vda",
         "fileType": "file", "path": "/p1/r1-vda", "format": "qcow2", "targetBus": "virtio",
         "size": "8", "allocation": "8", "cacheType": "none", "isShareStorage": "0", "mode": "1",
         "clusterSize": "65536", "storagePool": "p1"}, {"device": "disk", "deviceName": "vdb",
         "fileType": "block", "path": "/dev/lun/l0", "format": "raw", "targetBus": "virtio",
         "size": "10", "allocation": "10", "cacheType": "directsync", "isShareStorage": "0",
         "storagePool": "lun"}]})"},
      {"POST /sim/disks/write", R"({"disk": "/p1/r1-vdb", "offset": 0, "base64": "aGVsbG8="})", 200,
       R"({"written": 5})"},
      {"GET /sim/disks/digest?disk=rbd:/p1/r1-vdb&length=5", "", 200,
       sha + "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824\"}"},
      {"DELETE storage/volume/delete/1/p1/r1-vda", "", 200, msg(10)},
      {"GET message/10", "", 200, failed("存储卷已被虚拟机使用")},
      {"DELETE vm/delete/2", "", 200, msg(11)},
      {"GET message/11", "", 200, R"({"result": "0", "targetId": "2"})"},
      {"DELETE vm/delete/2", "", 500, "1001 虚拟机不存在"},
      {"GET vm/detail/2", "", 404, "404 虚拟机不存在"},
      {"DELETE storage/volume/delete/1/p1/r1-vda", "", 200, msg(12)},
      {"GET message/12", "", 200, ok},
      {"DELETE storage/volume/delete/1/p1/r1-vda", "", 404, "404 存储卷不存在"},
      {"DELETE storage/volume/delete/1/p1/r1-vdb", "", 200, msg(13)},
      {"POST storage/volume", vol + R"("r1-vdb", "capacity": "8"})", 200, msg(14)},
      {"GET /sim/disks/digest?disk=/p1/r1-vdb&length=5", "", 200,
       sha + "8855508aade16ec573d21e6a485dfd0a7624085c1a14b5ecdd6485de0c6839a4\"}"},
      {"DELETE vm/delete/1?deleteDisk=true", "", 200, msg(15)},
      {"GET storage/volume?hostId=1&poolName=p1", "", 200, R"({"storageVolume": {"name": "r1-vdb",
         "size": "8", "allocation": "0", "format": "qcow2", "mode": "2"}})"},
  };
  expect_answers(base, rows);
}
}  // namespace
