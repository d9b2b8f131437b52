#include "host/core/mem_map.h"

#include "host/core/log.h"
#include "host/core/paths.h"

#include <ace/Mem_Map.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>

namespace {

// Names come from job definitions and the CAS inventory: keep them inside their directory.
bool is_single_component(const char* name) {
  return std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
         std::strcmp(name, "..") != 0;
}

}  // namespace

Mem_Map_File::Mem_Map_File() = default;
Mem_Map_File::~Mem_Map_File() = default;
Mem_Map_File::Mem_Map_File(Mem_Map_File&&) noexcept = default;
Mem_Map_File& Mem_Map_File::operator=(Mem_Map_File&&) noexcept = default;

bool Mem_Map_File::open(const char* dir_pattern, const char* component, const char* id,
                        const char* basename, std::size_t size, bool create, bool close_on_exec,
                        mode_t dir_mode) {
  close();
  if (id == nullptr || *id == '\0')
    return check_failed(__FILE__, __LINE__, "id is NULL or \"\"");
  if (basename == nullptr || *basename == '\0')
    return check_failed(__FILE__, __LINE__, "basename is NULL or \"\"");
  if (!is_single_component(id) || !is_single_component(basename)) {
    LOG_MSG((LM_ERROR, "Invalid name '%s/%s' of a memory-mapped file.\n", id, basename));
    return false;
  }

  const std::string dir = std::string(dir_pattern) + "/" + id;
  const Path_Conf conf(dir.c_str(), component, basename, dir_mode);
  std::string path;
  if (!create)
    path = conf.dir() + "/" + basename;
  else if (!conf.get(path))
    return false;

  int flags = O_RDWR;
  if (create)
    flags |= O_CREAT;
  if (close_on_exec)
    flags |= O_CLOEXEC;
  auto map = std::make_unique<ACE_Mem_Map>();
  if (map->map(path.c_str(), size, flags, 0640, PROT_READ | PROT_WRITE, MAP_SHARED) != 0) {
    const int error = errno;
    LOG_MSG((LM_ERROR, "Failed to memory map %s, errno=%d, %m\n", path.c_str(), error));
    return false;
  }
  map_ = std::move(map);
  path_ = std::move(path);
  return true;
}

void Mem_Map_File::close() {
  map_.reset();
  path_.clear();
}

void* Mem_Map_File::addr() const {
  return map_ ? map_->addr() : nullptr;
}
