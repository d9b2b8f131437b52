// Image object throughput: 1 GiB of mixed disk data (runs of zeros, text-like bytes and noise) is
// written as image objects into a file:// pool per codec with 1 and 2 threads (each thread one
// object of its share, as parallel backup chunks are), then read back into memory only (the
// reader's own speed) and into a new disk file as a restore does. In the same run the same bytes go
// through `cp`, `zstd -1 -T2` and `lz4 -1` and back. Every output, ours and theirs, is fsynced
// inside the timing, as a pool commit is. Prints a table and writes the numbers as JSON.
//
//   image_bench [--size-mib N] [--out FILE]
#include "bench/results.h"
#include "host/core/json.h"
#include "host/core/text.h"
#include "host/storage/client_io.h"
#include "host/storage/image.h"
#include "tests/support/temp_dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Compression = Client_IO_Base::Compression;

struct Options {
  int size_mib = 1024;
  std::string out = std::string(BRIMLET_SOURCE_DIR) + "/bench/results/image.json";
};

struct Result {
  std::string operation;
  int threads = 0;
  double seconds = 0;
  std::uint64_t plain = 0;
  std::uint64_t stored = 0;
  double mb_per_s() const { return plain / seconds / 1e6; }
  double ratio() const { return plain ? static_cast<double>(stored) / plain : 0; }
};

void report(const std::string& what) {
  fprintf(stderr, "image_bench: %s\n", what.c_str());
}

// Dirty pages of earlier steps are flushed first, so that a timing pays for its own writes only.
double seconds_of(const std::function<bool()>& work, bool& ok) {
  ::sync();
  auto start = std::chrono::steady_clock::now();
  ok = work();
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  return took.count();
}

// Runs of 256 KiB: 3 in 10 zeros, 4 in 10 text-like, 3 in 10 noise.
std::vector<std::uint8_t> mixed_data(std::size_t size) {
  static const char* const words[] = {
      "backup",  "volume", "snapshot", "the",     "of",    "and",   "disk",  "block",
      "restore", "config", "/var/log", "kernel",  "error", "=",     "0x1f",  "user",
      "network", "host",   "cluster",  "vm",      "pool",  "index", "2024-", "INFO",
      "WARNING", "{",      "}",        "\"id\":", "value", "table", "page",  "segment"};
  std::vector<std::uint8_t> data(size);
  std::uint64_t x = 0x2545F4914F6CDD1Dull;
  auto next = [&x] {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    return x;
  };
  const std::size_t run = 256 << 10;
  for (std::size_t at = 0; at < size; at += run) {
    std::size_t end = std::min(size, at + run);
    std::uint64_t kind = next() % 10;
    if (kind < 3)
      continue;  // zeros
    if (kind < 7) {
      std::size_t i = at;
      while (i < end) {
        std::uint64_t r = next();
        const char* w = words[r % 32];
        for (; *w && i < end; ++w)
          data[i++] = static_cast<std::uint8_t>(*w);
        if (i < end)
          data[i++] = (r >> 8) % 12 == 0 ? '\n' : ' ';
      }
      continue;
    }
    for (std::size_t i = at; i < end; i += 8) {
      std::uint64_t r = next();
      std::memcpy(&data[i], &r, std::min<std::size_t>(8, end - i));
    }
  }
  return data;
}

std::string pool_url(const std::string& dir) {
  return "file://" + dir;
}

std::string object_path(int part) {
  return "/set/part" + std::to_string(part) + ".img";
}

// Writes data[first, first + length) as one image object; adds its stored size.
bool write_part(const std::string& pool, const Client_IO_Base::Options& opts, int part,
                const std::vector<std::uint8_t>& data, std::size_t first, std::size_t length,
                std::atomic<std::uint64_t>& stored) {
  Client_IO_Ex io;
  if (!io.connect(pool, opts) || !io.open(object_path(part), Client_IO_Ex::Write)) {
    report(io.error());
    return false;
  }
  const std::uint8_t id[16] = {7};
  Image_Block_Writer writer(&io);
  if (!writer.init(65536, 512, 1, 0) || !writer.write_superblock(id, id))
    return false;
  // Allocated extents of 1 MiB, as a backup plan hands them over.
  for (std::size_t at = first; at < first + length; at += 1 << 20)
    if (!writer.add_block(at, std::min<std::size_t>(1 << 20, first + length - at)))
      return false;
  std::vector<std::uint8_t> buffer(4 << 20);  // the disk read buffer
  bool ok = writer.write_blocks(
      [&](std::uint64_t offset, std::size_t wanted, const void*& out) -> ssize_t {
        std::size_t n = std::min(wanted, buffer.size());
        std::memcpy(buffer.data(), &data[offset], n);
        out = buffer.data();
        return static_cast<ssize_t>(n);
      },
      nullptr);
  if (!ok || !io.close()) {
    report("write failed: " + io.error());
    return false;
  }
  stored += io.storage_size();
  return true;
}

bool all_zero(const std::uint8_t* p, std::size_t n) {
  return n == 0 || (p[0] == 0 && std::memcmp(p, p + 1, n - 1) == 0);
}

