// libcvd.so against the disk service of a real cas-sim.
#include "h3ccas/servant/cvd_api.h"
#include "host/core/paths.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {
const char kLibrary[] = BRIMLET_LIB_DIR "/libcvd.so";
const char kWorld[] = R"({
  "operators": [{"id": 1, "login_name": "admin", "password": "Adm1n pass", "group_id": 1}],
  "pools": [{"name": "p1", "type": "rbd", "path": "/p1", "capacity_mib": 1000}],
  "hosts": [{"id": 1, "name": "cvk", "ip": "127.0.0.1", "vms": [{"id": 1, "uuid": "u", "name": "v",
    "disks": [{"device_name": "vda", "size_mib": 24, "pool": "p1", "path": "/p1/data",
       "content": {"pattern": "random", "allocated_percent": 40, "seed": 3}},
      {"device_name": "vdb", "size_mib": 16, "pool": "p1", "path": "/p1/scratch"}]}]}]})";
constexpr std::uint64_t kDataSize = 24 << 20, kScratchSize = 16 << 20;

std::string slurp(const std::string& path) {
  std::string text;
  return read_file(path, text), text;
}

class Libcvd_Test : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(inited_ ? cvd_deinit() : 0, 0); }
  // cas-sim with kWorld and libcvd ready to reach it.
  void start(const std::string& conf = "network_timeout = 20;\nlog_level = \"debug\";\n") {
    write_text_file(dir_.file("world.json"), kWorld);
    ASSERT_TRUE(sim_.start(
        {"cas-sim", "--world", dir_.file("world.json"), "--ready-file", dir_.file("ready.json"),
         "--cvd-listen", "127.0.0.1:0", "--data", dir_.file("data")},
        {}, dir_.file("sim.out")));
    JSON_Value ready;
    ASSERT_TRUE(sim_.wait_ready(dir_.file("ready.json"), ready)) << slurp(dir_.file("sim.out"));
    port_ = ready.value("cvd_port", 0);
    http_ = "http://127.0.0.1:" + std::to_string(ready.value("http_port", 0));
    ASSERT_GT(port_, 0);
    write_text_file(dir_.file("cvd.conf"), conf);
    ASSERT_EQ(cvd_init("cvd-test", log_file().c_str(), dir_.file("cvd.conf").c_str()), 0);
    inited_ = true;
  }
  int connect(cvd_conn_t* conn, const char* password = "Adm1n pass", const char* user = "admin") {
    cvd_connect_param param = {"127.0.0.1", port_, user, password, "vm v", 0};
    return cvd_connect(&param, conn);
  }
  cvd_disk_t open(cvd_conn_t conn, const char* path, int flags) {
    cvd_disk_t disk = nullptr;
    EXPECT_EQ(cvd_disk_open(conn, path, nullptr, flags, &disk), 0) << path;
    return disk;
  }
  std::string image(const std::string& path) { return slurp(dir_.file("data") + "/disks" + path); }
  std::string log_file() const { return dir_.file("cvd.log"); }
  Temp_Dir dir_;
  Test_Process sim_;
  int port_ = 0;
  std::string http_;
  bool inited_ = false;
};

// One call of the simulator's HTTP API through curl: its status.
std::string call(const std::string& method, const std::string& url, const std::string& body) {
  std::vector<std::string> argv = {
      "/usr/bin/curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "-X", method,
      "--data-binary", body, url};
  if (url.find("/cas/") != std::string::npos)
    argv.insert(argv.begin() + 2, {"--digest", "-u", "admin:Adm1n pass"});
  return run_program(argv, "", {}, 30).out;
}

