// The boundary between the storage-pool client and a pool: one driver per URL scheme. Methods
// report failure by returning false (or -1) and filling `error` with the reason and the object's
// name; they never log, the client's caller does.
#pragma once

#include "host/storage/options.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

// An object opened by a driver. A write goes write* -> sync -> commit; an object destroyed before
// its commit succeeded leaves nothing new under its name.
class Storage_Object {
 public:
  virtual ~Storage_Object() = default;

  // Appends `length` bytes to an object opened for writing. After a failure the object is only
  // fit to be destroyed.
  virtual bool write(const void* data, std::size_t length, std::string& error) = 0;

  // Reads up to `length` bytes of an object opened for reading: fewer only at its end, 0 once
  // at the end, -1 on failure.
  virtual ssize_t read(void* buffer, std::size_t length, std::string& error) = 0;

  // For a write: makes the bytes written durable, still under no name. For a read: nothing.
  virtual bool sync(std::string& error) = 0;

  // For a write (after sync): puts the object under its name, replacing an older object of that
  // name. On failure the older object is still there, unless it was replaced but the replacement
  // could not be made durable (the error says so). For a read: releases it.
  virtual bool commit(std::string& error) = 0;

  // Bytes the pool holds for the object: written so far, or its whole size when read.
  virtual std::uint64_t stored_size() const = 0;
};

// One pool reached through a URL. Object names given to a driver are already checked: relative,
// '/'-separated, without empty, "." or ".." components.
class Storage_Driver {
 public:
  virtual ~Storage_Driver() = default;

  // Opens object `name` for reading (mode 1) or writing (mode 2). A written object becomes
  // visible only when committed; folders a name needs are created by the write. Null on failure,
  // with nothing created under the name.
  virtual std::unique_ptr<Storage_Object> open(const std::string& name, int mode,
                                               std::string& error) = 0;

  // Removes object `name`. An object that does not exist counts as removed.
  virtual bool remove(const std::string& name, std::string& error) = 0;
};

// Makes a driver for `url` (its scheme already matched); null with `error` filled on failure.
using Storage_Driver_Factory = std::function<std::unique_ptr<Storage_Driver>(
    const std::string& url, const Client_IO_Base::Options& options, std::string& error)>;

// Wrappers that forward every call to a target, so that a derived class changes only the calls
// it is about: a fault injected into one step, a measurement, a throttle.
class Storage_Object_Wrapper : public Storage_Object {
 public:
  explicit Storage_Object_Wrapper(std::unique_ptr<Storage_Object> target)
      : target_(std::move(target)) {}
  Storage_Object* target() const { return target_.get(); }

  bool write(const void* data, std::size_t length, std::string& error) override {
    return target_->write(data, length, error);
  }
  ssize_t read(void* buffer, std::size_t length, std::string& error) override {
    return target_->read(buffer, length, error);
  }
  bool sync(std::string& error) override { return target_->sync(error); }
  bool commit(std::string& error) override { return target_->commit(error); }
  std::uint64_t stored_size() const override { return target_->stored_size(); }

 private:
  std::unique_ptr<Storage_Object> target_;
};

class Storage_Driver_Wrapper : public Storage_Driver {
 public:
  explicit Storage_Driver_Wrapper(std::unique_ptr<Storage_Driver> target)
      : target_(std::move(target)) {}
  Storage_Driver* target() const { return target_.get(); }

  std::unique_ptr<Storage_Object> open(const std::string& name, int mode,
                                       std::string& error) override {
    return target_->open(name, mode, error);
  }
  bool remove(const std::string& name, std::string& error) override {
    return target_->remove(name, error);
  }

 private:
  std::unique_ptr<Storage_Driver> target_;
};
