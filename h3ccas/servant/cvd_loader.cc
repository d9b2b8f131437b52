#include "h3ccas/servant/cvd_loader.h"

#include "host/core/log.h"
#include "host/core/paths.h"

#include <dlfcn.h>

#include <cstdlib>
#include <string>

namespace h3ccas {

decltype(&::cvd_init) cvd_init = nullptr;
decltype(&::cvd_deinit) cvd_deinit = nullptr;
decltype(&::cvd_connect) cvd_connect = nullptr;
decltype(&::cvd_disconnect) cvd_disconnect = nullptr;
decltype(&::cvd_disk_open) cvd_disk_open = nullptr;
decltype(&::cvd_disk_close) cvd_disk_close = nullptr;
decltype(&::cvd_disk_read) cvd_disk_read = nullptr;
decltype(&::cvd_disk_write) cvd_disk_write = nullptr;

namespace {

const char* dll_error(const ACE_DLL& dll) {
  const char* text = dll.error();
  return text ? text : "unknown error";
}

template <class Function>
bool lookup(ACE_DLL& dll, const char* name, Function& function) {
  void* symbol = dll.symbol(name);
  if (!symbol) {
    LOG_MSG((LM_ERROR, "Failed to load CAS libcvd symbol %s: %s\n", name, dll_error(dll)));
    return false;
  }
  function = reinterpret_cast<Function>(symbol);
  return true;
}

}  // namespace

CVD_Loader::~CVD_Loader() {
  if (inited_)
    cvd_deinit();
  unload_i();
}

CVD_Loader& CVD_Loader::instance() {
  static CVD_Loader loader;
  return loader;
}

bool CVD_Loader::init() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (inited_)
    return true;
  if (!init_i()) {
    unload_i();
    return false;
  }
  inited_ = true;
  return true;
}

bool CVD_Loader::init_i() {
  const char* path = std::getenv("CAS_CVD_SDK_PATH");
  if (!path || !*path) {
    LOG_MSG((LM_ERROR, "Failed to load CAS libcvd '%s': %s\n", "", "CAS_CVD_SDK_PATH is not set"));
    return false;
  }
  if (dll_.open(path, RTLD_LAZY | RTLD_GLOBAL, true) != 0) {
    LOG_MSG((LM_ERROR, "Failed to load CAS libcvd '%s': %s\n", path, dll_error(dll_)));
    return false;
  }
  if (!lookup(dll_, "cvd_disk_write", cvd_disk_write) ||
      !lookup(dll_, "cvd_disk_read", cvd_disk_read) ||
      !lookup(dll_, "cvd_disk_close", cvd_disk_close) ||
      !lookup(dll_, "cvd_disk_open", cvd_disk_open) ||
      !lookup(dll_, "cvd_disconnect", cvd_disconnect) ||
      !lookup(dll_, "cvd_connect", cvd_connect) || !lookup(dll_, "cvd_deinit", cvd_deinit) ||
      !lookup(dll_, "cvd_init", cvd_init))
    return false;
  // The SDK only opens its log file; without the folder it would log to stderr instead.
  const std::string log_dir = rooted_path("/var/log/brimlet5");
  make_dirs(log_dir, 0750);
  const std::string log_path = log_dir + "/cvd-sdk.log";
  const char* conf_path = std::getenv("CAS_CVD_SDK_CONF_PATH");
  int rc = cvd_init("starter", log_path.c_str(), conf_path ? conf_path : "");
  if (rc != 0) {
    LOG_MSG((LM_ERROR, "Failed to init CAS libcvd, error=%d.\n", rc));
    return false;
  }
  return true;
}

void CVD_Loader::unload_i() {
  inited_ = false;
  cvd_init = nullptr;
  cvd_deinit = nullptr;
  cvd_connect = nullptr;
  cvd_disconnect = nullptr;
  cvd_disk_open = nullptr;
  cvd_disk_close = nullptr;
  cvd_disk_read = nullptr;
  cvd_disk_write = nullptr;
  dll_.close();
}

}  // namespace h3ccas
