// The images of the world's disks, as the disk service serves them: sparse files under
// "<data>/disks" at each disk's own path ("/vms/images/web01-vda" lives in
// "<data>/disks/vms/images/web01-vda"), seeded from the disk's "content" the first time they are
// served and kept from then on.
//
// Snapshots are copy-on-write: taking one costs the same for any disk size. A write to the disk
// first saves the old bytes of each 64 KiB block it touches into every snapshot that has not saved
// that block yet ("<file>@<snapshot>", sparse); a read of a snapshot takes saved blocks from there
// and the others from the disk. Changed-block trackers (CBTers) note each block written since they
// were created. An external snapshot moves the disk to a new overlay path; its old path then reads
// as the frozen snapshot. Thread-safe.
#pragma once

#include "sim/cvd/protocol.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cas_sim {

class Simulator;
struct Disk_State;

// A byte range of a disk.
struct Extent {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  bool operator==(const Extent& o) const { return offset == o.offset && length == o.length; }
};

class Disk_Store {
 public:
  // Blocks that snapshots save and trackers note.
  static constexpr std::uint64_t block_size = 64 << 10;

  // Disks are looked up in `sim`'s world when opened, so disks added later are served too.
  explicit Disk_Store(const Simulator& sim);
  ~Disk_Store();

  struct Opened {
    // 0, or -ENOENT (no such disk or snapshot), -EINVAL (a snapshot opened for writing) or -EIO
    // (anything else, logged).
    int error = 0;
    std::shared_ptr<Disk_State> disk;
    std::string snapshot;  // empty: the disk itself
    std::uint64_t size = 0;
    // The disk's own image, for reads straight from a mapping; -1 for a snapshot. Valid while
    // `disk` is held.
    int fd = -1;
  };
  // Opens the disk at `name`, a disk path of the world, "rbd:<pool>/<image>[@<snapshot>]" (the
  // disk of pool `pool` whose path ends in "/<image>"), or the old path of a disk moved by an
  // external snapshot (then that snapshot); or its snapshot `snapshot` when not empty. The image
  // is created and seeded first when it does not exist yet.
  Opened open(const std::string& name, const std::string& snapshot, bool writable);

  // Reads up to `length` bytes at `offset` of an opened disk or snapshot; answers the count
  // (short at the end) or -EIO (logged; also for a disk whose reads fail by a fault).
  long read(const Opened& opened, std::uint64_t offset, char* out, std::size_t length);
  // Writes as the guest does, saving old blocks into the snapshots and noting them in the
  // trackers: 0, -EINVAL (past the end) or -EIO (logged).
  int write(const Opened& opened, std::uint64_t offset, const char* data, std::size_t length);

  // Snapshots of the disk at `name`. False after one log line.
  bool take_snapshot(const std::string& name, const std::string& snapshot);
  // As take_snapshot, and the disk moves to `overlay`: its old path reads as the snapshot.
  // `backing` is the backing file the disk had, given back when the snapshot is dropped.
  bool take_external_snapshot(const std::string& name, const std::string& snapshot,
                              const std::string& overlay, const std::string& backing);
  // Drops the snapshot; an external one returns the disk to its old path when nothing was
  // stacked on it since, and answers in `path` where the disk now is and in `backing` its
  // backing file there. False when unknown.
  bool drop_snapshot(const std::string& name, const std::string& snapshot, std::string& path,
                     std::string& backing);

  // Changed-block trackers of a disk, by name. False after one log line.
  bool add_tracker(const std::string& name, const std::string& tracker);
  bool drop_tracker(const std::string& name, const std::string& tracker);
  // False (nothing logged) when the disk has no such tracker.
  bool tracker_valid(const std::string& name, const std::string& tracker, bool& valid);
  // Blocks written since the tracker was created, up to the snapshot `snapshot` when not empty.
  bool changed_blocks(const std::string& name, const std::string& tracker,
                      const std::string& snapshot, std::vector<Extent>& out);
  // Blocks holding data in the disk or in its snapshot.
  bool allocated_blocks(const std::string& name, const std::string& snapshot,
                        std::vector<Extent>& out);
  // Grows the image (never while it has snapshots); every tracker of the disk becomes invalid.
  bool resize(const std::string& name, std::uint64_t size);
  // The disk at `path` is deleted: its image, snapshots and trackers go, so that a disk made
  // again at that path starts empty (also after a restart with the same data folder).
  void forget(const std::string& path);
  // Snapshots and trackers the store holds, by the disk's first path.
  struct Leftovers {
    std::map<std::string, std::vector<std::string>> snapshots, trackers;
  };
  Leftovers leftovers();

  // cvd-ds faults: reads of the disk at `name` fail with -EIO while set.
  bool fail_reads(const std::string& name, bool fail);
  static bool reads_fail(const Opened& opened);
  // The next `count` connections that read or write (whose first read or write is of the disk at
  // `name`, when not empty) are dropped once they have moved `bytes` bytes of disk data; `count` 0
  // clears it. False when there is no such disk.
  bool drop_connections(std::uint64_t bytes, int count, const std::string& name = "");
  // For a connection's first read or write: true, with its byte budget, when it is to be dropped.
  bool take_drop(const Opened& opened, std::uint64_t& bytes);
  // Reads and writes of the disk at `name` ("*": of every disk, also those made later) block while
  // held, so that a test knows a reader or writer is mid-run. False when there is no such disk.
  bool hold(const std::string& name, bool hold);
  // Waits while the opened disk is held (or until release_holds()).
  void wait_while_held(const Opened& opened);
  // Ends every hold for good: the service is stopping.
  void release_holds();
  // The readers and writers waiting on held disks, by the disk's first path.
  std::map<std::string, int> held_waiters();

  // The image file of the disk at `path`, existing or not; "" when the simulator has no data
  // folder.
  std::string file_of(const std::string& path) const;

 private:
  struct Resolved;
  // The disk and view `name` and `snapshot` stand for: 0, -ENOENT (nothing logged) or -EIO.
  int resolve(const std::string& name, const std::string& snapshot, Resolved& out);
  // Logs a refusal naming the disk.
  std::shared_ptr<Disk_State> state_of(const std::string& name, const char* what);

  const Simulator& sim_;
  std::mutex mutex_;  // guards the maps below; one disk is seeded at a time, and only once
  std::map<std::string, std::shared_ptr<Disk_State>> states_;  // by the disk's first path
  std::map<std::string, std::string> moved_;                   // overlay path -> first path
  struct Frozen_Path {
    std::string first, snapshot, overlay, backing;
  };
  std::map<std::string, Frozen_Path> frozen_;  // old path of an external snapshot
  std::uint64_t drop_bytes_ = 0;
  int drop_count_ = 0;
  std::shared_ptr<Disk_State> drop_disk_;  // null: any disk
  std::mutex hold_mutex_;                  // guards the holds and waiting counts of the disks
  std::condition_variable hold_changed_;
  bool holds_released_ = false;
  std::atomic<bool> hold_all_{false};
};

}  // namespace cas_sim