// Writes `length` bytes at `offset` of the new file `fd`, leaving all-zero pieces of 64 KiB as
// holes, as a restore into a new disk file does (and as `zstd -d` and `lz4 -d` do).
bool write_sparse(int fd, const void* data, std::size_t length, std::uint64_t offset) {
  const std::uint8_t* p = static_cast<const std::uint8_t*>(data);
  const std::size_t piece = 64 << 10;
  for (std::size_t at = 0; at < length;) {
    std::size_t end = at;
    while (end < length && !all_zero(p + end, std::min(piece, length - end)))
      end += std::min(piece, length - end);
    // Writeback starts at once, so that the disk works while the next bytes are read and the
    // final fsync has little left to wait for.
    if (end > at && (::pwrite(fd, p + at, end - at, static_cast<off_t>(offset + at)) !=
                         static_cast<ssize_t>(end - at) ||
                     ::sync_file_range(fd, static_cast<off_t>(offset + at),
                                       static_cast<off_t>(end - at), SYNC_FILE_RANGE_WRITE) != 0))
      return false;
    at = end + std::min(piece, length - end);  // past the zero piece that ended the run
  }
  return true;
}

// Reads one image object into the new disk file `fd` at the offsets it names; with fd -1 only
// into memory, which is the reader's own speed.
bool read_part(const std::string& pool, int part, int fd) {
  Client_IO_Ex io;
  if (!io.connect(pool, Client_IO_Base::Options()) ||
      !io.open(object_path(part), Client_IO_Ex::Read)) {
    report(io.error());
    return false;
  }
  Image_Block_Reader reader(&io, 4 << 20);  // the disk write buffer
  bool ok = reader.read_blocks([&](const void* data, std::size_t length, std::uint64_t offset) {
    return fd < 0 || write_sparse(fd, data, length, offset);
  });
  io.close();
  if (!ok)
    report("read failed: " + io.error());
  return ok;
}

bool run_threads(int threads, const std::function<bool(int)>& body) {
  std::vector<std::thread> workers;
  std::atomic<bool> ok{true};
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([&, t] {
      if (!body(t))
        ok = false;
    });
  for (auto& w : workers)
    w.join();
  return ok;
}

bool same_as(const std::string& path, const std::vector<std::uint8_t>& data) {
  std::string text;
  return read_file(path, text) && text.size() == data.size() &&
         std::memcmp(text.data(), data.data(), data.size()) == 0;
}

bool shell(const std::string& command) {
  int status = std::system((command + " >/dev/null 2>&1").c_str());
  if (status != 0)
    report("'" + command + "' failed");
  return status == 0;
}

std::uint64_t file_size(const std::string& path) {
  std::ifstream f(path, std::ios::binary | std::ios::ate);
  return f ? static_cast<std::uint64_t>(f.tellg()) : 0;
}

struct Codec {
  const char* name;
  Compression method;
  int level;
};