TEST_F(Libcvd_Test, ReadsSeededContentRoundTripsWritesAndServesManyHandles) {
  start();
  cvd_conn_t conn = nullptr;
  ASSERT_EQ(connect(&conn), 0);
  // The seeded disk, read in pieces that do not line up with anything, is its image's bytes.
  cvd_disk_t data = open(conn, "/p1/data", CVD_OPEN_READ);
  ASSERT_NE(data, nullptr);
  std::string read(kDataSize, '\1');
  const std::uint64_t step = (3 << 20) + 7;
  for (std::uint64_t at = 0; at < kDataSize; at += step)
    ASSERT_EQ(cvd_disk_read(data, at, step, &read[at]),
              static_cast<std::int64_t>(std::min(step, kDataSize - at)))
        << at;
  EXPECT_TRUE(read == image("/p1/data"));
  // At and past the end: shortened, then nothing; writing is refused on a read-only handle.
  char tail[1000];
  EXPECT_EQ(cvd_disk_read(data, kDataSize - 100, sizeof tail, tail), 100);
  EXPECT_EQ(memcmp(tail, &read[kDataSize - 100], 100), 0);
  EXPECT_EQ(cvd_disk_read(data, kDataSize, sizeof tail, tail), 0);
  EXPECT_EQ(cvd_disk_read(data, kDataSize + 4096, sizeof tail, tail), 0);
  EXPECT_EQ(cvd_disk_write(data, 0, 10, tail), -EINVAL);
  EXPECT_EQ(cvd_disk_close(data), 0);
  // Writes through one handle (by pool and image) are read back through another.
  cvd_disk_t writer = open(conn, "rbd:p1/scratch", CVD_OPEN_READ_WRITE);
  cvd_disk_t reader = open(conn, "/p1/scratch", CVD_OPEN_READ);
  ASSERT_TRUE(writer && reader);
  std::string shadow(kScratchSize, '\0');
  std::mt19937_64 random(42);
  for (int i = 0; i < 24; ++i) {
    // Up to 10 MiB: several pieces in flight, some writes cut by the end of the disk.
    std::uint64_t offset = random() % kScratchSize;
    std::uint64_t length =
        std::min<std::uint64_t>(random() % (10 << 20) + 1, kScratchSize - offset);
    std::string bytes(length, '\0');
    for (char& c : bytes)
      c = static_cast<char>(random());
    ASSERT_EQ(cvd_disk_write(writer, offset, length, bytes.data()),
              static_cast<std::int64_t>(length));
    shadow.replace(offset, length, bytes);
    std::string back(length, '\0');
    ASSERT_EQ(cvd_disk_read(reader, offset, length, &back[0]), static_cast<std::int64_t>(length));
    ASSERT_TRUE(back == bytes) << "write " << i << " at " << offset << " of " << length;
  }
  EXPECT_EQ(cvd_disk_write(writer, kScratchSize - 10, 20, tail), -EINVAL);
  EXPECT_EQ(cvd_disk_write(writer, kScratchSize + 1, 0, tail), -EINVAL);
  std::string whole(kScratchSize, '\0');
  EXPECT_EQ(cvd_disk_read(reader, 0, kScratchSize, &whole[0]),
            static_cast<std::int64_t>(kScratchSize));
  EXPECT_TRUE(whole == shadow && image("/p1/scratch") == shadow);
  EXPECT_EQ(cvd_disk_close(writer) | cvd_disk_close(reader), 0);
  std::vector<std::string> parts(8);
  std::vector<std::thread> threads;
  // One connection, a handle per thread, each thread reading its eighth of the disk.
  for (std::size_t t = 0; t < parts.size(); ++t)
    threads.emplace_back([&, t] {
      cvd_disk_t disk = open(conn, "/p1/data", CVD_OPEN_READ);
      const std::uint64_t share = kDataSize / parts.size(), piece = 300 << 10;
      parts[t].resize(share);
      for (std::uint64_t at = 0; disk && at < share; at += piece) {
        std::uint64_t n = std::min(piece, share - at);
        EXPECT_EQ(cvd_disk_read(disk, t * share + at, n, &parts[t][at]),
                  static_cast<std::int64_t>(n));
      }
      EXPECT_EQ(disk ? cvd_disk_close(disk) : -1, 0);
    });
  std::string all;
  for (std::size_t t = 0; t < parts.size(); ++t) {
    threads[t].join();
    all += parts[t];
  }
  EXPECT_TRUE(all == image("/p1/data"));
  // A volume made as a restore makes it takes writes by its path, and the control API digests them.
  ASSERT_EQ(call("POST", http_ + "/cas/casrs/storage/volume",
                 R"({"hostId": "1", "spName": "p1", "volName": "new", "capacity": "2"})"),
            "200");
  cvd_disk_t fresh = open(conn, "/p1/new", CVD_OPEN_READ_WRITE);
  EXPECT_EQ(cvd_disk_write(fresh, (2 << 20) - 5, 5, "hello"), 5);
  EXPECT_EQ(cvd_disk_write(fresh, (2 << 20) - 4, 5, "hello"), -EINVAL);
  EXPECT_EQ(cvd_disk_close(fresh), 0);
  const std::string digest =
      run_program({"/usr/bin/curl", "-s", http_ + "/sim/disks/digest?disk=/p1/new&offset=2097147"},
                  "", {}, 30)
          .out;
  EXPECT_EQ(
      digest,
      R"({"length":5,"offset":2097147,"sha256":"2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824"})");
  EXPECT_EQ(cvd_disconnect(conn), 0);
}

