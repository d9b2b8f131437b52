#include "h3ccas/servant/cvd_loader.h"

#include "host/core/log.h"
#include "host/core/paths.h"

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>
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

// Only one loader at a time publishes the functions above; this guards which one.
std::mutex s_mutex;
bool s_published = false;

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

// The library's functions, gathered before any is published.
struct CVD_Loader::Functions {
  decltype(&::cvd_init) init = nullptr;
  decltype(&::cvd_deinit) deinit = nullptr;
  decltype(&::cvd_connect) connect = nullptr;
  decltype(&::cvd_disconnect) disconnect = nullptr;
  decltype(&::cvd_disk_open) disk_open = nullptr;
  decltype(&::cvd_disk_close) disk_close = nullptr;
  decltype(&::cvd_disk_read) disk_read = nullptr;
  decltype(&::cvd_disk_write) disk_write = nullptr;
};

CVD_Loader::~CVD_Loader() {
  std::lock_guard<std::mutex> lock(s_mutex);
  // A loader that never got the library leaves alone what another one published.
  if (!inited_)
    return;
  cvd_deinit();
  publish(Functions());
  s_published = false;
  inited_ = false;
  dll_.close();
}

CVD_Loader& CVD_Loader::instance() {
  static CVD_Loader loader;
  return loader;
}

bool CVD_Loader::init() {
  std::lock_guard<std::mutex> lock(s_mutex);
  if (inited_)
    return true;
  if (s_published) {
    LOG_MSG((LM_ERROR, "Failed to load CAS libcvd: another loader holds it.\n"));
    return false;
  }
  Functions functions;
  if (!init_i(functions)) {
    dll_.close();
    return false;
  }
  publish(functions);
  s_published = true;
  inited_ = true;
  return true;
}

bool CVD_Loader::init_i(Functions& f) {
  const char* path = std::getenv("CAS_CVD_SDK_PATH");
  if (!path || !*path) {
    LOG_MSG((LM_ERROR, "Failed to load CAS libcvd '%s': %s\n", "", "CAS_CVD_SDK_PATH is not set"));
    return false;
  }
  if (dll_.open(path, RTLD_LAZY | RTLD_GLOBAL, true) != 0) {
    LOG_MSG((LM_ERROR, "Failed to load CAS libcvd '%s': %s\n", path, dll_error(dll_)));
    return false;
  }
  if (!lookup(dll_, "cvd_disk_write", f.disk_write) ||
      !lookup(dll_, "cvd_disk_read", f.disk_read) ||
      !lookup(dll_, "cvd_disk_close", f.disk_close) ||
      !lookup(dll_, "cvd_disk_open", f.disk_open) ||
      !lookup(dll_, "cvd_disconnect", f.disconnect) || !lookup(dll_, "cvd_connect", f.connect) ||
      !lookup(dll_, "cvd_deinit", f.deinit) || !lookup(dll_, "cvd_init", f.init))
    return false;
  // The SDK only opens its log file; without the folder it would log to stderr instead.
  const std::string log_dir = rooted_path("/var/log/brimlet5");
  make_dirs(log_dir, 0750);
  const std::string log_path = log_dir + "/cvd-sdk.log";
  const char* conf_path = std::getenv("CAS_CVD_SDK_CONF_PATH");
  int rc = f.init("starter", log_path.c_str(), conf_path ? conf_path : "");
  if (rc != 0) {
    LOG_MSG((LM_ERROR, "Failed to init CAS libcvd, error=%d.\n", rc));
    return false;
  }
  return true;
}

void CVD_Loader::publish(const Functions& f) {
  cvd_init = f.init;
  cvd_deinit = f.deinit;
  cvd_connect = f.connect;
  cvd_disconnect = f.disconnect;
  cvd_disk_open = f.disk_open;
  cvd_disk_close = f.disk_close;
  cvd_disk_read = f.disk_read;
  cvd_disk_write = f.disk_write;
}

}  // namespace h3ccas
