// One connection to the disk service (cvd-ds) of a CVK through libcvd, and the disks opened on it.
// libcvd must have been loaded (CVD_Loader) before any of these is used.
#pragma once

#include "h3ccas/common.h"
#include "h3ccas/servant/cvd_api.h"

#include <cstdint>
#include <memory>
#include <string>

namespace h3ccas {

// Closes a disk through libcvd; a failure is logged as a warning, since there is no one left to
// tell.
void close_cvd_disk(cvd_disk_t disk);

struct CVD_Disk_Closer {
  void operator()(cvd_disk_t disk) const { close_cvd_disk(disk); }
};

// An open disk, closed when the handle is released.
using CVD_Disk_Handle = std::unique_ptr<struct cvd_disk, CVD_Disk_Closer>;

// The disk service's port on every CVK.
constexpr std::int32_t cvd_ds_port = 8192;

class CVD_Connection {
 public:
  // `port`: another port for the disk service than the CVKs' own (a simulated CVK).
  explicit CVD_Connection(std::int32_t port = cvd_ds_port) : port_(port) {}
  // Disconnects when connected. Close the disks opened on it first.
  ~CVD_Connection();
  CVD_Connection(const CVD_Connection&) = delete;
  CVD_Connection& operator=(const CVD_Connection&) = delete;

  // Connects to the disk service at `cvk_addr` as the CVM's user; `extra` is a note
  // for the service's log. False after one log line, also when already connected.
  bool connect(const CVM_Info& cvm, const std::string& cvk_addr, const std::string& extra);
  bool connected() const { return conn_ != nullptr; }

  // Opens `path`, or its snapshot when `snapshot` is not null; `flags` is CVD_OPEN_READ or
  // CVD_OPEN_READ_WRITE. Empty after one log line on failure.
  CVD_Disk_Handle open(const std::string& path, const char* snapshot, int flags);

 private:
  std::int32_t port_;
  cvd_conn_t conn_ = nullptr;
};

}  // namespace h3ccas