TEST_F(Libcvd_Test, RefusesWrongCredentialsAndUnknownDisksAndReportsAServiceThatWentAway) {
  start("network_timeout = 3000000;\n");  // weeks, more milliseconds than an int holds
  EXPECT_NE(slurp(log_file()).find("network_timeout = 3000000 s"), std::string::npos);
  const char* const logins[][3] = {{"admin", "adm1n pass"}, {"nobody", "Adm1n pass"}};
  for (const auto& login : logins) {
    cvd_conn_t conn = nullptr;
    EXPECT_EQ(connect(&conn, login[1], login[0]), -EACCES) << login[0];
    EXPECT_EQ(conn, nullptr);
  }
  cvd_conn_t conn = nullptr;
  ASSERT_EQ(connect(&conn), 0);
  const std::tuple<const char*, const char*, int, int> opens[] = {
      // path, snapshot, flags, error
      {"/p1/absent", nullptr, CVD_OPEN_READ, -ENOENT},
      {"rbd:p2/data", nullptr, CVD_OPEN_READ, -ENOENT},
      {"/p1/data", "never-taken", CVD_OPEN_READ, -ENOENT},
      {"/p1/data", "never-taken", CVD_OPEN_READ_WRITE, -EINVAL},
      {"/p1/data", nullptr, 3, -EINVAL},
      {"", nullptr, CVD_OPEN_READ, -EINVAL},
  };
  for (const auto& [path, snapshot, flags, error] : opens) {
    cvd_disk_t disk = nullptr;
    EXPECT_EQ(cvd_disk_open(conn, path, snapshot, flags, &disk), error) << path;
    EXPECT_EQ(disk, nullptr) << path;
  }
  cvd_disk_t disk = open(conn, "/p1/data", CVD_OPEN_READ);
  ASSERT_NE(disk, nullptr);
  char buffer[4096];
  ASSERT_EQ(cvd_disk_read(disk, 0, sizeof buffer, buffer), 4096);
  sim_.stop();
  EXPECT_EQ(cvd_disk_read(disk, 0, sizeof buffer, buffer), -ECONNRESET);
  EXPECT_EQ(cvd_disk_read(disk, 0, sizeof buffer, buffer), -ECONNRESET);
  cvd_disk_t again = nullptr;
  EXPECT_EQ(cvd_disk_open(conn, "/p1/data", nullptr, CVD_OPEN_READ, &again), -ECONNREFUSED);
  cvd_conn_t other = nullptr;
  EXPECT_EQ(connect(&other), -ECONNREFUSED);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(cvd_disk_close(disk), 0);
  EXPECT_EQ(cvd_disconnect(conn), 0);
}

TEST_F(Libcvd_Test, ReachesTheServiceByTheAddressMapReadsFrozenSnapshotsAndMeetsFaults) {
  start();
  // The module connects to port 8192 of a CVK; the map sends it to the simulator.
  std::string map = "10.9.9.9:1=127.0.0.1:1,*=127.0.0.1:" + std::to_string(port_);
  ASSERT_EQ(setenv("CVD_SIM_ADDRESS_MAP", map.c_str(), 1), 0);
  cvd_connect_param param = {"192.0.2.1", 8192, "admin", "Adm1n pass", "vm v", 0};
  cvd_conn_t conn = nullptr;
  ASSERT_EQ(cvd_connect(&param, &conn), 0);
  unsetenv("CVD_SIM_ADDRESS_MAP");
  ASSERT_EQ(call("POST", http_ + "/cas/casrs/vm/snapshot",
                 R"({"vmId": "1", "name": "s1", "snapshotMode": "1"})"),
            "200");
  // The guest writes on while the snapshot is read: it keeps the bytes of its time.
  const std::string before = image("/p1/data");  // seeded by the snapshot
  ASSERT_EQ(before.size(), kDataSize);
  cvd_disk_t writer = open(conn, "/p1/data", CVD_OPEN_READ_WRITE);
  cvd_disk_t frozen = nullptr, by_name = nullptr;
  ASSERT_EQ(cvd_disk_open(conn, "/p1/data", "s1", CVD_OPEN_READ, &frozen), 0);
  ASSERT_EQ(cvd_disk_open(conn, "rbd:p1/data@s1", nullptr, CVD_OPEN_READ, &by_name), 0);
  std::string noise(kDataSize / 2, '\x5a'), read(kDataSize, '\0'), again(kDataSize, '\0');
  std::thread guest([&] {
    EXPECT_EQ(cvd_disk_write(writer, kDataSize / 4, noise.size(), noise.data()),
              static_cast<std::int64_t>(noise.size()));
  });
  EXPECT_EQ(cvd_disk_read(frozen, 0, kDataSize, &read[0]), static_cast<std::int64_t>(kDataSize));
  guest.join();
  EXPECT_EQ(cvd_disk_read(by_name, 0, kDataSize, &again[0]), static_cast<std::int64_t>(kDataSize));
  EXPECT_TRUE(read == before && again == before);
  EXPECT_EQ(image("/p1/data").substr(kDataSize / 4, noise.size()), noise);
  // Faults: reads of one disk fail; a connection is dropped after so many bytes, once.
  ASSERT_EQ(call("POST", http_ + "/sim/cvd/fail_reads", R"({"disk": "/p1/data"})"), "200");
  EXPECT_EQ(cvd_disk_read(frozen, 0, 4096, &read[0]), -EIO);
  EXPECT_EQ(cvd_disk_read(writer, 0, 4096, &read[0]), -EIO);
  ASSERT_EQ(call("POST", http_ + "/sim/cvd/fail_reads", R"({"disk": "/p1/data", "fail": false})"),
            "200");
  ASSERT_EQ(call("POST", http_ + "/sim/cvd/drop", R"({"after_bytes": 1048576})"), "200");
  cvd_disk_t dropped = open(conn, "/p1/scratch", CVD_OPEN_READ);
  EXPECT_EQ(cvd_disk_read(dropped, 0, 4 << 20, &read[0]), -ECONNRESET);
  EXPECT_EQ(cvd_disk_read(frozen, 0, 4 << 20, &read[0]), 4 << 20);
  // A writing connection meets the drop too, and nothing past the budget lands.
  ASSERT_EQ(call("POST", http_ + "/sim/cvd/drop", R"({"after_bytes": 1048576})"), "200");
  cvd_disk_t cut = open(conn, "/p1/data", CVD_OPEN_READ_WRITE);
  const std::string zeros(2 << 20, '\0');
  EXPECT_EQ(cvd_disk_write(cut, 0, zeros.size(), zeros.data()), -ECONNRESET);
  EXPECT_NE(image("/p1/data").substr(0, zeros.size()), zeros);
  for (cvd_disk_t d : {writer, frozen, by_name, dropped, cut})
    EXPECT_EQ(cvd_disk_close(d), 0);
  EXPECT_EQ(cvd_disconnect(conn), 0);
}

