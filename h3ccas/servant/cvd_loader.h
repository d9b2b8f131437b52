// Run-time loading of libcvd, the CAS disk-access SDK. The module does not link against it: a
// servant opens the library that CAS_CVD_SDK_PATH names and calls it through the pointers below.
#pragma once

#include "h3ccas/servant/cvd_api.h"

#include <ace/DLL.h>

#include <atomic>

namespace h3ccas {

// libcvd's functions: null until a loader is initialised, and again once that loader is
// destroyed. They are not written while the library is in use, so every thread may call them.
// There is one set per process, hence one initialised loader at a time: another loader's init
// fails while one holds the library, and its destruction leaves the functions alone.
extern decltype(&::cvd_init) cvd_init;
extern decltype(&::cvd_deinit) cvd_deinit;
extern decltype(&::cvd_connect) cvd_connect;
extern decltype(&::cvd_disconnect) cvd_disconnect;
extern decltype(&::cvd_disk_open) cvd_disk_open;
extern decltype(&::cvd_disk_close) cvd_disk_close;
extern decltype(&::cvd_disk_read) cvd_disk_read;
extern decltype(&::cvd_disk_write) cvd_disk_write;

class CVD_Loader {
 public:
  CVD_Loader() = default;
  // cvd_deinit and the library closed when this loader initialised it; nothing otherwise.
  ~CVD_Loader();
  CVD_Loader(const CVD_Loader&) = delete;
  CVD_Loader& operator=(const CVD_Loader&) = delete;

  // The servant's loader, finished at exit.
  static CVD_Loader& instance();

  // Opens the library (lazy binding, global symbols), looks up its eight functions and calls
  // cvd_init with the SDK log under the install root and the configuration that
  // CAS_CVD_SDK_CONF_PATH names. True at once when already done. A failure (one log line) leaves
  // nothing open and the functions as they were, so a later call tries again. Safe from several
  // threads.
  bool init();
  bool inited() const { return inited_; }

 private:
  struct Functions;
  bool init_i(Functions& functions);
  static void publish(const Functions& functions);

  ACE_DLL dll_;
  std::atomic<bool> inited_{false};
};

}  // namespace h3ccas
