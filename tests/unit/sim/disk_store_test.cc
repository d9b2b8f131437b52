// The disk images behind the disk service: seeded content, lookups by path and pool, snapshots.
#include "host/core/paths.h"
#include "sim/cas/simulator.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace {

using namespace cas_sim;

constexpr std::size_t unit = 64 << 10;

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
  JSON_Value json;
  World world;
  std::string error;
  EXPECT_TRUE(parse_json_text(text, json, error) && load_world(json, "world", world, error))
      << error;
  return world;
}

std::string slurp(const std::string& path) {
  std::string text;
  EXPECT_TRUE(read_file(path, text)) << path;
  return text;
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
    EXPECT_EQ(opened.error, 0) << path;
    return slurp(sim.disks().file_of(path));
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
  const struct {
    const char *name, *snapshot;
    bool writable;
    int error;
  } cases[] = {
      {"/p1/random", "", true, 0},       {"rbd:p1/random", "", false, 0},
      {"p1/random", "", false, -ENOENT}, {"rbd:p1/", "", false, -ENOENT},
      {"rbd:p1", "", false, -ENOENT},    {"/p1/random", "../text", false, -ENOENT},
  };
  for (const auto& c : cases) {
    Disk_Store::Opened opened = disks.open(c.name, c.snapshot, c.writable);
    EXPECT_EQ(opened.error, c.error) << c.name << "@" << c.snapshot;
    EXPECT_EQ(opened.fd >= 0, c.error == 0) << c.name;
    EXPECT_EQ(opened.size, c.error ? 0u : 64u << 20) << c.name;
  }
  EXPECT_FALSE(disks.take_snapshot("/p1/absent", "s1"));
  EXPECT_FALSE(disks.take_snapshot("/p1/random", "a/b"));
  // Without a data folder there is nowhere to keep images.
  Simulator no_data(make_world(1), "");
  EXPECT_EQ(no_data.disks().open("/p1/random", "", false).error, -EIO);
}

}  // namespace
