// Disk read throughput through libcvd: cas-sim serves a fully allocated disk (random data, no
// holes) and libcvd.so, loaded as the servant loads it, reads it whole with 1, 2 and 4
// connections (a thread and a disk handle each, splitting the disk) in large reads. In the same
// run `cat <disk file> > /dev/null` reads the same file as the baseline. Nothing is dropped from
// the page cache: the image is read once before timing, so both sides read it warm. Prints a
// table and writes the numbers as JSON.
//
//   cvd_read_bench [--runs N] [--size-mib N] [--read-mib N] [--out FILE]
#include "bench/results.h"
#include "h3ccas/servant/cvd_api.h"
#include "host/core/json.h"
#include "host/core/paths.h"
#include "host/core/text.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
  int runs = 5;
  int size_mib = 1024;
  int read_mib = 8;
  std::string out = std::string(BRIMLET_SOURCE_DIR) + "/bench/results/cvd_read.json";
};

struct Result {
  std::string method;
  int connections = 0;  // 0: the baseline
  std::vector<double> seconds;
};

void report(const std::string& what) {
  fprintf(stderr, "cvd_read_bench: %s\n", what.c_str());
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

struct Api {
  decltype(&cvd_init) init;
  decltype(&cvd_deinit) deinit;
  decltype(&cvd_connect) connect;
  decltype(&cvd_disconnect) disconnect;
  decltype(&cvd_disk_open) open;
  decltype(&cvd_disk_close) close;
  decltype(&cvd_disk_read) read;
};

bool load(void* library, Api& api) {
  auto find = [&](const char* name) {
    void* f = dlsym(library, name);
    if (!f)
      report(std::string("libcvd.so has no ") + name);
    return f;
  };
  api.init = reinterpret_cast<decltype(api.init)>(find("cvd_init"));
  api.deinit = reinterpret_cast<decltype(api.deinit)>(find("cvd_deinit"));
  api.connect = reinterpret_cast<decltype(api.connect)>(find("cvd_connect"));
  api.disconnect = reinterpret_cast<decltype(api.disconnect)>(find("cvd_disconnect"));
  api.open = reinterpret_cast<decltype(api.open)>(find("cvd_disk_open"));
  api.close = reinterpret_cast<decltype(api.close)>(find("cvd_disk_close"));
  api.read = reinterpret_cast<decltype(api.read)>(find("cvd_disk_read"));
  return api.init && api.deinit && api.connect && api.disconnect && api.open && api.close &&
         api.read;
}

const char disk_path[] = "/vms/images/bench-vda";

// Reads the whole disk with `connections` threads, each on a handle of its own reading its share
// in reads of `read_size`; false (reported) on any failure.
bool read_disk(const Api& api, cvd_conn_t conn, std::uint64_t size, int connections,
               std::size_t read_size) {
  std::atomic<bool> ok{true};
  std::vector<std::thread> threads;
  const std::uint64_t share = size / static_cast<std::uint64_t>(connections);
  for (int t = 0; t < connections; ++t)
    threads.emplace_back([&, t] {
      cvd_disk_t disk = nullptr;
      int error = api.open(conn, disk_path, nullptr, CVD_OPEN_READ, &disk);
      if (error != 0) {
        report("cvd_disk_open failed: " + std::to_string(error));
        ok = false;
        return;
      }
      std::unique_ptr<char[]> buffer(new char[read_size]);
      const std::uint64_t begin = share * static_cast<std::uint64_t>(t);
      const std::uint64_t end = t + 1 == connections ? size : begin + share;
      for (std::uint64_t at = begin; at < end && ok; at += read_size) {
        std::uint64_t n = std::min<std::uint64_t>(read_size, end - at);
        std::int64_t got = api.read(disk, at, n, buffer.get());
        if (got != static_cast<std::int64_t>(n)) {
          report("cvd_disk_read at " + std::to_string(at) + " gave " + std::to_string(got));
          ok = false;
        }
      }
      api.close(disk);
    });
  for (std::thread& thread : threads)
    thread.join();
  return ok;
}

// Runs `once` `runs` times after a warm-up, timing each.
bool measure(Result result, int runs, const std::function<bool()>& once,
             std::vector<Result>& results) {
  for (int i = -1; i < runs; ++i) {
    auto start = std::chrono::steady_clock::now();
    if (!once())
      return false;
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    if (i >= 0)
      result.seconds.push_back(took.count());
  }
  results.push_back(std::move(result));
  return true;
}

double mb_per_second(const Result& r, std::uint64_t size) {
  return static_cast<double>(size) / 1e6 / median(r.seconds);
}

void print_table(const std::vector<Result>& results, const Options& opts, std::uint64_t size) {
  printf(
      "Disk read: %d MiB fully allocated disk, %d MiB reads, %d runs each after a warm-up, "
      "page cache warm for both\n",
      opts.size_mib, opts.read_mib, opts.runs);
  printf("%-28s %10s %10s %10s %10s\n", "method", "MB/s", "min s", "max s", "vs cat");
  const double baseline = mb_per_second(results.front(), size);
  for (const Result& r : results) {
    double speed = mb_per_second(r, size);
    printf("%-28s %10.0f %10.3f %10.3f %10.2f\n", r.method.c_str(), speed,
           *std::min_element(r.seconds.begin(), r.seconds.end()),
           *std::max_element(r.seconds.begin(), r.seconds.end()), speed / baseline);
  }
}

JSON_Value to_json(const std::vector<Result>& results, const Options& opts, std::uint64_t size) {
  const double baseline = mb_per_second(results.front(), size);
  JSON_Value out = {
      {"benchmark", "cvd_read"}, {"disk_bytes", size},   {"read_bytes", opts.read_mib << 20},
      {"runs", opts.runs},       {"page_cache", "warm"}, {"results", JSON_Value::array()}};
  for (const Result& r : results)
    out["results"].push_back({{"method", r.method},
                              {"connections", r.connections},
                              {"median_mb_per_second", mb_per_second(r, size)},
                              {"ratio_to_cat", mb_per_second(r, size) / baseline},
                              {"runs_seconds", r.seconds}});
  return out;
}

int run(const Options& opts) {
  Temp_Dir dir;
  const std::uint64_t size = static_cast<std::uint64_t>(opts.size_mib) << 20;
  JSON_Value world = JSON_Value::parse(R"({
      "operators": [{"id": 1, "login_name": "admin", "password": "Bench pass", "group_id": 1}],
      "pools": [{"name": "defaultpool", "path": "/vms/images", "capacity_mib": 1048576}],
      "hosts": [{"id": 1, "name": "cvk01", "ip": "127.0.0.1", "vms": [{"id": 1, "uuid": "b",
        "name": "bench", "disks": [{"device_name": "vda", "size_mib": 0, "format": "raw",
          "pool": "defaultpool", "path": "/vms/images/bench-vda",
          "content": {"pattern": "random", "allocated_percent": 100, "seed": 1}}]}]}]})");
  world["hosts"][0]["vms"][0]["disks"][0]["size_mib"] = opts.size_mib;
  write_text_file(dir.file("world.json"), world.dump());
  write_text_file(dir.file("cvd.conf"), "network_timeout = 60;\nlog_level = \"warn\";\n");

  Test_Process sim;
  JSON_Value ready;
  if (!sim.start(
          {"cas-sim", "--world", dir.file("world.json"), "--ready-file", dir.file("ready.json"),
           "--cvd-listen", "127.0.0.1:0", "--data", dir.file("data"), "--log", dir.file("sim.log")},
          {}, dir.file("sim.out")) ||
      !sim.wait_ready(dir.file("ready.json"), ready)) {
    report("cas-sim did not start (see " + dir.file("sim.out") + ")");
    return 1;
  }
  void* library = dlopen(BRIMLET_LIB_DIR "/libcvd.so", RTLD_NOW | RTLD_LOCAL);
  Api api;
  if (!library) {
    report(std::string("cannot load libcvd.so: ") + dlerror());
    return 1;
  }
  if (!load(library, api))
    return 1;
  if (api.init("cvd_read_bench", dir.file("cvd.log").c_str(), dir.file("cvd.conf").c_str())) {
    report("cvd_init failed");
    return 1;
  }
  cvd_connect_param param = {"127.0.0.1",  ready.value("cvd_port", 0), "admin",
                             "Bench pass", "cvd_read_bench",           0};
  cvd_conn_t conn = nullptr;
  int error = api.connect(&param, &conn);
  if (error != 0) {
    report("cvd_connect failed: " + std::to_string(error));
    return 1;
  }

  // The first open seeds the image; the warm-up run of each method then reads it into the page
  // cache, where it stays for the whole run (nothing is dropped on purpose).
  const std::string file = dir.file("data") + "/disks" + disk_path;
  const std::size_t read_size = static_cast<std::size_t>(opts.read_mib) << 20;
  std::vector<Result> results;
  bool ok = read_disk(api, conn, size, 1, read_size);
  ok = ok && measure(
                 {"cat file > /dev/null", 0, {}}, opts.runs,
                 [&] {
                   Run_Result cat = run_program({"/bin/sh", "-c", "cat \"$0\" > /dev/null", file});
                   if (cat.exit_code != 0)
                     report("cat failed: " + cat.err);
                   return cat.exit_code == 0;
                 },
                 results);
  for (int connections : {1, 2, 4}) {
    std::string method =
        "libcvd, " + std::to_string(connections) + " connection" + (connections > 1 ? "s" : "");
    ok = ok && measure(
                   {method, connections, {}}, opts.runs,
                   [&] { return read_disk(api, conn, size, connections, read_size); }, results);
  }
  api.disconnect(conn);
  api.deinit();
  dlclose(library);
  if (!ok)
    return 1;

  print_table(results, opts, size);
  return write_results(opts.out, to_json(results, opts, size)) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options opts;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    int* number = arg == "--runs"       ? &opts.runs
                  : arg == "--size-mib" ? &opts.size_mib
                  : arg == "--read-mib" ? &opts.read_mib
                                        : nullptr;
    if (i + 1 >= argc || (!number && arg != "--out")) {
      fprintf(stderr,
              "usage: cvd_read_bench [--runs N] [--size-mib N] [--read-mib N] [--out FILE]\n");
      return 2;
    }
    std::string value = argv[++i];
    if (!number) {
      opts.out = value;
      continue;
    }
    const char* stop = nullptr;
    *number = natoi<int>(value.data(), value.data() + value.size(), &stop);
    if (errno || stop != value.data() + value.size() || *number < 1 ||
        (number == &opts.read_mib && *number > 1024)) {
      fprintf(stderr, "cvd_read_bench: %s needs a positive number\n", arg.c_str());
      return 2;
    }
  }
  return run(opts);
}
