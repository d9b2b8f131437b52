// A libcvd for the loader and connection tests: it appends each call to the file that
// CVD_STUB_JOURNAL names, cvd_init returns CVD_STUB_INIT_RESULT (default 0), the host
// "unreachable" refuses connections and the disk "/missing" does not exist. Reads return the
// letters 'a'..'z' repeated from offset 0; reads of "/unreadable" fail from 64 KiB on. Writes land
// in the folder CVD_STUB_DISKS names, in a file named as the disk's last path component; those to a
// path holding "unwritable" fail.
#include "h3ccas/servant/cvd_api.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

struct cvd_connection {
  std::string host;
};
struct cvd_disk {
  std::string path;
};

namespace {
void journal(const std::string& line) {
  const char* path = std::getenv("CVD_STUB_JOURNAL");
  if (FILE* f = path ? std::fopen(path, "a") : nullptr)
    std::fprintf(f, "%s\n", line.c_str()), std::fclose(f);
}

std::string text(const char* s) {
  return s ? s : "-";
}
}  // namespace

extern "C" {

int cvd_init(const char* name, const char* log_path, const char* conf_path) {
  journal("init " + text(name) + " " + text(log_path) + " " + text(conf_path));
  const char* result = std::getenv("CVD_STUB_INIT_RESULT");
  return result ? std::atoi(result) : 0;
}
int cvd_deinit(void) {
  journal("deinit");
  return 0;
}

int cvd_connect(const cvd_connect_param* p, cvd_conn_t* conn) {
  journal("connect " + text(p->host) + " " + std::to_string(p->port) + " " + text(p->user) + " " +
          text(p->password) + " " + text(p->extra) + " " + std::to_string(p->reserved));
  if (std::strcmp(p->host, "unreachable") == 0)
    return -ECONNREFUSED;
  *conn = new cvd_connection{p->host};
  return 0;
}

int cvd_disconnect(cvd_conn_t conn) {
  journal("disconnect " + conn->host);
  delete conn;
  return 0;
}

#ifndef CVD_STUB_WITHOUT_DISK_OPEN
int cvd_disk_open(cvd_conn_t conn, const char* path, const char* snapshot, int flags,
                  cvd_disk_t* disk) {
  journal("open " + text(path) + " " + text(snapshot) + " " + std::to_string(flags));
  if (std::strcmp(path, "/missing") == 0)
    return -ENOENT;
  *disk = new cvd_disk{path};
  return 0;
}
#endif

int cvd_disk_close(cvd_disk_t disk) {
  journal("close " + disk->path);
  delete disk;
  return 0;
}

int64_t cvd_disk_read(cvd_disk_t disk, uint64_t offset, uint64_t length, void* buffer) {
  if (disk->path == "/unreadable" && offset + length > 65536)
    return -EIO;
  for (uint64_t i = 0; i < length; ++i)
    static_cast<char*>(buffer)[i] = static_cast<char>('a' + (offset + i) % 26);
  return static_cast<int64_t>(length);
}

int64_t cvd_disk_write(cvd_disk_t disk, uint64_t offset, uint64_t length, const void* buffer) {
  journal("write " + disk->path + " " + std::to_string(offset) + " " + std::to_string(length));
  const std::string file = disk->path.substr(disk->path.rfind('/') + 1);
  const char* dir = std::getenv("CVD_STUB_DISKS");
  int fd = dir ? ::open((dir + ("/" + file)).c_str(), O_WRONLY | O_CREAT, 0644) : -1;
  int64_t n = fd < 0 ? static_cast<int64_t>(length)
                     : ::pwrite(fd, buffer, length, static_cast<off_t>(offset));
  if (fd >= 0)
    ::close(fd);
  return disk->path.find("unwritable") == std::string::npos ? n : -EIO;
}

}  // extern "C"
