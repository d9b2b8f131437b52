// A file descriptor, closed when its owner goes. Header-only, so that libraries which do not link
// the host library (the disk SDK stand-in) can use it too.
#pragma once

#include <unistd.h>

class Unique_Fd {
 public:
  Unique_Fd() = default;
  explicit Unique_Fd(int fd) : fd_(fd) {}
  ~Unique_Fd() { reset(); }
  Unique_Fd(Unique_Fd&& other) noexcept : fd_(other.release()) {}
  Unique_Fd& operator=(Unique_Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};
