#include "sim/cas/disk_store.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "sim/cas/simulator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

namespace cas_sim {

namespace {


// Seeded content is laid out and generated in units of this size.
constexpr std::uint64_t unit_size = 64 << 10;
// Units written by one pwrite while seeding.
constexpr std::uint64_t units_per_write = 64;

// splitmix64: fast, and the same numbers on every platform and library.
struct Mix {
  std::uint64_t state;
  std::uint64_t next() {
    std::uint64_t z = (state += 0x9e3779b97f4a7c15);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
  }
};

// The bytes of unit `index` depend on the seed and the index only.
void fill_unit(const Disk_Content& content, std::uint64_t index, char* out, std::size_t length) {
  Mix mix{content.seed ^ (index * 0xd1b54a32d192ed03)};
  mix.next();
  auto random = [&] {
    std::size_t i = 0;
    for (; i + 8 <= length; i += 8) {
      std::uint64_t v = mix.next();
      memcpy(out + i, &v, 8);
    }
    std::uint64_t v = mix.next();
    memcpy(out + i, &v, length - i);
  };
  switch (content.pattern) {
    case Disk_Content::Pattern::EMPTY:
      memset(out, 0, length);
      break;
    case Disk_Content::Pattern::RANDOM:
      random();
      break;
    case Disk_Content::Pattern::ZEROS_AND_RANDOM:
      // Allocated zeros: what a backup may store as zero records.
      if (mix.next() % 2 == 0)
        memset(out, 0, length);
      else
        random();
      break;
    case Disk_Content::Pattern::TEXT: {
      // Lines of words: compresses about as well as logs and documents do.
      static const char* const words[] = {
          "virtual", "machine", "backup",  "restore", "snapshot", "disk",   "volume", "pool",
          "host",    "cluster", "network", "switch",  "storage",  "block",  "image",  "chain",
          "full",    "delta",   "the",     "a",       "of",       "and",    "to",     "in",
          "error",   "info",    "warning", "debug",   "request",  "answer", "job",    "task"};
      std::size_t i = 0;
      for (int n = 1; i < length; ++n) {
        const char* word = words[mix.next() % (sizeof words / sizeof *words)];
        std::size_t w = std::min(strlen(word), length - i);
        memcpy(out + i, word, w);
        i += w;
        if (i < length)
          out[i++] = n % 12 == 0 ? '\n' : ' ';
      }
      break;
    }
  }
}

// Calls `f(first unit, unit count)` for each extent of data, in order. Holes between extents
// average (100 - p) / p of the extent before them, so about p percent of the disk holds data.
template <class F>
void for_each_extent(const Disk_Content& content, std::uint64_t units, F&& f) {
  const std::uint64_t p = static_cast<std::uint64_t>(content.allocated_percent);
  if (content.pattern == Disk_Content::Pattern::EMPTY || p == 0 || units == 0)
    return;
  if (p == 100) {
    f(0, units);
    return;
  }
  Mix mix{content.seed ^ 0x6a09e667f3bcc908};
  for (std::uint64_t pos = 0; pos < units;) {
    std::uint64_t data = 1 + mix.next() % 64;
    std::uint64_t hole = data * (100 - p) * (50 + mix.next() % 101) / (100 * p);
    f(pos, std::min(data, units - pos));
    pos += data + hole;
  }
}

bool write_all_at(int fd, const char* data, std::size_t length, std::uint64_t offset) {
  while (length > 0) {
    ssize_t n = pwrite(fd, data, length, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    data += n;
    length -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

// Writes `file` whole under a temporary name and renames it, so that a disk is never found half
// seeded. False after one log line.
bool seed_image(const std::string& file, std::uint64_t size,
                const std::optional<Disk_Content>& content) {
  if (!make_dirs(file.substr(0, file.rfind('/')), 0750))
    return false;
  std::string temporary = file + ".seeding";
  Unique_Fd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
  bool ok = fd && ftruncate(fd.get(), static_cast<off_t>(size)) == 0;
  if (ok && content) {
    std::vector<char> buffer(units_per_write * unit_size);
    const std::uint64_t units = (size + unit_size - 1) / unit_size;
    for_each_extent(*content, units, [&](std::uint64_t first, std::uint64_t count) {
      for (std::uint64_t u = first; ok && u < first + count; u += units_per_write) {
        std::uint64_t n = std::min(units_per_write, first + count - u);
        std::uint64_t bytes = std::min(n * unit_size, size - u * unit_size);
        for (std::uint64_t i = 0; i < n; ++i)
          fill_unit(*content, u + i, buffer.data() + i * unit_size,
                    std::min(unit_size, bytes - i * unit_size));
        ok = write_all_at(fd.get(), buffer.data(), bytes, u * unit_size);
      }
    });
  }
  if (!ok || close(fd.release()) != 0 || rename(temporary.c_str(), file.c_str()) != 0) {
    LOG_MSG((LM_ERROR, "Failed to create the disk image '%s': %m.\n", file.c_str()));
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

// Copies the data regions of `from` into a new `to` of the same size, under a temporary name.
bool copy_sparse(const std::string& from, const std::string& to) {
  std::string temporary = to + ".copying";
  Unique_Fd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  Unique_Fd out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0440));
  struct stat st = {};
  bool ok = in && out && fstat(in.get(), &st) == 0 && ftruncate(out.get(), st.st_size) == 0;
  std::vector<char> buffer(4 << 20);
  for (off_t data = 0; ok;) {
    data = lseek(in.get(), data, SEEK_DATA);
    if (data < 0) {
      ok = errno == ENXIO;  // no data after `data`
      break;
    }
    off_t hole = lseek(in.get(), data, SEEK_HOLE);
    ok = hole > data;
    while (ok && data < hole) {
      ssize_t n = pread(
          in.get(), buffer.data(),
          std::min<std::uint64_t>(buffer.size(), static_cast<std::uint64_t>(hole - data)), data);
      ok = n > 0 && write_all_at(out.get(), buffer.data(), static_cast<std::size_t>(n),
                                 static_cast<std::uint64_t>(data));
      data += n;
    }
  }
  if (!ok || close(out.release()) != 0 || rename(temporary.c_str(), to.c_str()) != 0) {
    LOG_MSG(
        (LM_ERROR, "Failed to copy the disk image '%s' to '%s': %m.\n", from.c_str(), to.c_str()));
    unlink(temporary.c_str());
    return false;
  }
  return true;
}

struct Image {
  std::string path;
  std::uint64_t size = 0;
  std::optional<Disk_Content> content;
};

bool ends_with(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// A path that stays below the folder it is placed under.
bool contained(const std::string& path) {
  return path.find("/../") == std::string::npos && path.find("/./") == std::string::npos &&
         !ends_with(path, "/..") && !ends_with(path, "/.");
}

bool find_image(const World& world, const std::string& name, Image& out) {
  bool rbd = name.compare(0, 4, "rbd:") == 0;
  std::string pool, tail;
  if (rbd) {
    std::size_t slash = name.find('/', 4);
    if (slash == std::string::npos || slash == 4 || slash + 1 == name.size())
      return false;
    pool = name.substr(4, slash - 4);
    tail = name.substr(slash);
  }
  for (const Host& host : world.hosts)
    for (const VM& vm : host.vms)
      for (const Disk& disk : vm.disks)
        if (rbd ? disk.pool == pool && ends_with(disk.path, tail) : disk.path == name) {
          out = {disk.path, static_cast<std::uint64_t>(disk.size_mib) << 20, disk.content};
          return contained(disk.path);
        }
  return false;
}

bool valid_snapshot_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool exists(const std::string& file) {
  struct stat st;
  return stat(file.c_str(), &st) == 0;
}

}  // namespace

std::string Disk_Store::file_of(const std::string& path) const {
  return sim_.data_dir().empty() ? "" : sim_.data_dir() + "/disks" + path;
}

int Disk_Store::image_file(const std::string& name, std::string& file) {
  Image image;
  if (!sim_.with_world([&](const World& world) { return find_image(world, name, image); }))
    return -ENOENT;
  file = file_of(image.path);
  if (file.empty()) {
    LOG_MSG((LM_ERROR, "cvd-ds: cannot serve disk '%s' without a --data folder.\n", name.c_str()));
    return -EIO;
  }
  std::lock_guard<std::mutex> lock(seed_mutex_);
  return exists(file) || seed_image(file, image.size, image.content) ? 0 : -EIO;
}

Disk_Store::Opened Disk_Store::open(const std::string& name, const std::string& snapshot,
                                    bool writable) {
  Opened out;
  std::string file;
  out.error = image_file(name, file);
  if (out.error == -ENOENT)
    LOG_MSG((LM_INFO, "cvd-ds: no disk '%s'.\n", name.c_str()));
  if (out.error)
    return out;
  if (!snapshot.empty()) {
    if (writable) {
      LOG_MSG((LM_INFO, "cvd-ds: snapshot '%s' of disk '%s' is read-only.\n", snapshot.c_str(),
               name.c_str()));
      out.error = -EINVAL;
      return out;
    }
    if (!valid_snapshot_name(snapshot) || !exists(file + "@" + snapshot)) {
      LOG_MSG(
          (LM_INFO, "cvd-ds: no snapshot '%s' of disk '%s'.\n", snapshot.c_str(), name.c_str()));
      out.error = -ENOENT;
      return out;
    }
    file += "@" + snapshot;
  }
  out.fd.reset(::open(file.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC));
  struct stat st;
  if (!out.fd || fstat(out.fd.get(), &st) != 0) {
    LOG_MSG((LM_ERROR, "cvd-ds: failed to open '%s': %m.\n", file.c_str()));
    out.fd.reset();
    out.error = -EIO;
    return out;
  }
  out.size = static_cast<std::uint64_t>(st.st_size);
  return out;
}

bool Disk_Store::take_snapshot(const std::string& name, const std::string& snapshot) {
  if (!valid_snapshot_name(snapshot)) {
    LOG_MSG((LM_ERROR, "cvd-ds: invalid snapshot name '%s'.\n", snapshot.c_str()));
    return false;
  }
  std::string file;
  int error = image_file(name, file);
  if (error == -ENOENT)
    LOG_MSG((LM_ERROR, "cvd-ds: no disk '%s' to take snapshot '%s' of.\n", name.c_str(),
             snapshot.c_str()));
  return error == 0 && copy_sparse(file, file + "@" + snapshot);
}

}  // namespace cas_sim
