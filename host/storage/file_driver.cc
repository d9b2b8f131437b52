#include "host/storage/file_driver.h"

#include "host/core/unique_fd.h"
#include "host/storage/pool_url.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <utility>

namespace {

std::string errno_text(int error) {
  char buffer[256];
  return strerror_r(error, buffer, sizeof buffer);
}

// "<what> '<path>': <reason>"
std::string sys_error(const char* what, const std::string& path, int error = errno) {
  return std::string(what) + " '" + path + "': " + errno_text(error);
}

const int s_dir_flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool full_write(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd, data, length);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    data += n;
    length -= static_cast<std::size_t>(n);
  }
  return true;
}

// A short tag of this host's name (FNV-1a, in hex), which temporary names carry so that only
// writers of this host are judged dead, without making long names longer than a name may be.
const std::string& host_tag() {
  static const std::string s_tag = [] {
    char name[256] = {};
    ::gethostname(name, sizeof name - 1);
    std::uint32_t hash = 2166136261u;
    for (const char* c = name; *c; ++c)
      hash = (hash ^ static_cast<unsigned char>(*c)) * 16777619u;
    char tag[9];
    std::snprintf(tag, sizeof tag, "%08x", hash);
    return std::string(tag);
  }();
  return s_tag;
}

// ".<object>.partial.<host tag>.<pid>.<n>": a write in progress, or left by a writer that died.
std::string temporary_name(const std::string& base) {
  static std::atomic<unsigned> s_counter{0};
  return "." + base + ".partial." + host_tag() + "." + std::to_string(::getpid()) + "." +
         std::to_string(s_counter++);
}

// Whether `name` is the temporary of a writer of this host that no longer runs.
bool is_dead_partial(const std::string& name) {
  const std::string::size_type mark = name.rfind(".partial.");
  if (name.empty() || name[0] != '.' || mark == std::string::npos)
    return false;
  const std::string rest = name.substr(mark + 9);  // "<host tag>.<pid>.<n>"
  const std::string::size_type counter = rest.rfind('.');
  if (counter == std::string::npos || counter == 0)
    return false;
  const std::string::size_type pid_at = rest.rfind('.', counter - 1);
  if (pid_at == std::string::npos || rest.compare(0, pid_at, host_tag()) != 0)
    return false;
  const std::string pid = rest.substr(pid_at + 1, counter - pid_at - 1);
  if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos || pid.size() > 9)
    return false;
  return ::kill(static_cast<pid_t>(std::stol(pid)), 0) != 0 && errno == ESRCH;
}

// Removes from folder `dir` the temporaries of writers that died (a killed process leaves its
// write behind), so that a pool does not fill up with hidden partial objects. Best effort.
void sweep_dead_partials(int dir) {
  Unique_Fd fd(::openat(dir, ".", s_dir_flags));
  DIR* listing = fd ? ::fdopendir(fd.get()) : nullptr;
  if (!listing)
    return;
  fd.release();  // the listing owns it now
  while (const dirent* entry = ::readdir(listing)) {
    if (is_dead_partial(entry->d_name))
      ::unlinkat(dir, entry->d_name, 0);
  }
  ::closedir(listing);
}

class File_Object : public Storage_Object {
 public:
  // Reading: `fd` is the object. Writing: `fd` is the temporary `temp_name` in folder `dir`.
  File_Object(Unique_Fd dir, Unique_Fd fd, std::string path, std::string base,
              std::string temp_name, std::uint64_t size)
      : dir_(std::move(dir)),
        fd_(std::move(fd)),
        path_(std::move(path)),
        base_(std::move(base)),
        temp_name_(std::move(temp_name)),
        size_(size) {}

  ~File_Object() override { discard(); }

  bool write(const void* data, std::size_t length, std::string& error) override {
    if (temp_name_.empty() || !fd_) {
      error = "'" + path_ + "' is not open for writing";
      return false;
    }
    if (!full_write(fd_.get(), static_cast<const char*>(data), length)) {
      error = sys_error("Cannot write", path_);
      return false;
    }
    size_ += length;
    return true;
  }

  ssize_t read(void* buffer, std::size_t length, std::string& error) override {
    if (!temp_name_.empty() || !fd_) {
      error = "'" + path_ + "' is not open for reading";
      return -1;
    }
    std::size_t done = 0;
    while (done < length) {
      ssize_t n = ::read(fd_.get(), static_cast<char*>(buffer) + done, length - done);
      if (n < 0) {
        if (errno == EINTR)
          continue;
        error = sys_error("Cannot read", path_);
        return -1;
      }
      if (n == 0)
        break;
      done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
  }

  bool sync(std::string& error) override {
    if (temp_name_.empty() || !fd_)
      return true;
    if (::fsync(fd_.get()) != 0) {
      error = sys_error("Cannot flush", path_);
      return false;
    }
    if (::close(fd_.release()) != 0) {
      error = sys_error("Cannot close", path_);
      return false;
    }
    return true;
  }

  bool commit(std::string& error) override {
    if (temp_name_.empty()) {
      fd_.reset();
      return true;
    }
    if (fd_ && !sync(error))
      return false;
    if (::renameat(dir_.get(), temp_name_.c_str(), dir_.get(), base_.c_str()) != 0) {
      error = sys_error("Cannot rename the temporary object to", path_);
      return false;
    }
    temp_name_.clear();  // the object is in place: nothing left to discard
    if (::fsync(dir_.get()) != 0) {
      error = sys_error("Written, but cannot flush the folder of", path_);
      return false;
    }
    return true;
  }

  std::uint64_t stored_size() const override { return size_; }

 private:
  void discard() {
    fd_.reset();
    if (!temp_name_.empty())
      ::unlinkat(dir_.get(), temp_name_.c_str(), 0);
    temp_name_.clear();
  }

  Unique_Fd dir_;
  Unique_Fd fd_;
  std::string path_;       // full path, for messages
  std::string base_;       // last component of the object's name
  std::string temp_name_;  // non-empty while an uncommitted write exists
  std::uint64_t size_;
};

class File_Driver : public Storage_Driver {
 public:
  explicit File_Driver(std::string root) : root_(std::move(root)) {}

