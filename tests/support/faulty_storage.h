// A storage driver that forwards every call, LevelDB style, but breaks one step of writing an
// object whose name holds `only`: "open", "write N" (its Nth write), "full N" (half of that write
// reaches the disk first, as when it fills up), "sync" or "commit".
#pragma once

#include "host/storage/client_io.h"
#include "host/storage/storage_driver.h"

#include <cstring>
#include <string>

class Faulty_Driver : public Storage_Driver_Wrapper {
 public:
  Faulty_Driver(std::unique_ptr<Storage_Driver> target, std::string fault, std::string only = "")
      : Storage_Driver_Wrapper(std::move(target)),
        fault_(std::move(fault)),
        only_(std::move(only)) {}
  std::unique_ptr<Storage_Object> open(const std::string& name, int mode,
                                       std::string& error) override {
    const bool writing = mode == Client_IO_Ex::Write && name.find(only_) != std::string::npos;
    if (writing && fails("open", error))
      return nullptr;
    auto object = Storage_Driver_Wrapper::open(name, mode, error);
    return object && writing ? std::make_unique<Object>(std::move(object), *this)
                             : std::move(object);
  }
  // The error a broken step reports.
  static std::string reason(const std::string& fault) {
    return fault + ": " + strerror(fault[0] == 'f' ? ENOSPC : EIO);
  }

 private:
  struct Object : Storage_Object_Wrapper {
    Object(std::unique_ptr<Storage_Object> target, const Faulty_Driver& driver)
        : Storage_Object_Wrapper(std::move(target)), driver(driver) {}
    bool write(const void* data, std::size_t length, std::string& error) override {
      const std::string nth = std::to_string(++writes);
      if (driver.fault_ == "full " + nth)
        Storage_Object_Wrapper::write(data, length / 2, error);
      return !driver.fails("write " + nth, error) && !driver.fails("full " + nth, error) &&
             Storage_Object_Wrapper::write(data, length, error);
    }
    bool sync(std::string& error) override {
      return !driver.fails("sync", error) && Storage_Object_Wrapper::sync(error);
    }
    bool commit(std::string& error) override {
      return !driver.fails("commit", error) && Storage_Object_Wrapper::commit(error);
    }
    const Faulty_Driver& driver;
    int writes = 0;
  };
  bool fails(const std::string& step, std::string& error) const {
    return fault_ == step && (error = reason(step), true);
  }
  const std::string fault_, only_;
};
