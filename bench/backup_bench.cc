// VM backup and restore throughput: one running VM with two disks of mixed content (holes,
// text-like, random) on cas-sim, backed up in full through the brimlet CLI, the agent, its servants
// and a file pool, with lz4 and with zstd level 1; beside it, on the same raw bytes, `zstd -1 -T2`,
// `restic backup` and a plain copy. Then 5 % of the 64 KiB blocks change (in the simulator's disks
// and in the raw files alike), and an incremental backup runs beside restic's second run. The raw
// bytes are generated once, imported into the simulator's disks and kept in files for the other
// tools. Everything lives in one temporary folder of one file system and the page cache is left
// warm; each row's output is flushed to disk within its time (the pool and restic flush what they
// write, zstd's and cp's outputs get `sync`). Then the full set and the incremental one (its chain)
// are restored through the CLI to new VMs, every restored disk checked against the source's digest
// at that point, beside `cp` of the raw files, `zstd -d -T2` of zstd's outputs and `restic restore`
// of restic's two snapshots, each flushed within its time. Prints the backup and restore tables
// and writes the numbers as JSON.
//
//   backup_bench [--disk-mib N] [--out FILE]
#include "bench/results.h"
#include "host/core/command_line.h"
#include "host/core/crypto.h"
#include "host/core/paths.h"
#include "host/core/text.h"
#include "host/core/unique_fd.h"
#include "sim/cas/mix.h"
#include "tests/integration/stack.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
  int disk_mib = 4096;
  std::string out = std::string(BRIMLET_SOURCE_DIR) + "/bench/results/backup.json";
};

void report(const std::string& what) {
  fprintf(stderr, "backup_bench: %s\n", what.c_str());
}

using Clock = std::chrono::system_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

using cas_sim::Mix;

// Disks are laid out in units of one kind each: a hole, log-like text or random bytes (such as
// compressed or encrypted files), about 30/40/30 %.
enum class Kind { hole, text, random };
constexpr std::uint64_t unit_bytes = 4 << 20;
constexpr std::uint64_t block_bytes = 64 << 10;  // what the simulator's trackers note
constexpr double changed_share = 0.05;
const char* const disk_names[] = {"vda", "vdb"};

void fill_random(Mix& mix, char* out, std::size_t n) {
  for (std::size_t i = 0; i < n; i += 8) {
    std::uint64_t v = mix.next();
    memcpy(out + i, &v, std::min<std::size_t>(8, n - i));
  }
}

// Lines like a service log: a time, a host, words from a small vocabulary and a number.
void fill_text(Mix& mix, char* out, std::size_t n) {
  static const char* const words[32] = {
      "request", "served", "client", "session",  "opened", "closed",  "error",  "warning",
      "user",    "backup", "volume", "snapshot", "write",  "read",    "bytes",  "timeout",
      "retry",   "the",    "of",     "to",       "from",   "in",      "queue",  "worker",
      "cache",   "miss",   "hit",    "disk",     "node",   "storage", "commit", "index"};
  std::size_t at = 0;
  char line[256];
  while (at < n) {
    std::uint64_t r = mix.next();
    int len =
        snprintf(line, sizeof line, "2026-11-%02u %02u:%02u:%02u.%03u node%02u ",
                 static_cast<unsigned>(r % 28 + 1), static_cast<unsigned>(r >> 8 & 15),
                 static_cast<unsigned>(r >> 12 & 63) % 60, static_cast<unsigned>(r >> 18 & 63) % 60,
                 static_cast<unsigned>(r >> 24 & 1023) % 1000, static_cast<unsigned>(r >> 34 & 31));
    std::uint64_t w = mix.next();
    for (int i = 0; i < 8 + static_cast<int>(r >> 40 & 7); ++i, w >>= 5) {
      const char* word = words[w & 31];
      std::size_t l = strlen(word);
      memcpy(line + len, word, l);
      line[len + static_cast<int>(l)] = ' ';
      len += static_cast<int>(l) + 1;
    }
    len += snprintf(line + len, sizeof line - static_cast<std::size_t>(len), "%u\n",
                    static_cast<unsigned>(r >> 44));
    std::size_t take = std::min<std::size_t>(static_cast<std::size_t>(len), n - at);
    memcpy(out + at, line, take);
    at += take;
  }
}

void fill(Kind kind, Mix& mix, char* out, std::size_t n) {
  if (kind == Kind::random)
    fill_random(mix, out, n);
  else
    fill_text(mix, out, n);
}

struct Disk {
  std::string name, path, raw;  // device, path in the VM, raw file
  std::vector<Kind> units;
  std::uint64_t allocated = 0;
};

