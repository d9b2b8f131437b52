#include "host/storage/client_io.h"

#include "host/storage/codec.h"
#include "host/storage/file_driver.h"
#include "host/storage/pool_url.h"

#include <map>
#include <mutex>
#include <utility>

namespace {

struct Driver_Registry {
  std::mutex mutex;
  std::map<std::string, Storage_Driver_Factory> factories{{"file", make_file_storage_driver}};
};

Driver_Registry& registry() {
  static Driver_Registry s_registry;
  return s_registry;
}

}  // namespace

bool storage_object_name(const std::string& path, std::string& name) {
  std::string n = !path.empty() && path[0] == '/' ? path.substr(1) : path;
  if (n.empty() || n.back() == '/' || n.find('\0') != std::string::npos)
    return false;
  std::string::size_type start = 0;
  for (;;) {
    std::string::size_type slash = n.find('/', start);
    std::string component = n.substr(start, slash == std::string::npos ? slash : slash - start);
    if (component.empty() || component == "." || component == "..")
      return false;
    if (slash == std::string::npos)
      break;
    start = slash + 1;
  }
  name = std::move(n);
  return true;
}

Client_IO_Ex::~Client_IO_Ex() {
  abandon();
}

bool Client_IO_Ex::fail(const std::string& error) {
  error_ = error;
  return false;
}

void Client_IO_Ex::abandon() {
  object_.reset();
  mode_ = 0;
}

bool Client_IO_Ex::register_driver(const std::string& scheme, Storage_Driver_Factory factory) {
  Driver_Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.factories.emplace(scheme, std::move(factory)).second;
}

bool Client_IO_Ex::connect(const std::string& url, const Options& options) {
  abandon();
  driver_.reset();
  url_ = url;
  options_ = options;
  const std::string::size_type colon = url.find("://");
  Storage_Driver_Factory factory;
  if (colon != std::string::npos) {
    Driver_Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.factories.find(url.substr(0, colon));
    if (it != r.factories.end())
      factory = it->second;
  }
  std::string error;
  if (!factory) {
    std::string folder;
    if (validate_pool_url(url, folder, error))  // a scheme it accepts always has a driver
      error = "Unsupported storage pool URL '" + url + "'";
    return fail(error);
  }
  driver_ = factory(url, options, error);
  return driver_ != nullptr || fail(error);
}

bool Client_IO_Ex::connect(std::unique_ptr<Storage_Driver> driver, const std::string& url,
                           const Options& options) {
  abandon();
  url_ = url;
  options_ = options;
  driver_ = std::move(driver);
  return driver_ != nullptr || fail("No storage driver for '" + url + "'");
}

bool Client_IO_Ex::open(const std::string& path, int mode, int flags, std::uint64_t) {
  abandon();
  error_.clear();
  path_ = path;
  storage_size_ = 0;
  if (!driver_)
    return fail("Cannot open '" + path + "': not connected to a storage pool");
  if (mode != Read && mode != Write)
    return fail("Cannot open '" + path + "': invalid mode " + std::to_string(mode));
  if (flags != 0)
    return fail("Cannot open '" + path + "': invalid flags " + std::to_string(flags));
  if (!storage_object_name(path, name_))
    return fail("Invalid object name '" + path + "'");
  std::string error;
  object_ = driver_->open(name_, mode, error);
  if (!object_)
    return fail(error);
  mode_ = mode;
  storage_size_ = object_->stored_size();
  return true;
}

bool Client_IO_Ex::write(const void* data, std::size_t length) {
  if (!object_ || mode_ != Write)
    return fail("Cannot write '" + path_ + "': not open for writing");
  std::string error;
  bool ok = object_->write(data, length, error);
  storage_size_ = object_->stored_size();
  if (ok)
    return true;
  abandon();
  return fail(error);
}

ssize_t Client_IO_Ex::read(void* buffer, std::size_t length) {
  if (!object_ || mode_ != Read) {
    fail("Cannot read '" + path_ + "': not open for reading");
    return -1;
  }
  std::string error;
  ssize_t n = object_->read(buffer, length, error);
  if (n < 0)
    fail(error);
  return n;
}

bool Client_IO_Ex::close() {
  if (!object_)  // keeps the reason of the failure that ended the object, if one did
    return error_.empty() ? fail("Cannot close '" + path_ + "': not open") : false;
  std::string error;
  bool ok = (mode_ != Write || object_->sync(error)) && object_->commit(error);
  storage_size_ = object_->stored_size();
  abandon();
  return ok || fail(error);
}

bool Client_IO_Ex::remove(const std::string& path) {
  if (!driver_)
    return fail("Cannot remove '" + path + "': not connected to a storage pool");
  std::string name;
  if (!storage_object_name(path, name))
    return fail("Invalid object name '" + path + "'");
  if (object_ && name == name_)
    abandon();
  std::string error;
  return driver_->remove(name, error) || fail(error);
}

int compression_name_to_value(const std::string& name) {
  const Codec_Info* info = codec_info(name);
  return info ? static_cast<int>(info->codec) : 0;
}

const char* compression_value_to_suffix(int value) {
  const Codec_Info* info = codec_info(value);
  return info ? info->suffix : "";
}
