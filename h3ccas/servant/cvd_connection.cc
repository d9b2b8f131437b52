#include "h3ccas/servant/cvd_connection.h"

#include "h3ccas/servant/cvd_loader.h"
#include "host/core/log.h"

#include <chrono>

namespace h3ccas {

namespace {

ACE_UINT64 seconds_since(std::chrono::steady_clock::time_point start) {
  auto elapsed = std::chrono::steady_clock::now() - start;
  return static_cast<ACE_UINT64>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count());
}

}  // namespace

void close_cvd_disk(cvd_disk_t disk) {
  int rc = cvd_disk_close(disk);
  if (rc != 0)
    LOG_MSG((LM_WARNING, "Failed to close disk on CAS, error=%d.\n", rc));
}

CVD_Connection::~CVD_Connection() {
  if (conn_)
    cvd_disconnect(conn_);
}

bool CVD_Connection::connect(const CVM_Info& cvm, const std::string& cvk_addr,
                             const std::string& extra) {
  if (conn_) {
    LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, conn_ is true:\n%?\n"));
    return false;
  }
  if (!CHECK_TRUE(cvd_connect != nullptr))
    return false;
  LOG_MSG((LM_INFO, "Connecting to '%s' for disk access.\n", cvk_addr.c_str()));
  auto start = std::chrono::steady_clock::now();
  cvd_connect_param param{};
  param.host = cvk_addr.c_str();
  param.port = port_;
  param.user = cvm.username().c_str();
  param.password = cvm.password().c_str();
  param.extra = extra.c_str();
  param.reserved = 0;
  int rc = cvd_connect(&param, &conn_);
  if (rc != 0) {
    conn_ = nullptr;
    LOG_MSG((LM_ERROR, "Failed to connect to cvd-ds service of CVK '%s', error=%d.\n",
             cvk_addr.c_str(), rc));
    return false;
  }
  LOG_MSG((LM_INFO, "'%s' connected for disk access, cost %Qs.\n", cvk_addr.c_str(),
           seconds_since(start)));
  return true;
}

CVD_Disk_Handle CVD_Connection::open(const std::string& path, const char* snapshot, int flags) {
  if (!CHECK_TRUE(conn_ != nullptr))
    return nullptr;
  const char* snapshot_text = snapshot ? snapshot : "";
  LOG_MSG((LM_INFO, "Opening disk '%s', snapshot = '%s'.\n", path.c_str(), snapshot_text));
  auto start = std::chrono::steady_clock::now();
  cvd_disk_t disk = nullptr;
  int rc = cvd_disk_open(conn_, path.c_str(), snapshot, flags, &disk);
  if (rc != 0) {
    LOG_MSG((LM_ERROR, "Failed to open disk '%s' on CAS, error=%d.\n", path.c_str(), rc));
    return nullptr;
  }
  LOG_MSG((LM_INFO, "Disk '%s' with snapshot = '%s' is opened, cost %Qs.\n", path.c_str(),
           snapshot_text, seconds_since(start)));
  return CVD_Disk_Handle(disk);
}

}  // namespace h3ccas
