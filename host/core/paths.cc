#include "host/core/paths.h"

#include "host/core/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

std::string install_root() {
  const char* root = std::getenv("BRIMLET_ROOT");
  std::string r = root && *root ? root : "/";
  while (!r.empty() && r.back() == '/')
    r.pop_back();
  return r;
}

std::string rooted_path(const std::string& absolute) {
  if (absolute.empty() || absolute[0] != '/')
    return install_root() + "/" + absolute;
  return install_root() + absolute;
}

bool make_dirs(const std::string& dir, mode_t mode) {
  std::string partial;
  std::size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    partial = dir.substr(0, pos);
    if (partial.empty())
      continue;
    if (mkdir(partial.c_str(), mode) != 0 && errno != EEXIST) {
      LOG_MSG((LM_ERROR, "Failed to create directory '%s': %m.\n", partial.c_str()));
      return false;
    }
  }
  return true;
}

bool read_file(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  std::ostringstream ss;
  ss << in.rdbuf();
  out = ss.str();
  return true;
}

bool write_file_atomic(const std::string& path, const std::string& data, mode_t mode) {
  std::string tmp = path + ".tmp." + std::to_string(getpid());
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) {
    LOG_MSG((LM_ERROR, "Failed to create '%s': %m.\n", tmp.c_str()));
    return false;
  }
  const char* p = data.data();
  std::size_t left = data.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      LOG_MSG((LM_ERROR, "Failed to write '%s': %m.\n", tmp.c_str()));
      ::close(fd);
      ::unlink(tmp.c_str());
      return false;
    }
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(tmp.c_str(), path.c_str()) != 0) {
    LOG_MSG((LM_ERROR, "Failed to save '%s': %m.\n", path.c_str()));
    ::unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool create_script_file(const std::string& content, std::string& path, const char* suffix) {
  const std::string sfx = suffix ? suffix : "";
  if (sfx.find('/') != std::string::npos) {
    LOG_MSG((LM_ERROR, "Invalid script file suffix '%s'.\n", sfx.c_str()));
    return false;
  }
  const std::string dir = rooted_path("/var/opt/quorvex/brimlet5/tmp");
  if (!make_dirs(dir, 0750))
    return false;
  std::string name = dir + "/script-XXXXXX" + sfx;
  // mkstemps makes the name unique and the file 0600.
  int fd = ::mkostemps(&name[0], static_cast<int>(sfx.size()), O_CLOEXEC);
  if (fd < 0) {
    LOG_MSG((LM_ERROR, "Failed to create a script file in '%s': %m.\n", dir.c_str()));
    return false;
  }
  const char* p = content.data();
  std::size_t left = content.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  bool written = left == 0 && ::fsync(fd) == 0;
  int saved = errno;
  if (::close(fd) != 0 && written) {
    written = false;
    saved = errno;
  }
  if (!written) {
    errno = saved;
    LOG_MSG((LM_ERROR, "Failed to write script file '%s': %m.\n", name.c_str()));
    ::unlink(name.c_str());
    return false;
  }
  path = std::move(name);
  return true;
}

Path_Conf::Path_Conf(const char* dir_pattern, const char* component, const char* file_name,
                     mode_t dir_mode)
    : dir_pattern_(dir_pattern),
      component_(component),
      file_name_(file_name),
      dir_mode_(dir_mode) {}

std::string Path_Conf::dir() const {
  std::string d = dir_pattern_;
  const std::string key = "$COMPONENT";
  for (auto pos = d.find(key); pos != std::string::npos; pos = d.find(key))
    d.replace(pos, key.size(), component_);
  return rooted_path(d);
}

bool Path_Conf::get(std::string& path) const {
  std::string d = dir();
  if (!make_dirs(d, dir_mode_))
    return false;
  path = d + "/" + file_name_;
  return true;
}

namespace brimlet_paths {
std::string etc_dir() {
  return rooted_path("/etc/opt/quorvex/brimlet5");
}
std::string log_dir() {
  return rooted_path("/var/log/brimlet5");
}
std::string opt_dir() {
  return rooted_path("/opt/quorvex/brimlet5");
}
}  // namespace brimlet_paths