TEST_F(Libcvd_Test, InitReadsTheConfigurationOnceAndTheLibraryExportsOnlyItsInterface) {
  cvd_conn_t conn = nullptr;
  cvd_connect_param param = {"127.0.0.1", 1, "admin", "x", nullptr, 0};
  EXPECT_EQ(cvd_connect(&param, &conn), -EINVAL);  // before cvd_init
  const std::pair<const char*, int> cases[] = {
      // no configuration file for nullptr
      {"network_timeout = 86401;\n", 0},  // a job's time-out may exceed a day
      {"# comment\nother_key = 1;\nlog_level = \"loud\";\n", 0},
      {"network_timeout = 0;\n", -EINVAL},
      {"network_timeout = -5;\n", -EINVAL},
      {"network_timeout = 5 minutes;\n", -EINVAL},
      {nullptr, -EINVAL},
  };
  for (const auto& [text, result] : cases) {
    std::string conf = dir_.file("c.conf");
    unlink(conf.c_str());
    if (text)
      write_text_file(conf, text);
    EXPECT_EQ(cvd_init("t", log_file().c_str(), conf.c_str()), result) << conf;
    if (result == 0) {
      EXPECT_EQ(cvd_init("t", log_file().c_str(), conf.c_str()), -EINVAL);  // once
      EXPECT_EQ(cvd_deinit(), 0);
    }
  }
  std::string log = slurp(log_file());
  EXPECT_NE(log.find("network_timeout = 86401 s, log_level = INFO"), std::string::npos) << log;
  EXPECT_NE(log.find("Unknown log_level 'loud'"), std::string::npos) << log;
  EXPECT_NE(log.find("Invalid network_timeout '5 minutes'"), std::string::npos) << log;
  // A log that cannot be written does not stop the library.
  EXPECT_EQ(cvd_init("t", dir_.file("absent/cvd.log").c_str(), nullptr), 0);
  EXPECT_EQ(cvd_deinit(), 0);
  Run_Result symbols = run_program(
      {"/usr/bin/env", "nm", "-D", "--defined-only", "--format=just-symbols", kLibrary});
  ASSERT_EQ(symbols.exit_code, 0) << symbols.err;
  EXPECT_EQ(symbols.out,
            "cvd_connect\ncvd_deinit\ncvd_disconnect\ncvd_disk_close\ncvd_disk_open\n"
            "cvd_disk_read\ncvd_disk_write\ncvd_init\n");
  Run_Result needed = run_program({"/usr/bin/env", "readelf", "-d", kLibrary});
  EXPECT_NE(needed.out.find("(NEEDED)"), std::string::npos) << needed.out;
  EXPECT_EQ(needed.out.find("brimlet"), std::string::npos) << needed.out;
  EXPECT_EQ(needed.out.find("ACE"), std::string::npos) << needed.out;
}
}  // namespace