  std::unique_ptr<Storage_Object> open(const std::string& name, int mode,
                                       std::string& error) override {
    const std::string path = root_ + "/" + name;
    const bool writing = mode == Client_IO_Ex::Write;
    std::string base;
    bool missing = false;
    Unique_Fd dir = open_folder(name, writing, base, missing, error);
    if (!dir) {
      error = (writing ? "Cannot create '" : "Cannot open '") + path + "': " + error;
      return nullptr;
    }
    if (!writing) {
      Unique_Fd fd(::openat(dir.get(), base.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
      struct stat st;
      if (!fd || ::fstat(fd.get(), &st) != 0) {
        error = sys_error("Cannot open", path);
        return nullptr;
      }
      if (!S_ISREG(st.st_mode)) {
        error = "Cannot open '" + path + "': not a regular file";
        return nullptr;
      }
      return std::make_unique<File_Object>(std::move(dir), std::move(fd), path, base, "",
                                           static_cast<std::uint64_t>(st.st_size));
    }
    sweep_dead_partials(dir.get());
    const std::string temp = temporary_name(base);
    Unique_Fd fd(::openat(dir.get(), temp.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) {
      error = sys_error("Cannot create", path);
      return nullptr;
    }
    return std::make_unique<File_Object>(std::move(dir), std::move(fd), path, base, temp, 0);
  }

  bool remove(const std::string& name, std::string& error) override {
    const std::string path = root_ + "/" + name;
    std::string base;
    bool missing = false;
    Unique_Fd dir = open_folder(name, false, base, missing, error);
    if (!dir) {
      error = "Cannot remove '" + path + "': " + error;
      return missing;  // a missing folder holds no object
    }
    if (::unlinkat(dir.get(), base.c_str(), 0) != 0 && errno != ENOENT) {
      error = sys_error("Cannot remove", path);
      return false;
    }
    return true;
  }

 private:
  // Opens the folder holding object `name`, one component at a time without following symbolic
  // links, creating what is missing when `create`. `base` receives the last component; `missing`
  // tells a folder that does not exist from other failures, `error` names the folder.
  Unique_Fd open_folder(const std::string& name, bool create, std::string& base, bool& missing,
                        std::string& error) {
    Unique_Fd dir = open_root(create, missing, error);
    if (!dir)
      return dir;
    std::string::size_type start = 0;
    for (;;) {
      std::string::size_type slash = name.find('/', start);
      if (slash == std::string::npos) {
        base = name.substr(start);
        return dir;
      }
      const std::string component = name.substr(start, slash - start);
      const std::string folder = root_ + "/" + name.substr(0, slash);
      Unique_Fd next(::openat(dir.get(), component.c_str(), s_dir_flags | O_NOFOLLOW));
      if (!next && errno == ENOENT && create) {
        if (::mkdirat(dir.get(), component.c_str(), 0755) != 0 && errno != EEXIST) {
          error = sys_error("cannot create folder", folder);
          return Unique_Fd();
        }
        ::fsync(dir.get());  // the new entry must outlive a crash as the object will
        next.reset(::openat(dir.get(), component.c_str(), s_dir_flags | O_NOFOLLOW));
      }
      if (!next) {
        const int e = errno;
        missing = e == ENOENT;
        error = e == ELOOP || e == ENOTDIR
                    ? "folder '" + folder + "' is not a folder inside the pool"
                    : sys_error("cannot open folder", folder, e);
        return Unique_Fd();
      }
      dir = std::move(next);
      start = slash + 1;
    }
  }

  // The pool folder itself; created with its parents for a write.
  Unique_Fd open_root(bool create, bool& missing, std::string& error) {
    Unique_Fd dir(::open(root_.c_str(), s_dir_flags));
    if (!dir && errno == ENOENT && create) {
      for (std::string::size_type slash = root_.find('/', 1);; slash = root_.find('/', slash + 1)) {
        const std::string prefix = root_.substr(0, slash);
        if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
          error = sys_error("cannot create pool folder", prefix);
          return Unique_Fd();
        }
        if (slash == std::string::npos)
          break;
      }
      dir.reset(::open(root_.c_str(), s_dir_flags));
    }
    if (!dir) {
      missing = errno == ENOENT;  // before anything can change errno
      error = sys_error("cannot open pool folder", root_);
    }
    return dir;
  }

  std::string root_;
};

}  // namespace

std::unique_ptr<Storage_Driver> make_file_storage_driver(const std::string& url,
                                                         const Client_IO_Base::Options&,
                                                         std::string& error) {
  std::string folder;
  if (!validate_pool_url(url, folder, error))
    return nullptr;
  return std::make_unique<File_Driver>(folder);
}
