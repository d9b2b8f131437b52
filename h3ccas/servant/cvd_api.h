/* The disk-access SDK of a CAS host (libcvd), loaded at run time by the servant. This header is the
 * one declaration of its interface: the SDK and every caller agree on it.
 *
 * Results are 0 (or, for reads and writes, the bytes moved) on success and a negative errno value
 * on failure: -EACCES refused credentials, -ENOENT no such disk, -ECONNREFUSED / -ETIMEDOUT /
 * -ECONNRESET the service is unreachable or went away, -EINVAL a bad argument, -EIO anything else.
 *
 * Threads: after cvd_init, connections and disks may be used from any thread; one disk handle is
 * used by one thread at a time, while several handles (of one connection or of several) may work
 * at once. */
#ifndef H3CCAS_SERVANT_CVD_API_H
#define H3CCAS_SERVANT_CVD_API_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct cvd_connection* cvd_conn_t;
typedef struct cvd_disk* cvd_disk_t;

/* Where and as whom to connect; the texts only need to live during cvd_connect. */
typedef struct cvd_connect_param {
  const char* host;     /* the CVK's data address */
  int32_t port;         /* the disk service's port, 8192 on a CVK */
  const char* user;     /* the CVM user ... */
  const char* password; /* ... and its password */
  const char* extra;    /* caller's note (for instance the VM), may be null */
  uint64_t reserved;    /* 0 */
} cvd_connect_param;

enum { CVD_OPEN_READ = 1, CVD_OPEN_READ_WRITE = 2 };

/* Once per process, before anything else: `name` tags the SDK's log lines, `log_path` is its log
 * file and `conf_path` its configuration ("network_timeout = <seconds>;" and
 * "log_level = \"<level>\";" lines). */
int cvd_init(const char* name, const char* log_path, const char* conf_path);
/* Once per process, after every connection is closed. */
int cvd_deinit(void);

int cvd_connect(const cvd_connect_param* param, cvd_conn_t* conn);
int cvd_disconnect(cvd_conn_t conn);

/* Opens the disk at `path` on the connection's host ("/vms/images/web01-vda", or "rbd:pool/image"),
 * or its snapshot `snapshot` when not null. `flags`: CVD_OPEN_READ or CVD_OPEN_READ_WRITE. */
int cvd_disk_open(cvd_conn_t conn, const char* path, const char* snapshot, int flags,
                  cvd_disk_t* disk);
int cvd_disk_close(cvd_disk_t disk);

/* Reads or writes `length` bytes at byte `offset`. A read that reaches the end of the disk moves
 * fewer bytes; a write beyond it fails with -EINVAL. */
int64_t cvd_disk_read(cvd_disk_t disk, uint64_t offset, uint64_t length, void* buffer);
int64_t cvd_disk_write(cvd_disk_t disk, uint64_t offset, uint64_t length, const void* buffer);

#ifdef __cplusplus
}
#endif

#endif /* H3CCAS_SERVANT_CVD_API_H */
