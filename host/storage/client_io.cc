#include "host/storage/client_io.h"

#include "host/storage/file_driver.h"

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

const struct {
  const char* name;
  Client_IO_Base::Compression value;
  const char* suffix;
} s_compressions[] = {
    {"none", Client_IO_Base::Compression::None, ""},
    {"zstd", Client_IO_Base::Compression::Zstd, ".zst"},
    {"lz4", Client_IO_Base::Compression::Lz4, ".lz4"},
    {"zlib", Client_IO_Base::Compression::Zlib, ".zlib"},
};

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
  if (colon == std::string::npos || colon == 0)
    return fail("Invalid storage pool URL '" + url + "'");
  Storage_Driver_Factory factory;
  {
    Driver_Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.factories.find(url.substr(0, colon));
    if (it == r.factories.end())
      return fail("Unsupported storage pool URL '" + url + "'");
    factory = it->second;
  }
  std::string error;
  driver_ = factory(url, options, error);
  if (!driver_)
    return fail(error);
  return true;
}

bool Client_IO_Ex::open(const std::string& path, int mode, int flags, std::uint64_t) {
  abandon();
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
  return ok || fail(error);
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
  if (!object_)
    return fail("Cannot close '" + path_ + "': not open");
  std::string error;
  bool ok = object_->commit(error);
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
  for (const auto& c : s_compressions)
    if (name == c.name)
      return static_cast<int>(c.value);
  return 0;
}

const char* compression_value_to_suffix(int value) {
  for (const auto& c : s_compressions)
    if (value == static_cast<int>(c.value))
      return c.suffix;
  return "";
}