// Writes a disk's raw file, sparse where it holds holes.
bool make_raw(Disk& disk, std::uint64_t size, std::uint64_t seed) {
  Mix mix{seed};
  Unique_Fd fd(::open(disk.raw.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  std::vector<char> buffer(unit_bytes);
  for (std::uint64_t at = 0; fd && at < size; at += unit_bytes) {
    std::uint64_t pick = mix.next() % 10;
    Kind kind = pick < 3 ? Kind::hole : pick < 7 ? Kind::text : Kind::random;
    disk.units.push_back(kind);
    if (kind == Kind::hole)
      continue;
    fill(kind, mix, buffer.data(), buffer.size());
    if (pwrite(fd.get(), buffer.data(), buffer.size(), static_cast<off_t>(at)) !=
        static_cast<ssize_t>(buffer.size()))
      return report("cannot write " + disk.raw), false;
    disk.allocated += unit_bytes;
  }
  if (!fd || ftruncate(fd.get(), static_cast<off_t>(size)) != 0)
    return report("cannot write " + disk.raw), false;
  return true;
}

// Bytes the files under `dir` (or the file) take on disk.
std::uint64_t stored_bytes(const std::string& dir) {
  std::uint64_t total = 0;
  std::error_code ec;
  struct stat st = {};
  if (::stat(dir.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    return static_cast<std::uint64_t>(st.st_blocks) * 512;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir, ec))
    if (e.is_regular_file() && ::stat(e.path().c_str(), &st) == 0)
      total += static_cast<std::uint64_t>(st.st_blocks) * 512;
  return total;
}

long status_kib(pid_t pid, const char* key) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(key, 0) == 0)
      return std::stol(line.substr(strlen(key)));
  return -1;
}

pid_t parent_of(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  std::size_t paren = text.rfind(')');
  int ppid = 0;
  if (paren == std::string::npos || sscanf(text.c_str() + paren + 1, " %*c %d", &ppid) != 1)
    return 0;
  return ppid;
}

// New objects of a VM's configuration under `dir`.
std::set<std::string> configs(const std::string& dir) {
  std::set<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir, ec))
    if (e.path().filename().string().rfind("vm_config_", 0) == 0)
      names.insert(e.path().string());
  return names;
}

// While a backup runs, every 100 ms: the peak memory (VmHWM) of the agent's servants, and when
// the run's VM configuration object appeared in the pool. The servant writes it once every chunk
// object is committed (objects appear under their names only then), so it marks the end of the
// copying. (The job's progress is pushed every 10 seconds only, too coarse to time it.)
class Watcher {
 public:
  Watcher(const Stack& stack, std::string pool)
      : stack_(stack), pool_(std::move(pool)), earlier_(configs(pool_)) {
    thread_ = std::thread([this] { loop(); });
  }
  ~Watcher() { finish(); }
  void finish() {
    stop_ = true;
    if (thread_.joinable())
      thread_.join();
  }
  long servant_peak_kib() const {
    long peak = -1;
    for (const auto& [pid, kib] : peaks_)
      peak = std::max(peak, kib);
    return peak;
  }
  Clock::time_point copied;  // epoch when not seen

