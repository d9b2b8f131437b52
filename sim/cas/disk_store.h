// The images of the world's disks, as the disk service serves them: sparse files under
// "<data>/disks" at each disk's own path ("/vms/images/web01-vda" lives in
// "<data>/disks/vms/images/web01-vda"), seeded from the disk's "content" the first time they are
// served and kept from then on. A snapshot of a disk is a read-only copy beside it,
// "<file>@<snapshot>". Thread-safe.
#pragma once

#include "sim/cvd/protocol.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace cas_sim {

class Simulator;

class Disk_Store {
 public:
  // Disks are looked up in `sim`'s world when opened, so disks added later are served too.
  explicit Disk_Store(const Simulator& sim) : sim_(sim) {}

  struct Opened {
    // 0, or -ENOENT (no such disk or snapshot), -EINVAL (a snapshot opened for writing) or -EIO
    // (anything else, logged).
    int error = 0;
    Unique_Fd fd;
    std::uint64_t size = 0;
  };
  // Opens the disk at `name`, a disk path of the world or "rbd:<pool>/<image>" (the disk of pool
  // `pool` whose path ends in "/<image>"), or its snapshot `snapshot` when not empty. The image
  // is created and seeded first when it does not exist yet.
  Opened open(const std::string& name, const std::string& snapshot, bool writable);

  // Copies the disk's current content, holes as holes, to its snapshot `snapshot` (replacing
  // one of that name). False after one log line.
  bool take_snapshot(const std::string& name, const std::string& snapshot);

  // The image file of the disk at `path`, existing or not; "" when the simulator has no data
  // folder.
  std::string file_of(const std::string& path) const;

 private:
  // The image file of disk `name`, seeded when new: 0, -ENOENT (nothing logged) or -EIO (logged).
  int image_file(const std::string& name, std::string& file);

  const Simulator& sim_;
  std::mutex seed_mutex_;  // one disk is seeded at a time, and only once
};

}  // namespace cas_sim
