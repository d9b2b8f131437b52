#include "sim/cas/disk_store.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "sim/cas/mix.h"
#include "sim/cas/simulator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <vector>

namespace cas_sim {

namespace {

// Seeded content is laid out and generated in units of this size.
constexpr std::uint64_t unit_size = 64 << 10;
// Units written by one pwrite while seeding.
constexpr std::uint64_t units_per_write = 64;

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

struct Image {
  std::string path;
  std::uint64_t size = 0;
  std::optional<Disk_Content> content;
  std::vector<std::string> snapshots;  // of the disk's VM, taken before the simulator started
};

void snapshot_names(const std::vector<Snapshot>& tree, std::vector<std::string>& out) {
  for (const Snapshot& s : tree) {
    out.push_back(s.name);
    snapshot_names(s.children, out);
  }
}

bool ends_with(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// A path that stays below the folder it is placed under.
bool contained(const std::string& path) {
  return path.compare(0, 3, "../") != 0 && path.find("/../") == std::string::npos &&
         path.find("/./") == std::string::npos && !ends_with(path, "/..") && !ends_with(path, "/.");
}

bool find_image(const World& world, const std::string& name, Image& out) {
  bool rbd = name.compare(0, 4, "rbd:") == 0;
  // An RBD image may also be named by its path in the pool, as a restore names its target.
  if (rbd && name.size() > 4 && name[4] == '/')
    return find_image(world, name.substr(4), out);
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
          out = {disk.path, static_cast<std::uint64_t>(disk.size_mib) << 20, disk.content, {}};
          snapshot_names(vm.snapshots, out.snapshots);
          return contained(disk.path);
        }
  // A volume no VM uses yet (one made for a restore), by its path in the pool.
  for (const Pool& pool : world.pools)
    for (const Volume& volume : pool.volumes)
      if (!rbd && name == pool.path + "/" + volume.name) {
        out = {name, static_cast<std::uint64_t>(std::ceil(volume.size_mib * 1048576)), {}, {}};
        return contained(name);
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

bool read_all_at(int fd, char* out, std::size_t length, std::uint64_t offset) {
  while (length > 0) {
    ssize_t n = pread(fd, out, length, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return false;
    if (n == 0) {  // past the end of a shorter file: zeros, as a disk reads there
      memset(out, 0, length);
      return true;
    }
    out += n;
    length -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

// Runs of set blocks as byte ranges, the last one clipped to `size`.
std::vector<Extent> extents_of(const std::vector<bool>& blocks, std::uint64_t size) {
  std::vector<Extent> out;
  for (std::size_t b = 0; b < blocks.size(); ++b) {
    if (!blocks[b])
      continue;
    std::uint64_t offset = b * Disk_Store::block_size;
    std::uint64_t end = std::min(size, offset + Disk_Store::block_size);
    if (!out.empty() && out.back().offset + out.back().length == offset)
      out.back().length = end - out.back().offset;
    else
      out.push_back({offset, end - offset});
  }
  return out;
}

std::uint64_t blocks_in(std::uint64_t size) {
  return (size + Disk_Store::block_size - 1) / Disk_Store::block_size;
}

}  // namespace

// A disk as the store keeps it: its own image, and what its snapshots saved and its trackers
// noted. Writes hold `mutex` exclusively, reads of snapshots and queries shared.
struct Disk_State {
  struct Frozen {
    std::string name;
    std::string file;
    Unique_Fd fd;
    std::map<std::uint64_t, bool> saved;  // block -> whether it held data when saved
    std::uint64_t generation = 0;         // writes noted before it have a smaller one
  };
  struct Tracker {
    std::string name;
    bool valid = true;
    std::map<std::uint64_t, std::uint64_t> dirty;  // block -> generation of its first write
  };

  Frozen* frozen(const std::string& name) {
    for (auto& f : snapshots)
      if (f->name == name)
        return f.get();
    return nullptr;
  }
  Tracker* tracker(const std::string& name) {
    for (Tracker& t : trackers)
      if (t.name == name)
        return &t;
    return nullptr;
  }
  // Saves block `b` into `f` before it changes. False after one log line.
  bool save(Frozen& f, std::uint64_t b, std::vector<char>& buffer) {
    std::uint64_t offset = b * Disk_Store::block_size;
    std::size_t length = static_cast<std::size_t>(std::min(Disk_Store::block_size, size - offset));
    off_t data = lseek(fd.get(), static_cast<off_t>(offset), SEEK_DATA);
    bool held = data >= 0 && static_cast<std::uint64_t>(data) < offset + length;
    buffer.resize(length);
    if (held && (!read_all_at(fd.get(), buffer.data(), length, offset) ||
                 !write_all_at(f.fd.get(), buffer.data(), length, offset))) {
      LOG_MSG((LM_ERROR, "cvd-ds: failed to save a block of '%s' into snapshot '%s': %m.\n",
               first.c_str(), f.name.c_str()));
      return false;
    }
    f.saved[b] = held;
    return true;
  }

  std::string first;  // the disk's first path, which names its image
  std::string file;
  std::shared_mutex mutex;
  Unique_Fd fd;
  std::uint64_t size = 0;
  std::uint64_t generation = 0;  // snapshots taken
  std::vector<std::unique_ptr<Frozen>> snapshots;
  std::vector<Tracker> trackers;
  std::atomic<bool> fail_reads{false};
  std::atomic<bool> held{false};
  int waiting = 0;  // reads and writes blocked by the hold, under the store's hold mutex
};

struct Disk_Store::Resolved {
  std::shared_ptr<Disk_State> state;
  std::string snapshot;
};

Disk_Store::Disk_Store(const Simulator& sim) : sim_(sim) {}
Disk_Store::~Disk_Store() = default;

std::string Disk_Store::file_of(const std::string& path) const {
  if (sim_.data_dir().empty())
    return "";
  // RBD images ("<pool>/<image>") live apart from the files of the pools.
  return sim_.data_dir() + (path[0] == '/' ? "/disks" : "/disks/rbd/") + path;
}

void Disk_Store::forget(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto moved = moved_.find(path);
  const std::string first = moved == moved_.end() ? path : moved->second;
  auto it = states_.find(first);
  if (it != states_.end()) {
    // Readers that hold the disk keep their descriptors; the files go now. The state outlives
    // its lock.
    const std::shared_ptr<Disk_State> state = std::move(it->second);
    states_.erase(it);
    std::unique_lock<std::shared_mutex> disk_lock(state->mutex);
    for (const auto& f : state->snapshots)
      unlink(f->file.c_str());
  }
  for (auto m = moved_.begin(); m != moved_.end();)
    m = m->second == first ? moved_.erase(m) : std::next(m);
  for (auto f = frozen_.begin(); f != frozen_.end();)
    f = f->second.first == first ? frozen_.erase(f) : std::next(f);
  std::string file = file_of(first);
  if (!file.empty() && unlink(file.c_str()) != 0 && errno != ENOENT)
    LOG_MSG((LM_WARNING, "cvd-ds: failed to remove image '%s': %m.\n", file.c_str()));
}

int Disk_Store::resolve(const std::string& name, const std::string& snapshot, Resolved& out) {
  std::string path = name;
  out.snapshot = snapshot;
  std::size_t at = name.find('@');
  if (name.compare(0, 4, "rbd:") == 0 && at != std::string::npos) {
    path = name.substr(0, at);
    out.snapshot = name.substr(at + 1);
  }
  Image image;
  bool found = sim_.with_world([&](const World& world) { return find_image(world, path, image); });
  std::lock_guard<std::mutex> lock(mutex_);
  std::string first;
  if (found) {
    auto moved = moved_.find(image.path);
    first = moved == moved_.end() ? image.path : moved->second;
  } else {
    auto frozen = frozen_.find(path);
    if (frozen == frozen_.end() && path.compare(0, 4, "rbd:") == 0)
      frozen = std::find_if(frozen_.begin(), frozen_.end(), [&](const auto& f) {
        return ends_with(f.first, path.substr(path.find('/')));
      });
    if (frozen == frozen_.end())
      return -ENOENT;
    first = frozen->second.first;
    if (out.snapshot.empty())
      out.snapshot = frozen->second.snapshot;
  }
  std::shared_ptr<Disk_State>& state = states_[first];
  if (!state) {
    auto fresh = std::make_shared<Disk_State>();
    fresh->first = first;
    fresh->file = file_of(first);
    if (fresh->file.empty()) {
      LOG_MSG(
          (LM_ERROR, "cvd-ds: cannot serve disk '%s' without a --data folder.\n", name.c_str()));
      states_.erase(first);
      return -EIO;
    }
    struct stat st;
    if (!exists(fresh->file) && !seed_image(fresh->file, image.size, image.content)) {
      states_.erase(first);
      return -EIO;
    }
    fresh->fd.reset(::open(fresh->file.c_str(), O_RDWR | O_CLOEXEC));
    if (!fresh->fd || fstat(fresh->fd.get(), &st) != 0) {
      LOG_MSG((LM_ERROR, "cvd-ds: failed to open '%s': %m.\n", fresh->file.c_str()));
      states_.erase(first);
      return -EIO;
    }
    fresh->size = static_cast<std::uint64_t>(st.st_size);
    state = fresh;
    // Snapshots of the world file froze the disk as it is first served.
    for (const std::string& s : image.snapshots)
      if (!state->frozen(s) && valid_snapshot_name(s)) {
        auto f = std::make_unique<Disk_State::Frozen>();
        f->name = s;
        f->file = state->file + "@" + s;
        f->fd.reset(::open(f->file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
        f->generation = ++state->generation;
        if (f->fd && ftruncate(f->fd.get(), static_cast<off_t>(state->size)) == 0)
          state->snapshots.push_back(std::move(f));
      }
  }
  out.state = state;
  if (!out.snapshot.empty()) {
    std::shared_lock<std::shared_mutex> disk_lock(state->mutex);
    if (!state->frozen(out.snapshot))
      return -ENOENT;
  }
  return 0;
}

Disk_Store::Opened Disk_Store::open(const std::string& name, const std::string& snapshot,
                                    bool writable) {
  Opened out;
  Resolved r;
  out.error = writable && !snapshot.empty() ? -EINVAL : resolve(name, snapshot, r);
  if (out.error == -EINVAL || (out.error == 0 && !r.snapshot.empty() && writable)) {
    LOG_MSG((LM_INFO, "cvd-ds: snapshot '%s' of disk '%s' is read-only.\n", snapshot.c_str(),
             name.c_str()));
    out.error = -EINVAL;
    return out;
  }
  if (out.error == -ENOENT)
    LOG_MSG(
        (LM_INFO, "cvd-ds: no disk '%s' with snapshot '%s'.\n", name.c_str(), snapshot.c_str()));
  if (out.error)
    return out;
  std::shared_lock<std::shared_mutex> lock(r.state->mutex);
  out.size = r.state->size;
  out.fd = r.snapshot.empty() ? r.state->fd.get() : -1;
  out.snapshot = r.snapshot;
  out.disk = r.state;
  return out;
}

long Disk_Store::read(const Opened& opened, std::uint64_t offset, char* out, std::size_t length) {
  Disk_State& d = *opened.disk;
  if (d.fail_reads) {
    LOG_MSG((LM_ERROR, "cvd-ds: reads of disk '%s' fail by a fault.\n", d.first.c_str()));
    return -EIO;
  }
  std::shared_lock<std::shared_mutex> lock(d.mutex);
  std::uint64_t size = opened.snapshot.empty() ? d.size : opened.size;
  if (offset >= size)
    return 0;
  length = static_cast<std::size_t>(std::min<std::uint64_t>(length, size - offset));
  Disk_State::Frozen* f = opened.snapshot.empty() ? nullptr : d.frozen(opened.snapshot);
  if (!opened.snapshot.empty() && !f) {
    LOG_MSG((LM_ERROR, "cvd-ds: snapshot '%s' of disk '%s' was deleted while open.\n",
             opened.snapshot.c_str(), d.first.c_str()));
    return -EIO;
  }
  // Runs of blocks that come from the same file, one pread each.
  for (std::uint64_t at = offset, end = offset + length; at < end;) {
    bool saved = f && f->saved.count(at / block_size);
    std::uint64_t run = at;
    while (run < end && (f && f->saved.count(run / block_size)) == saved)
      run = (run / block_size + 1) * block_size;
    run = std::min(run, end);
    if (!read_all_at(saved ? f->fd.get() : d.fd.get(), out + (at - offset),
                     static_cast<std::size_t>(run - at), at)) {
      LOG_MSG((LM_ERROR, "cvd-ds: failed to read disk '%s': %m.\n", d.first.c_str()));
      return -EIO;
    }
    at = run;
  }
  return static_cast<long>(length);
}

int Disk_Store::write(const Opened& opened, std::uint64_t offset, const char* data,
                      std::size_t length) {
  Disk_State& d = *opened.disk;
  std::unique_lock<std::shared_mutex> lock(d.mutex);
  if (!opened.snapshot.empty() || offset > d.size || length > d.size - offset)
    return -EINVAL;
  std::vector<char> buffer;
  for (std::uint64_t b = offset / block_size; length && b < blocks_in(offset + length); ++b) {
    for (auto& f : d.snapshots)
      if (!f->saved.count(b) && !d.save(*f, b, buffer))
        return -EIO;
    for (Disk_State::Tracker& t : d.trackers)
      t.dirty.emplace(b, d.generation);
  }
  if (!write_all_at(d.fd.get(), data, length, offset)) {
    LOG_MSG((LM_ERROR, "cvd-ds: failed to write disk '%s' at %llu: %m.\n", d.first.c_str(),
             static_cast<unsigned long long>(offset)));
    return -EIO;
  }
  return 0;
}

std::shared_ptr<Disk_State> Disk_Store::state_of(const std::string& name, const char* what) {
  Resolved r;
  int error = resolve(name, "", r);
  if (error == -ENOENT)
    LOG_MSG((LM_ERROR, "cvd-ds: no disk '%s' to %s.\n", name.c_str(), what));
  return error ? nullptr : r.state;
}

bool Disk_Store::take_snapshot(const std::string& name, const std::string& snapshot) {
  if (!valid_snapshot_name(snapshot)) {
    LOG_MSG((LM_ERROR, "cvd-ds: invalid snapshot name '%s'.\n", snapshot.c_str()));
    return false;
  }
  std::shared_ptr<Disk_State> d = state_of(name, "take a snapshot of");
  if (!d)
    return false;
  std::unique_lock<std::shared_mutex> lock(d->mutex);
  if (d->frozen(snapshot)) {
    LOG_MSG((LM_ERROR, "cvd-ds: disk '%s' has a snapshot '%s' already.\n", name.c_str(),
             snapshot.c_str()));
    return false;
  }
  // An empty sparse file: nothing is copied until the disk is written.
  auto f = std::make_unique<Disk_State::Frozen>();
  f->name = snapshot;
  f->file = d->file + "@" + snapshot;
  f->fd.reset(::open(f->file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0640));
  if (!f->fd || ftruncate(f->fd.get(), static_cast<off_t>(d->size)) != 0) {
    LOG_MSG((LM_ERROR, "cvd-ds: failed to create '%s': %m.\n", f->file.c_str()));
    unlink(f->file.c_str());
    return false;
  }
  f->generation = ++d->generation;
  d->snapshots.push_back(std::move(f));
  return true;
}

bool Disk_Store::take_external_snapshot(const std::string& name, const std::string& snapshot,
                                        const std::string& overlay, const std::string& backing) {
  if (!take_snapshot(name, snapshot))
    return false;
  std::shared_ptr<Disk_State> d = state_of(name, "move");
  std::lock_guard<std::mutex> lock(mutex_);
  moved_[overlay] = d->first;
  frozen_[name] = {d->first, snapshot, overlay, backing};
  return true;
}

bool Disk_Store::drop_snapshot(const std::string& name, const std::string& snapshot,
                               std::string& path, std::string& backing) {
  path = name;
  std::shared_ptr<Disk_State> d = state_of(name, "delete a snapshot of");
  if (!d)
    return false;
  {
    std::unique_lock<std::shared_mutex> lock(d->mutex);
    auto it = std::find_if(d->snapshots.begin(), d->snapshots.end(),
                           [&](const auto& f) { return f->name == snapshot; });
    if (it == d->snapshots.end())
      return false;
    unlink((*it)->file.c_str());
    d->snapshots.erase(it);
  }
  // The overlay of an external snapshot merges back: the disk returns to its old path.
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = frozen_.begin(); it != frozen_.end(); ++it)
    if (it->second.first == d->first && it->second.snapshot == snapshot) {
      if (it->second.overlay == name) {
        path = it->first;
        backing = it->second.backing;
        moved_.erase(name);
      }
      frozen_.erase(it);
      break;
    }
  return true;
}

bool Disk_Store::add_tracker(const std::string& name, const std::string& tracker) {
  std::shared_ptr<Disk_State> d = state_of(name, "track");
  if (!d)
    return false;
  std::unique_lock<std::shared_mutex> lock(d->mutex);
  if (Disk_State::Tracker* t = d->tracker(tracker))
    *t = Disk_State::Tracker{tracker, true, {}};
  else
    d->trackers.push_back({tracker, true, {}});
  return true;
}

bool Disk_Store::drop_tracker(const std::string& name, const std::string& tracker) {
  std::shared_ptr<Disk_State> d = state_of(name, "stop tracking");
  if (!d)
    return false;
  std::unique_lock<std::shared_mutex> lock(d->mutex);
  d->trackers.erase(std::remove_if(d->trackers.begin(), d->trackers.end(),
                                   [&](const auto& t) { return t.name == tracker; }),
                    d->trackers.end());
  return true;
}

bool Disk_Store::tracker_valid(const std::string& name, const std::string& tracker, bool& valid) {
  Resolved r;
  if (resolve(name, "", r))
    return false;
  std::shared_lock<std::shared_mutex> lock(r.state->mutex);
  Disk_State::Tracker* t = r.state->tracker(tracker);
  if (t)
    valid = t->valid;
  return t != nullptr;
}

bool Disk_Store::changed_blocks(const std::string& name, const std::string& tracker,
                                const std::string& snapshot, std::vector<Extent>& out) {
  std::shared_ptr<Disk_State> d = state_of(name, "list changed blocks of");
  if (!d)
    return false;
  std::shared_lock<std::shared_mutex> lock(d->mutex);
  Disk_State::Tracker* t = d->tracker(tracker);
  Disk_State::Frozen* f = snapshot.empty() ? nullptr : d->frozen(snapshot);
  if (!t || !t->valid || (!snapshot.empty() && !f)) {
    LOG_MSG((LM_ERROR, "cvd-ds: disk '%s' has no valid tracker '%s' or no snapshot '%s'.\n",
             name.c_str(), tracker.c_str(), snapshot.c_str()));
    return false;
  }
  std::vector<bool> blocks(blocks_in(d->size));
  for (const auto& [b, generation] : t->dirty)
    if (b < blocks.size() && (!f || generation < f->generation))
      blocks[b] = true;
  out = extents_of(blocks, d->size);
  return true;
}

bool Disk_Store::allocated_blocks(const std::string& name, const std::string& snapshot,
                                  std::vector<Extent>& out) {
  Resolved r;
  int error = resolve(name, snapshot, r);
  if (error) {
    LOG_MSG((LM_ERROR, "cvd-ds: no disk '%s' with snapshot '%s' to list blocks of.\n", name.c_str(),
             snapshot.c_str()));
    return false;
  }
  Disk_State& d = *r.state;
  std::shared_lock<std::shared_mutex> lock(d.mutex);
  std::vector<bool> blocks(blocks_in(d.size));
  for (off_t data = 0;;) {
    data = lseek(d.fd.get(), data, SEEK_DATA);
    if (data < 0)
      break;
    off_t hole = lseek(d.fd.get(), data, SEEK_HOLE);
    if (hole <= data)
      break;
    for (std::uint64_t b = static_cast<std::uint64_t>(data) / block_size;
         b < blocks_in(static_cast<std::uint64_t>(hole)) && b < blocks.size(); ++b)
      blocks[b] = true;
    data = hole;
  }
  if (Disk_State::Frozen* f = r.snapshot.empty() ? nullptr : d.frozen(r.snapshot))
    for (const auto& [b, held] : f->saved)
      blocks[b] = held;
  out = extents_of(blocks, d.size);
  return true;
}

bool Disk_Store::resize(const std::string& name, std::uint64_t size) {
  std::shared_ptr<Disk_State> d = state_of(name, "resize");
  if (!d)
    return false;
  std::unique_lock<std::shared_mutex> lock(d->mutex);
  // As on CAS, a disk only grows, and not while it has snapshots. (Open handles keep mappings
  // of the old size, which stay valid.)
  if (!d->snapshots.empty() || size < d->size) {
    LOG_MSG((LM_ERROR,
             "cvd-ds: cannot resize disk '%s' from %llu to %llu bytes with %zu snapshots.\n",
             name.c_str(), static_cast<unsigned long long>(d->size),
             static_cast<unsigned long long>(size), d->snapshots.size()));
    return false;
  }
  if (ftruncate(d->fd.get(), static_cast<off_t>(size)) != 0) {
    LOG_MSG((LM_ERROR, "cvd-ds: failed to resize disk '%s': %m.\n", name.c_str()));
    return false;
  }
  d->size = size;
  for (Disk_State::Tracker& t : d->trackers)
    t.valid = false;
  return true;
}

Disk_Store::Leftovers Disk_Store::leftovers() {
  Leftovers out;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [first, d] : states_) {
    std::shared_lock<std::shared_mutex> disk_lock(d->mutex);
    for (const auto& f : d->snapshots)
      out.snapshots[first].push_back(f->name);
    for (const auto& t : d->trackers)
      out.trackers[first].push_back(t.name);
  }
  return out;
}

bool Disk_Store::fail_reads(const std::string& name, bool fail) {
  std::shared_ptr<Disk_State> d = state_of(name, "fail reads of");
  if (d)
    d->fail_reads = fail;
  return d != nullptr;
}

bool Disk_Store::reads_fail(const Opened& opened) {
  return opened.disk->fail_reads;
}

bool Disk_Store::drop_connections(std::uint64_t bytes, int count, const std::string& name) {
  std::shared_ptr<Disk_State> d = name.empty() ? nullptr : state_of(name, "drop connections of");
  if (!name.empty() && !d)
    return false;
  std::lock_guard<std::mutex> lock(mutex_);
  drop_bytes_ = bytes;
  drop_count_ = count;
  drop_disk_ = std::move(d);
  return true;
}

bool Disk_Store::take_drop(const Opened& opened, std::uint64_t& bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (drop_count_ <= 0 || (drop_disk_ && drop_disk_ != opened.disk))
    return false;
  --drop_count_;
  bytes = drop_bytes_;
  return true;
}

bool Disk_Store::hold(const std::string& name, bool hold) {
  std::shared_ptr<Disk_State> d = name == "*" ? nullptr : state_of(name, "hold");
  if (!d && name != "*")
    return false;
  std::lock_guard<std::mutex> lock(hold_mutex_);
  (d ? d->held : hold_all_) = hold;
  hold_changed_.notify_all();
  return true;
}

void Disk_Store::wait_while_held(const Opened& opened) {
  Disk_State& d = *opened.disk;
  if (!d.held && !hold_all_)
    return;
  std::unique_lock<std::mutex> lock(hold_mutex_);
  ++d.waiting;
  hold_changed_.wait(lock, [&] { return (!d.held && !hold_all_) || holds_released_; });
  --d.waiting;
}

void Disk_Store::release_holds() {
  std::lock_guard<std::mutex> lock(hold_mutex_);
  holds_released_ = true;
  hold_changed_.notify_all();
}

std::map<std::string, int> Disk_Store::held_waiters() {
  std::map<std::string, int> out;
  std::lock_guard<std::mutex> lock(mutex_);
  std::lock_guard<std::mutex> hold_lock(hold_mutex_);
  for (const auto& [first, d] : states_)
    if (d->held || (hold_all_ && d->waiting))
      out[first] = d->waiting;
  return out;
}

}  // namespace cas_sim