 private:
  void loop() {
    while (!stop_) {
      sample_servants();
      if (copied == Clock::time_point() && configs(pool_) != earlier_)
        copied = Clock::now();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  void sample_servants() {
    std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
    while (dirent* e = proc ? readdir(proc.get()) : nullptr) {
      pid_t pid = static_cast<pid_t>(atoi(e->d_name));
      std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
      std::string name;
      if (pid <= 0 || !std::getline(comm, name) || name != "brimlet-servant")
        continue;
      // Only ours: other runs on this machine may have servants too.
      pid_t up = pid;
      while (up > 1 && up != stack_.agent_pid())
        up = parent_of(up);
      long kib = status_kib(pid, "VmHWM:");
      if (up == stack_.agent_pid() && kib > 0)
        peaks_[pid] = std::max(peaks_[pid], kib);
    }
  }

  const Stack& stack_;
  const std::string pool_;
  const std::set<std::string> earlier_;
  std::atomic<bool> stop_{false};
  std::map<pid_t, long> peaks_;
  std::thread thread_;
};

struct Row {
  std::string method;
  double seconds = 0;
  std::uint64_t disk_bytes = 0;  // logical bytes of the disks it covers
  std::uint64_t stored = 0;
  // The product's only: from its run log and pool; negative when unknown.
  double planning = -1, transfer = -1, catalog = -1;
  int task_polls = -1;  // polls of CAS tasks
  long servant_peak_kib = -1;
  bool restore = false;
  std::string set{};  // the backup set a product's backup made, or restored
  double mb_per_second() const { return static_cast<double>(disk_bytes) / 1e6 / seconds; }
};

// A local time of a log line ("2026-11-24 21:57:45.123 ...") as a time point.
bool log_time(const std::string& line, Clock::time_point& at) {
  std::tm tm = {};
  const char* rest = strptime(line.c_str(), "%Y-%m-%d %H:%M:%S", &tm);
  unsigned ms = 0;
  if (!rest || sscanf(rest, ".%3u", &ms) != 1)
    return false;
  tm.tm_isdst = -1;
  at = Clock::from_time_t(mktime(&tm)) + std::chrono::milliseconds(ms);
  return true;
}

// The first line of `log` holding `marker`: its time.
bool marked(const std::string& log, const std::string& marker, Clock::time_point& at) {
  std::size_t pos = log.find(marker);
  if (pos == std::string::npos)
    return false;
  std::size_t begin = log.rfind('\n', pos);
  return log_time(log.substr(begin == std::string::npos ? 0 : begin + 1), at);
}

class Bench {
 public:
  Bench(const Options& opts) : opts_(opts), stack_(report) {}
  int run();

 private:
  bool start();
  bool product(const std::string& method, const std::string& pool,
               const std::vector<std::string>& flags, bool full);
  bool tool(const std::string& method, const std::string& output, const std::string& script,
            bool restore = false);
  void run_log(Row& row, Clock::time_point start, const std::string& run_id,
               const std::string& kind, Clock::time_point copied) const;
  bool change_blocks();
  bool backups(const std::string& restic);
  bool restores(const std::string& restic);
  bool restore(const std::string& method, const Row* from, const std::string& vm,
               const std::map<std::string, std::string>& source);
  bool new_set(std::string& uuid);
  std::string digest(const std::string& disk) const;
  bool source_digests(std::map<std::string, std::string>& out) const;
  bool vm_disks(const std::string& vm, std::map<std::string, std::string>& paths) const;
  bool remove(const std::string& name) const;
  std::string path(const std::string& name) const { return stack_.dir().file(name); }
  const Row* find(const std::string& method, bool restore = false) const;
  std::uint64_t data_bytes() const;
  JSON_Value aims() const;
  void print() const;
  void print_backups() const;
  void print_restores() const;

  Options opts_;
  Stack stack_;
  std::uint64_t disk_size_ = 0;
  std::vector<Disk> disks_;
  std::vector<Row> rows_;
  std::uint64_t changed_ = 0;   // bytes rewritten before the incremental
  std::set<std::string> sets_;  // the backup sets of the VM seen so far
  // SHA-256 of each source disk (by device) at the full and at the incremental backup.
  std::map<std::string, std::string> at_full_, at_incremental_;
  const int threads_ = 2;  // one per disk: --parallel-disks-per-vm
  const int read_buffer_ = 1 << 20;
};

bool Bench::start() {
  disk_size_ = static_cast<std::uint64_t>(opts_.disk_mib) << 20;
  JSON_Value world = JSON_Value::parse(R"({"knobs": {"task_duration_ms": 0},
    "operators": [{"id": 1, "login_name": "admin", "password": "Bench pass", "group_id": 1}],
    "port_profiles": [{"id": 1, "name": "Default"}],
    "pools": [{"name": "defaultpool", "type": "dir", "path": "/vms/images",
      "capacity_mib": 8388608}],
    "hosts": [{"id": 1, "name": "cvk01", "ip": "192.168.10.11",
      "vswitches": [{"id": 1, "name": "vswitch0", "types": ["management"]}],
      "vms": [{"id": 101, "uuid":
      "4d7f6c3a-0000-4000-8000-00000000b101", "name": "bench-vm", "status": "running",
      "disks": []}]}]})");
  std::filesystem::create_directories(path("raw"));
  auto start = Clock::now();
  for (const char* name : disk_names) {
    Disk disk{name, std::string("/vms/images/bench-") + name, path("raw/") + name, {}, 0};
    if (!make_raw(disk, disk_size_, disks_.size() + 1))
      return false;
    // The CVM reports as allocated what the image holds, so the backup reads the data blocks.
    world["hosts"][0]["vms"][0]["disks"].push_back({{"device_name", name},
                                                    {"size_mib", opts_.disk_mib},
                                                    {"allocation_mib", disk.allocated >> 20},
                                                    {"pool", "defaultpool"},
                                                    {"path", disk.path}});
    disks_.push_back(std::move(disk));
  }
  printf("Generated %d MiB x %zu raw disks in %.1f s\n", opts_.disk_mib, disks_.size(),
         seconds_since(start));
  write_text_file(path("world.json"), world.dump());
  std::uint16_t port = stack_.start_sim("sim", path("world.json"));
  if (port == 0 || !stack_.start_server_and_agent({"CVD_SIM_ADDRESS_MAP=*=127.0.0.1:" +
                                                   std::to_string(stack_.cvd_port("sim"))}))
    return false;
  if (stack_.add_cvm("bench", port, "admin", "Bench pass").empty())
    return false;
  for (const char* pool : {"pool-lz4", "pool-zstd"}) {
    Run_Result r = stack_.cli({"pool", "add", "--name", pool, "--url", "file://" + path(pool)});
    if (r.exit_code != 0)
      return report("pool add failed: " + r.err), false;
  }
  start = Clock::now();
  for (const Disk& disk : disks_)
    if (stack_
            .sim_control("sim", "POST", "/sim/disks/import",
                         {{"disk", disk.path}, {"file", disk.raw}})
            .is_null())
      return false;
  printf("Imported them into the simulator's disks in %.1f s\n", seconds_since(start));
  return true;
}

// A backup of the VM through the CLI into `pool`, timed from the CLI's start to its exit.
bool Bench::product(const std::string& method, const std::string& pool,
                    const std::vector<std::string>& flags, bool full) {
  std::vector<std::string> args = {
      bin_path("brimlet"), "--json", "backup", "bench", "--pool", pool};
  args.insert(args.end(),
              {"--interval", "0.1", "--parallel-disks-per-vm", std::to_string(threads_)});
  args.insert(args.end(), flags.begin(), flags.end());
  args.push_back(full ? "--full" : "--incremental");
  args.push_back("bench-vm");
  run_program({"/bin/sync"});
  std::uint64_t before = stored_bytes(path(pool));
  if (stack_.sim_control("sim", "DELETE", "/sim/requests").is_null())
    return false;
  Watcher watcher(stack_, path(pool));
  auto start = Clock::now();
  Run_Result cli = run_program(args, "", stack_.env(), 7200);
  Row row{method, seconds_since(start), disk_size_ * disks_.size()};
  watcher.finish();
  JSON_Value status = JSON_Value::parse(cli.out, nullptr, false);
  if (cli.exit_code != 0 || !status.is_object())
    return report(method + " failed: " + cli.err + cli.out), false;
  row.stored = stored_bytes(path(pool)) - before;
  row.servant_peak_kib = watcher.servant_peak_kib();
  // Planning ends where the servant starts its copying threads, copying where the configuration
  // object appears, and the catalog (with the snapshot's removal) where the VM's result comes.
  run_log(row, start, status.value("run_id", ""), "backup", watcher.copied);
  if (!new_set(row.set))
    return false;
  rows_.push_back(row);
  printf("  %-34s %8.1f s\n", method.c_str(), row.seconds);
  return true;
}

// From the log of a run of `kind` (backup, restore) started at `start`: planning until the copying
// threads start, copying until `copied` (when known, else until the VM's result), and from there
// to the VM's result. Then the CAS task polls of the run, which the simulator logged.
void Bench::run_log(Row& row, Clock::time_point start, const std::string& run_id,
                    const std::string& kind, Clock::time_point copied) const {
  JSON_Value log = stack_.agent_call("job.log", {{"run_id", run_id}});
  std::string text = log.is_object() ? log["result"].value("text", "") : "";
  Clock::time_point copying, ended;
  auto span = [](Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
  };
  const bool result = marked(text, "CAS VM " + kind + " result", ended),
             given = copied != Clock::time_point();
  if (!given && result)
    copied = ended;
  if (marked(text, "thread(s) to " + kind + " the VM", copying))
    row.planning = span(start, copying);
  if (row.planning >= 0 && copied != Clock::time_point())
    row.transfer = span(copying, copied);
  if (given && row.transfer >= 0 && result)
    row.catalog = span(copied, ended);
  // CAS changes VMs in asynchronous tasks, which the module polls once a second, pausing after
  // the poll that sees the task done too: each poll is a second of the run's fixed costs.
  JSON_Value requests = stack_.sim_control("sim", "GET", "/sim/requests");
  row.task_polls = 0;
  for (const JSON_Value& r : requests.value("requests", JSON_Value::array()))
    row.task_polls += r.value("target", "").rfind("/cas/casrs/message/", 0) == 0;
}

// `script` run by the shell in the temporary folder, timed; what `output` grew by is stored.
bool Bench::tool(const std::string& method, const std::string& output, const std::string& script,
                 bool restore) {
  run_program({"/bin/sync"});
  std::uint64_t before = stored_bytes(path(output));
  auto start = Clock::now();
  Run_Result r =
      run_program({"/bin/sh", "-c", "cd \"$0\" && " + script, stack_.dir().path()}, "", {}, 7200);
  Row row{method, seconds_since(start), disk_size_ * disks_.size()};
  if (r.exit_code != 0)
    return report(method + " failed: " + r.err), false;
  row.stored = stored_bytes(path(output)) - before;
  row.restore = restore;
  rows_.push_back(row);
  printf("  %-34s %8.1f s\n", method.c_str(), row.seconds);
  return true;
}

// Rewrites 5 % of the disks' blocks, picked at random over both, in the simulator's disks (as
// guest writes, so its trackers note them) and in the raw files alike: new text where there was
// a hole or text, new random bytes over random ones.
bool Bench::change_blocks() {
  const std::uint64_t per_disk = disk_size_ / block_bytes;
  std::vector<std::uint64_t> blocks(per_disk * disks_.size());
  for (std::uint64_t i = 0; i < blocks.size(); ++i)
    blocks[i] = i;
  Mix mix{99};
  const std::size_t count =
      static_cast<std::size_t>(static_cast<double>(blocks.size()) * changed_share);
  for (std::size_t i = 0; i < count; ++i)
    std::swap(blocks[i], blocks[i + mix.next() % (blocks.size() - i)]);
  blocks.resize(count);
  std::sort(blocks.begin(), blocks.end());
  auto start = Clock::now();
  std::vector<char> data(block_bytes);
  for (std::uint64_t b : blocks) {
    const Disk& disk = disks_[b / per_disk];
    const std::uint64_t offset = b % per_disk * block_bytes;
    Kind kind = disk.units[offset / unit_bytes];
    fill(kind == Kind::hole ? Kind::text : kind, mix, data.data(), data.size());
    Unique_Fd fd(::open(disk.raw.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd || pwrite(fd.get(), data.data(), data.size(), static_cast<off_t>(offset)) !=
                   static_cast<ssize_t>(data.size()))
      return report("cannot write " + disk.raw), false;
    JSON_Value write = {{"disk", disk.path},
                        {"offset", offset},
                        {"base64", base64_encode(data.data(), data.size())}};
    if (stack_.sim_control("sim", "POST", "/sim/disks/write", write).is_null())
      return false;
  }
  changed_ = count * block_bytes;
  printf("Changed %zu blocks of 64 KiB (%.1f MiB) in %.1f s\n", count,
         static_cast<double>(changed_) / (1 << 20), seconds_since(start));
  return true;
}

// The one backup set of the VM that was not there before.
bool Bench::new_set(std::string& uuid) {
  Run_Result r = stack_.cli({"--json", "sets", "list", "--vm", "bench-vm"});
  JSON_Value rows = JSON_Value::parse(r.out, nullptr, false);
  if (r.exit_code != 0 || !rows.is_array())
    return report("sets list failed: " + r.err + r.out), false;
  std::vector<std::string> fresh;
  for (const JSON_Value& set : rows)
    if (sets_.insert(set.value("uuid", "")).second)
      fresh.push_back(set.value("uuid", ""));
  if (fresh.size() != 1)
    return report(std::to_string(fresh.size()) + " new backup sets after a backup"), false;
  uuid = fresh.front();
  return true;
}

// SHA-256 of a simulator's disk, from its control API ("" on failure).
std::string Bench::digest(const std::string& disk) const {
  JSON_Value answer = stack_.sim_control("sim", "GET", "/sim/disks/digest?disk=" + disk);
  return answer.is_object() ? answer.value("sha256", "") : "";
}

bool Bench::source_digests(std::map<std::string, std::string>& out) const {
  for (const Disk& disk : disks_)
    if ((out[disk.name] = digest(disk.path)).empty())
      return false;
  return true;
}

// The disks of the simulator's VM named `vm`: device name -> path.
bool Bench::vm_disks(const std::string& vm, std::map<std::string, std::string>& paths) const {
  JSON_Value world = stack_.sim_control("sim", "GET", "/sim/world");
  for (const JSON_Value& host : world.value("hosts", JSON_Value::array()))
    for (const JSON_Value& v : host.value("vms", JSON_Value::array()))
      if (v.value("name", "") == vm)
        for (const JSON_Value& disk : v.value("disks", JSON_Value::array()))
          paths[disk.value("device_name", "")] = disk.value("path", "");
  if (paths.empty())
    return report("no VM '" + vm + "' with disks in the simulator"), false;
  return true;
}

bool Bench::remove(const std::string& name) const {
  return run_program({"/bin/rm", "-rf", "--", path(name)}).exit_code == 0 ||
         (report("cannot remove " + path(name)), false);
}

// A restore of the set made by the backup row `from` to the new VM `vm` through the CLI, timed
// from the CLI's start until the restored images are flushed; every restored disk must then
// have the digest the source had at that point.
bool Bench::restore(const std::string& method, const Row* from, const std::string& vm,
                    const std::map<std::string, std::string>& source) {
  std::vector<std::string> args = {bin_path("brimlet"), "--json", "restore", from->set};
  args.insert(args.end(), {"--name", vm, "--parallel-disks", std::to_string(threads_)});
  args.insert(args.end(), {"--interval", "0.1"});
  run_program({"/bin/sync"});
  if (stack_.sim_control("sim", "DELETE", "/sim/requests").is_null())
    return false;
  Watcher watcher(stack_, path("pool-zstd"));
  auto start = Clock::now();
  Run_Result cli = run_program(args, "", stack_.env(), 7200);
  watcher.finish();
  std::map<std::string, std::string> paths;
  JSON_Value status = JSON_Value::parse(cli.out, nullptr, false);
  if (cli.exit_code != 0 || !status.is_object())
    return report(method + " failed: " + cli.err + cli.out), false;
  if (!vm_disks(vm, paths))
    return false;
  std::vector<std::string> images = {"/bin/sync"};
  for (const auto& [device, disk] : paths)
    images.push_back(path("sim-data/disks") + disk);
  if (run_program(images).exit_code != 0)
    return report("cannot flush the images of " + vm), false;
  Row row{method, seconds_since(start), disk_size_ * disks_.size()};
  row.restore = true;
  row.set = from->set;
  row.servant_peak_kib = watcher.servant_peak_kib();
  run_log(row, start, status.value("run_id", ""), "restore", Clock::time_point());
  for (const auto& [device, want] : source) {
    auto disk = paths.find(device);
    const std::string got = disk == paths.end() ? "no such disk" : digest(disk->second);
    if (got != want)
      return report(method + ": disk " + device + " of " + vm + " is " + got + ", the source was " +
                    want),
             false;
  }
  rows_.push_back(row);
  printf("  %-34s %8.1f s, every disk equal to the source\n", method.c_str(), row.seconds);
  return true;
}

const Row* Bench::find(const std::string& method, bool restore) const {
  for (const Row& row : rows_)
    if (row.method == method && row.restore == restore)
      return &row;
  return nullptr;
}

std::uint64_t Bench::data_bytes() const {
  std::uint64_t total = 0;
  for (const Disk& disk : disks_)
    total += disk.allocated;
  return total;
}

const char full_zstd[] = "brimlet full, zstd level 1";
const char full_lz4[] = "brimlet full, lz4";
const char incremental[] = "brimlet incremental, zstd level 1";
const char zstd_cli[] = "zstd -1 -T2";
const char restic_first[] = "restic backup, first run";
const char restic_second[] = "restic backup, second run";
const char copy[] = "cp";
const char restore_full[] = "brimlet restore, full set";
const char restore_chain[] = "brimlet restore, full + incremental";
const char zstd_decompress[] = "zstd -d -T2";
const char restic_restore_first[] = "restic restore, first snapshot";
const char restic_restore_second[] = "restic restore, second snapshot";

// Each aim: what it asks, the numbers, and whether they meet it. An incremental is in proportion
// when its share of the full's time and stored bytes is at most twice the share of the full's
// data that changed (a run has fixed costs: snapshot, plan, catalog).
JSON_Value Bench::aims() const {
  const Row *full = find(full_zstd), *zstd = find(zstd_cli), *restic = find(restic_first),
            *inc = find(incremental);
  JSON_Value out = JSON_Value::array();
  auto aim = [&](const std::string& what, const std::string& numbers, bool met) {
    out.push_back({{"aim", what}, {"numbers", numbers}, {"met", met}});
  };
  aim("full backup with zstd level 1 at least as fast as zstd -1 -T2",
      string_sprintf("%.0f vs %.0f MB/s", full->mb_per_second(), zstd->mb_per_second()),
      full->mb_per_second() >= zstd->mb_per_second());
  aim("full backup with zstd level 1 at least 2.8x restic",
      string_sprintf("%.2fx", full->mb_per_second() / restic->mb_per_second()),
      full->mb_per_second() >= 2.8 * restic->mb_per_second());
  const double changed = static_cast<double>(changed_) / static_cast<double>(data_bytes());
  const double time = inc->seconds / full->seconds;
  const double stored = static_cast<double>(inc->stored) / static_cast<double>(full->stored);
  // The copying alone, without the run's fixed costs (snapshot, trackers, plan, catalog).
  const double copying =
      inc->transfer >= 0 && full->transfer > 0 ? inc->transfer / full->transfer : -1;
  aim("incremental time and stored bytes in proportion to the changed bytes",
      string_sprintf("%.1f %% of the data changed; the incremental took %.1f %% of the full's "
                     "time (its copying %.1f %% of the full's copying, the rest %.1f s of fixed "
                     "costs, %d of them the pauses after its %d CAS task polls) and stored %.1f "
                     "%% of its bytes",
                     changed * 100, time * 100, copying * 100, inc->seconds - inc->transfer,
                     inc->task_polls, inc->task_polls, stored * 100),
      time <= 2 * changed && stored <= 2 * changed);
  const Row *back_full = find(restore_full, true), *back_chain = find(restore_chain, true),
            *restic_full = find(restic_restore_first, true),
            *restic_chain = find(restic_restore_second, true);
  aim("restore of the full set at least as fast as the full backup with zstd level 1",
      string_sprintf("%.0f vs %.0f MB/s", back_full->mb_per_second(), full->mb_per_second()),
      back_full->mb_per_second() >= full->mb_per_second());
  const double ratio_full = back_full->mb_per_second() / restic_full->mb_per_second(),
               ratio_chain = back_chain->mb_per_second() / restic_chain->mb_per_second();
  aim("restore at least 1.2x restic restore, at both points",
      string_sprintf("full set %.2fx, full + incremental %.2fx", ratio_full, ratio_chain),
      ratio_full >= 1.2 && ratio_chain >= 1.2);
  long peak = -1;
  for (const Row& row : rows_)
    peak = std::max(peak, row.servant_peak_kib);
  const long limit = (static_cast<long>(threads_) * read_buffer_ >> 10) + (64 << 10);
  aim("servant memory within threads x read buffer + 64 MiB",
      string_sprintf("peak %.1f MiB, limit %d x %d KiB + 64 MiB = %.1f MiB", peak / 1024.0,
                     threads_, read_buffer_ >> 10, limit / 1024.0),
      peak > 0 && peak <= limit);
  return out;
}

void Bench::print_backups() const {
  printf(
      "\nVM backup: one VM, %zu disks of %d MiB (%.0f MiB of data, the rest holes), %d copying "
      "threads, read buffer %d KiB, page cache warm; MB/s of logical disk bytes\n",
      disks_.size(), opts_.disk_mib, static_cast<double>(data_bytes()) / (1 << 20), threads_,
      read_buffer_ >> 10);
  printf("%-34s %7s %7s %10s %7s %7s %9s %6s %12s\n", "method", "MB/s", "s", "stored MiB", "plan s",
         "copy s", "catalog s", "polls", "servant MiB");
  auto optional = [](double v) { return v < 0 ? std::string("-") : string_sprintf("%.2f", v); };
  for (const Row& r : rows_)
    if (!r.restore)
      printf("%-34s %7.0f %7.2f %10.1f %7s %7s %9s %6s %12s\n", r.method.c_str(), r.mb_per_second(),
             r.seconds, static_cast<double>(r.stored) / (1 << 20), optional(r.planning).c_str(),
             optional(r.transfer).c_str(), optional(r.catalog).c_str(),
             r.task_polls < 0 ? "-" : std::to_string(r.task_polls).c_str(),
             r.servant_peak_kib < 0 ? "-"
                                    : string_sprintf("%.1f", r.servant_peak_kib / 1024.0).c_str());
  printf(
      "plan: from the CLI's start to the copying threads; copy: to the VM configuration object "
      "written after the last chunk; catalog: the set's commit and the removal of the snapshot "
      "(and of the previous tracker), to the VM's result. polls: of CAS tasks, a second each.\n");
}

void Bench::print_restores() const {
  printf("\nVM restore: the same disks back into new files, flushed; MB/s of logical disk bytes\n");
  printf("%-34s %7s %7s %7s %7s %6s %12s  %s\n", "method", "MB/s", "s", "plan s", "copy s", "polls",
         "servant MiB", "restored disks");
  auto optional = [](double v) { return v < 0 ? std::string("-") : string_sprintf("%.2f", v); };
  for (const Row& r : rows_)
    if (r.restore)
      printf("%-34s %7.0f %7.2f %7s %7s %6s %12s  %s\n", r.method.c_str(), r.mb_per_second(),
             r.seconds, optional(r.planning).c_str(), optional(r.transfer).c_str(),
             r.task_polls < 0 ? "-" : std::to_string(r.task_polls).c_str(),
             r.servant_peak_kib < 0 ? "-"
                                    : string_sprintf("%.1f", r.servant_peak_kib / 1024.0).c_str(),
             r.set.empty() ? "-" : "equal to the source at that point (SHA-256)");
  printf(
      "plan: from the CLI's start to the copying threads (the VM and its volumes made); copy: "
      "to the VM's result; the rest is flushing the restored images.\n");
}

void Bench::print() const {
  print_backups();
  print_restores();
  printf("Aims:\n");
  for (const JSON_Value& aim : aims())
    printf("  %-4s %s: %s\n", aim["met"].get<bool>() ? "met" : "MISS",
           aim["aim"].get<std::string>().c_str(), aim["numbers"].get<std::string>().c_str());
}

// The backup rows: both full backups beside zstd, restic and cp, then the incremental after the
// guest's writes beside restic's second run. zstd's outputs stay for the restore rows.
bool Bench::backups(const std::string& restic) {
  return product(full_lz4, "pool-lz4", {"--compression", "lz4"}, true) &&
         product(full_zstd, "pool-zstd", {"--compression", "zstd", "--level", "1"}, true) &&
         source_digests(at_full_) &&
         tool(zstd_cli, "zstd-out",
              "mkdir zstd-out && zstd -1 -T2 -q --output-dir-flat zstd-out raw/* && "
              "sync zstd-out/*") &&
         run_program({"/bin/sh", "-c", "cd \"$0\" && " + restic + "init", stack_.dir().path()})
                 .exit_code == 0 &&
         tool(restic_first, "restic-repo", restic + "backup --tag full raw") &&
         tool(copy, "copy", "mkdir copy && cp --reflink=never raw/* copy/ && sync copy/*") &&
         remove("copy") && change_blocks() &&
         product(incremental, "pool-zstd", {"--compression", "zstd", "--level", "1"}, false) &&
         source_digests(at_incremental_) &&
         tool(restic_second, "restic-repo", restic + "backup --tag incremental raw");
}

// The restore rows: the same bytes by cp (the raw files as they are now), zstd (the full point)
// and restic (both points), then both points of the chain through the product. Each tool writes
// into a fresh folder, flushed within its time and removed after it.
bool Bench::restores(const std::string& restic) {
  auto restic_restore = [&](const std::string& tag, const std::string& into) {
    return restic + "restore latest --tag " + tag + " --target " + into + " && find " + into +
           " -type f -exec sync {} +";
  };
  return tool(copy, "copy", "mkdir copy && cp --reflink=never raw/* copy/ && sync copy/*", true) &&
         remove("copy") &&
         tool(zstd_decompress, "unzstd",
              "mkdir unzstd && zstd -d -T2 -q --output-dir-flat unzstd zstd-out/* && "
              "sync unzstd/*",
              true) &&
         remove("unzstd") && remove("zstd-out") &&
         tool(restic_restore_first, "restic-first", restic_restore("full", "restic-first"), true) &&
         remove("restic-first") &&
         tool(restic_restore_second, "restic-second",
              restic_restore("incremental", "restic-second"), true) &&
         remove("restic-second") &&
         restore(restore_full, find(full_zstd), "bench-vm-full", at_full_) &&
         restore(restore_chain, find(incremental), "bench-vm-chain", at_incremental_);
}

int Bench::run() {
  if (!start())
    return 1;
  printf("Runs:\n");
  // The repository keeps no password on a command line.
  write_text_file(path("restic-password"), "bench restic password\n");
  const std::string restic =
      "restic -q -r restic-repo --password-file restic-password --cache-dir restic-cache ";
  if (!backups(restic) || !restores(restic))
    return 1;
  print();
  JSON_Value out = {{"benchmark", "backup"},
                    {"disks", disks_.size()},
                    {"disk_bytes", disk_size_},
                    {"data_bytes", data_bytes()},
                    {"changed_bytes", changed_},
                    {"copying_threads", threads_},
                    {"read_buffer_bytes", read_buffer_},
                    {"page_cache", "warm"},
                    {"aims", aims()},
                    {"results", JSON_Value::array()}};
  for (const Row& r : rows_)
    out["results"].push_back({{"method", r.method},
                              {"restore", r.restore},
                              {"backup_set", r.set},
                              {"seconds", r.seconds},
                              {"mb_per_second", r.mb_per_second()},
                              {"stored_bytes", r.stored},
                              {"planning_seconds", r.planning},
                              {"transfer_seconds", r.transfer},
                              {"catalog_seconds", r.catalog},
                              {"cas_task_polls", r.task_polls},
                              {"servant_peak_kib", r.servant_peak_kib}});
  return write_results(opts_.out, out) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);  // each run's line as it ends
  Options opts;
  CLI::App app("Backs up a VM of two disks beside zstd, restic and cp on the same bytes.",
               "backup_bench");
  app.add_option("--disk-mib", opts.disk_mib, "size of each disk, a multiple of 4")
      ->capture_default_str()
      ->check(CLI::Validator(
          [](const std::string& text) {
            const int mib = std::atoi(text.c_str());
            return mib >= 4 && mib % 4 == 0 ? "" : "a positive multiple of 4 is needed";
          },
          "MULTIPLE OF 4"));
  app.add_option("--out", opts.out, "the results file")->capture_default_str();
  if (int status = parse_command_line(app, argc, argv); status >= 0)
    return status;
  return Bench(opts).run();
}