int run(const Options& opts) {
  Temp_Dir dir;
  const std::size_t size = static_cast<std::size_t>(opts.size_mib) << 20;
  std::vector<std::uint8_t> data = mixed_data(size);
  const std::string source = dir.file("source.raw"), restored = dir.file("restored.raw");
  {
    std::ofstream f(source, std::ios::binary);
    f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(size));
    if (!f.flush()) {
      report("cannot write " + source);
      return 1;
    }
  }
  const std::string pool = dir.file("pool");
  std::vector<Result> results;
  bool ok = true;

  for (Codec c : {Codec{"none", Compression::None, 0}, Codec{"lz4-1", Compression::Lz4, 1},
                  Codec{"zstd-1", Compression::Zstd, 1}, Codec{"zstd-3", Compression::Zstd, 3},
                  Codec{"zlib-1", Compression::Zlib, 1}}) {
    for (int threads : {1, 2}) {
      Client_IO_Base::Options io_opts;
      io_opts.compression_ = c.method;
      io_opts.compression_level_ = c.level;
      std::atomic<std::uint64_t> stored{0};
      const std::size_t share = size / threads;
      Result w{std::string("image write ") + c.name, threads, 0, size, 0};
      w.seconds = seconds_of(
          [&] {
            return run_threads(threads, [&](int t) {
              std::size_t length = t == threads - 1 ? size - share * t : share;
              return write_part(pool_url(pool), io_opts, t, data, share * t, length, stored);
            });
          },
          ok);
      w.stored = stored;
      if (!ok)
        return 1;
      results.push_back(w);

      Result m{std::string("image read mem ") + c.name, threads, 0, size, stored};
      m.seconds = seconds_of(
          [&] {
            return run_threads(threads, [&](int t) { return read_part(pool_url(pool), t, -1); });
          },
          ok);
      if (!ok)
        return 1;
      results.push_back(m);

      Result r{std::string("image read ") + c.name, threads, 0, size, stored};
      int fd = ::open(restored.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0) {
        report("cannot create " + restored);
        return 1;
      }
      r.seconds = seconds_of(
          [&] {
            return run_threads(threads, [&](int t) { return read_part(pool_url(pool), t, fd); }) &&
                   ::ftruncate(fd, static_cast<off_t>(size)) == 0 && ::fsync(fd) == 0;
          },
          ok);
      ::close(fd);
      if (!ok)
        return 1;
      if (!same_as(restored, data)) {
        report(r.operation + ": the restored bytes differ from the source");
        return 1;
      }
      results.push_back(r);
      shell("rm -rf '" + pool + "' '" + restored + "'");
    }
  }

  // Baselines on the same bytes; every output is fsynced as ours are.
  struct Baseline {
    const char* operation;
    int threads;
    std::string command;
    std::string output;
    bool compressed;  // the stored size is the output's
  };
  const std::string zst = dir.file("source.zst"), lz4 = dir.file("source.lz4");
  const std::string copy = dir.file("copy.raw");
  for (const Baseline& b :
       {Baseline{"cp", 1, "cp '" + source + "' '" + copy + "' && sync '" + copy + "'", copy, false},
        Baseline{"zstd -1 -T2", 2,
                 "zstd -q -f -1 -T2 '" + source + "' -o '" + zst + "' && sync '" + zst + "'", zst,
                 true},
        Baseline{"zstd -d", 1,
                 "zstd -q -f -d '" + zst + "' -o '" + restored + "' && sync '" + restored + "'",
                 restored, false},
        Baseline{"lz4 -1", 1, "lz4 -q -f -1 '" + source + "' '" + lz4 + "' && sync '" + lz4 + "'",
                 lz4, true},
        Baseline{"lz4 -d", 1,
                 "lz4 -q -f -d '" + lz4 + "' '" + restored + "' && sync '" + restored + "'",
                 restored, false}}) {
    Result r{b.operation, b.threads, 0, size, size};
    r.seconds = seconds_of([&] { return shell(b.command); }, ok);
    if (!ok)
      return 1;
    if (b.compressed)
      r.stored = file_size(b.output);
    else if (!same_as(b.output, data)) {
      report(std::string(b.operation) + " did not reproduce the source");
      return 1;
    }
    results.push_back(r);
  }

  printf("Image objects: %d MiB of mixed data (zeros, text-like, noise), file:// pool, fsynced\n",
         opts.size_mib);
  printf("%-22s %8s %10s %12s\n", "operation", "threads", "MB/s", "stored/plain");
  for (const auto& r : results)
    printf("%-22s %8d %10.0f %12.3f\n", r.operation.c_str(), r.threads, r.mb_per_s(), r.ratio());

  auto best = [&](const std::string& operation) {
    double v = 0;
    for (const auto& r : results)
      if (r.operation == operation)
        v = std::max(v, r.mb_per_s());
    return v;
  };
  auto at_threads = [&](const std::string& operation, int threads) {
    for (const auto& r : results)
      if (r.operation == operation && r.threads == threads)
        return r.mb_per_s();
    return 0.0;
  };
  double lz4_vs_cp = best("image write lz4-1") / best("cp");
  double zstd_vs_cli = at_threads("image write zstd-1", 2) / best("zstd -1 -T2");
  printf("image write lz4-1 / cp:                  %5.0f%% (aim >= 80%%)\n", lz4_vs_cp * 100);
  printf("image write zstd-1, 2 threads / zstd -1 -T2: %5.0f%% (aim >= 80%%)\n", zstd_vs_cli * 100);
  // A restore reads every object: it should not be slower than the backup that wrote them.
  JSON_Value read_vs_write = JSON_Value::object();
  for (const char* codec : {"none", "lz4-1", "zstd-1"}) {
    double v = at_threads(std::string("image read ") + codec, 1) /
               at_threads(std::string("image write ") + codec, 1);
    read_vs_write[codec] = v;
    printf("image read / write, 1 thread, %-6s   %5.0f%% (aim >= 100%%)\n", codec, v * 100);
  }

  JSON_Value out = {{"benchmark", "image"},
                    {"size_mib", opts.size_mib},
                    {"results", JSON_Value::array()},
                    {"lz4_write_vs_cp", lz4_vs_cp},
                    {"zstd1_write_2_threads_vs_zstd_cli", zstd_vs_cli},
                    {"read_vs_write_1_thread", read_vs_write}};
  for (const auto& r : results)
    out["results"].push_back({{"operation", r.operation},
                              {"threads", r.threads},
                              {"seconds", r.seconds},
                              {"mb_per_s", r.mb_per_s()},
                              {"stored_bytes", r.stored},
                              {"stored_ratio", r.ratio()}});
  return write_results(opts.out, out) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options opts;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (i + 1 >= argc || (arg != "--size-mib" && arg != "--out")) {
      fprintf(stderr, "usage: image_bench [--size-mib N] [--out FILE]\n");
      return 2;
    }
    std::string value = argv[++i];
    if (arg == "--size-mib") {
      const char* stop = nullptr;
      opts.size_mib = natoi<int>(value.data(), value.data() + value.size(), &stop);
      if (errno || stop != value.data() + value.size() || opts.size_mib < 1) {
        fprintf(stderr, "image_bench: --size-mib needs a positive number\n");
        return 2;
      }
    } else {
      opts.out = value;
    }
  }
  return run(opts);
}
