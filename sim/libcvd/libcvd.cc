// libcvd as the simulator plays it: the interface of h3ccas/servant/cvd_api.h over the cvd
// protocol to cas-sim's disk service. A connection keeps where and as whom to connect; each disk
// handle has a TCP connection of its own, so that handles read in parallel from several threads.
// Reads and writes go out in pieces, a few in flight at once, and land straight in the caller's
// buffer.
//
// Only C++ and POSIX: the library must load into any process, whatever else that links.

#pragma GCC visibility push(default)
#include "h3ccas/servant/cvd_api.h"
#pragma GCC visibility pop

#include "sim/cvd/protocol.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>

using namespace cvd_protocol;

namespace {

// Data bytes per read or write frame, and frames in flight on one disk: the service sends the
// next pieces while the caller takes in the last one. Pieces in flight together fit a core's
// cache, which measured faster than fewer, larger pieces.
constexpr std::uint32_t piece_size = 512u << 10;
constexpr std::size_t window = 4;

enum Level { LOG_ERROR, LOG_WARN, LOG_INFO, LOG_DEBUG };
const char* const level_names[] = {"ERROR", "WARN", "INFO", "DEBUG"};

// Set by cvd_init before any other call and kept until cvd_deinit, so read without a lock.
struct Settings {
  bool inited = false;
  std::string name;
  int log_fd = -1;  // may be stderr's
  Level level = LOG_INFO;
  long timeout_seconds = 60;  // any positive value: a job may allow more than a day
} settings;

void log_line(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

void log_line(Level level, const char* format, ...) {
  if (level > settings.level || settings.log_fd < 0)
    return;
  char line[2048];
  timeval now;
  gettimeofday(&now, nullptr);
  tm local;
  localtime_r(&now.tv_sec, &local);
  std::size_t n = strftime(line, sizeof line, "%Y-%m-%d %H:%M:%S", &local);
  n += static_cast<std::size_t>(
      snprintf(line + n, sizeof line - n, ".%03d %s[%d] %s: ", static_cast<int>(now.tv_usec / 1000),
               settings.name.c_str(), static_cast<int>(getpid()), level_names[level]));
  if (n < sizeof line) {
    va_list ap;
    va_start(ap, format);
    int m = vsnprintf(line + n, sizeof line - n, format, ap);
    va_end(ap);
    n = m < 0 ? n : std::min(n + static_cast<std::size_t>(m), sizeof line - 2);
  }
  n = std::min(n, sizeof line - 2);
  line[n++] = '\n';
  // One append per line: lines of several threads and processes never interleave.
  ssize_t written = write(settings.log_fd, line, n);
  (void)written;
}

// poll() takes an int of milliseconds: a longer time-out is cut to that (about 24 days).
int poll_timeout_ms() {
  constexpr long most = std::numeric_limits<int>::max() / 1000;
  return static_cast<int>(std::min(settings.timeout_seconds, most) * 1000);
}

std::string trim(const std::string& text) {
  std::size_t begin = text.find_first_not_of(" \t\r");
  std::size_t end = text.find_last_not_of(" \t\r");
  return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

// Reads "key = value;" lines; unknown keys are left to other versions of the library. Returns 0
// or -EINVAL after one log line.
int read_conf(const char* path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  if (!file) {
    log_line(LOG_ERROR, "Cannot read the configuration '%s': %s.", path, strerror(errno));
    return -EINVAL;
  }
  std::string line;
  while (std::getline(text, line)) {
    line = trim(line);
    std::size_t eq = line.find('=');
    if (line.empty() || line[0] == '#' || eq == std::string::npos)
      continue;
    std::string key = trim(line.substr(0, eq));
    std::string value = trim(line.substr(eq + 1));
    if (!value.empty() && value.back() == ';')
      value = trim(value.substr(0, value.size() - 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
      value = value.substr(1, value.size() - 2);
    if (key == "network_timeout") {
      char* end = nullptr;
      errno = 0;
      long seconds = strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || errno || seconds < 1) {
        log_line(LOG_ERROR,
                 "Invalid network_timeout '%s' in '%s': expected a positive number of seconds.",
                 value.c_str(), path);
        return -EINVAL;
      }
      settings.timeout_seconds = seconds;
    } else if (key == "log_level") {
      const char* const names[] = {"error", "warn", "info", "debug"};
      auto it = std::find_if(std::begin(names), std::end(names), [&](const char* name) {
        return strcasecmp(name, value.c_str()) == 0;
      });
      if (it != std::end(names))
        settings.level = static_cast<Level>(it - std::begin(names));
      else if (strcasecmp(value.c_str(), "warning") == 0)
        settings.level = LOG_WARN;
      else
        log_line(LOG_WARN, "Unknown log_level '%s' in '%s'; logging at info level.", value.c_str(),
                 path);
    }
  }
  return 0;
}

// A TCP connection to the disk service that answers requests in order. After a transport or
// protocol failure it is closed for good: what would come next on it could not be trusted.
class Channel {
 public:
  // 0, or -ECONNREFUSED (no service there, or no such host) or -ETIMEDOUT.
  int dial(const std::string& host, int port) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (error != 0) {
      log_line(LOG_ERROR, "Cannot resolve '%s': %s.", host.c_str(), gai_strerror(error));
      return -ECONNREFUSED;
    }
    int result = -ECONNREFUSED;
    for (addrinfo* a = found; a && result != 0; a = a->ai_next)
      result = dial(*a);
    freeaddrinfo(found);
    if (result != 0)
      log_line(LOG_ERROR, "Cannot connect to the disk service at %s:%d: %s.", host.c_str(), port,
               strerror(-result));
    return result;
  }

  // The service's answer to a hello: 0, or -EACCES for refused credentials.
  int hello(const std::string& user, const std::string& password, const std::string& note) {
    std::string payload;
    Payload_Writer(payload).text(user).text(password).text(note);
    return call(HELLO, payload, nullptr);
  }

  // Sends a request and waits for its answer: the answer's status, or a transport error. An
  // answer payload is expected only with `answer`.
  int call(Opcode op, const std::string& payload, std::string* answer) {
    std::uint32_t id = 0;
    Header head;
    int error = send(op, payload.data(), payload.size(), nullptr, 0, id);
    if (error == 0)
      error = receive(op, id, head, answer ? max_small_payload : 0);
    if (error != 0 || head.status != 0)
      return error ? error : head.status;
    if (answer) {
      answer->resize(head.payload_length);
      return receive_payload(&(*answer)[0], answer->size());
    }
    return 0;
  }

  // Sends one request frame and gives its id: 0 or a transport error.
  int send(Opcode op, const void* payload, std::size_t length, const void* data,
           std::size_t data_length, std::uint32_t& id) {
    if (!fd_)
      return -ECONNRESET;
    Header head;
    head.opcode = op;
    head.request_id = id = ++last_id_;
    head.payload_length = static_cast<std::uint32_t>(length + data_length);
    return send_frame(fd_.get(), head, payload, length, data, data_length) ? 0 : io_failure();
  }

  // Receives the header of the answer to request `id`, whose payload may hold up to `max`
  // bytes (a failed request's none): 0 or a transport or protocol error.
  int receive(Opcode op, std::uint32_t id, Header& head, std::uint32_t max) {
    std::uint8_t bytes[header_size];
    if (!fd_)
      return -ECONNRESET;
    if (!recv_all(fd_.get(), bytes, header_size))
      return io_failure();
    if (!decode_header(bytes, head) || head.opcode != op || head.request_id != id ||
        head.status > 0 || head.payload_length > (head.status == 0 ? max : 0)) {
      log_line(LOG_ERROR, "The disk service answered out of turn (opcode %u, request %u).",
               static_cast<unsigned>(head.opcode), static_cast<unsigned>(head.request_id));
      fd_.reset();
      return -EIO;
    }
    return 0;
  }

  int receive_payload(void* buffer, std::size_t length) {
    return recv_all(fd_.get(), buffer, length) ? 0 : io_failure();
  }

  bool broken() const { return !fd_; }

 private:
  int dial(const addrinfo& a) {
    Unique_Fd fd(socket(a.ai_family, a.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a.ai_protocol));
    if (!fd)
      return -ECONNREFUSED;
    if (connect(fd.get(), a.ai_addr, a.ai_addrlen) != 0) {
      if (errno != EINPROGRESS)
        return errno == ETIMEDOUT ? -ETIMEDOUT : -ECONNREFUSED;
      pollfd wait = {fd.get(), POLLOUT, 0};
      int ready;
      do
        ready = poll(&wait, 1, poll_timeout_ms());
      while (ready < 0 && errno == EINTR);
      if (ready == 0)
        return -ETIMEDOUT;
      int error = 0;
      socklen_t size = sizeof error;
      if (ready < 0 || getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error)
        return error == ETIMEDOUT ? -ETIMEDOUT : -ECONNREFUSED;
    }
    int one = 1;
    timeval timeout = {settings.timeout_seconds, 0};
    if (fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK) != 0 ||
        setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0 ||
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0 ||
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0)
      return -ECONNREFUSED;
    fd_ = std::move(fd);
    return 0;
  }

  int io_failure() {
    int error = errno == EAGAIN || errno == EWOULDBLOCK ? -ETIMEDOUT : -ECONNRESET;
    log_line(LOG_ERROR, "The connection to the disk service %s.",
             error == -ETIMEDOUT ? "timed out"
             : errno             ? strerror(errno)
                                 : "was closed");
    fd_.reset();
    return error;
  }

  Unique_Fd fd_;
  std::uint32_t last_id_ = 0;
};

bool valid_text(const char* text) {
  return text && strlen(text) <= max_text;
}

// The C interface never lets an exception out: an allocation failure is an I/O failure there.
template <class F>
auto guarded(F&& f) -> decltype(f()) {
  try {
    return f();
  } catch (...) {
    log_line(LOG_ERROR, "Out of memory.");
    return -EIO;
  }
}

}  // namespace

struct cvd_connection {
  std::string host;
  int port = 0;
  std::string user;
  std::string password;
  std::string note;
  ~cvd_connection() { std::fill(password.begin(), password.end(), '\0'); }
};

struct cvd_disk {
  Channel channel;
  std::uint32_t handle = 0;
  std::uint64_t size = 0;
  std::string path;
};

namespace {

// What a read or write request carries before its data.
std::string io_prefix(const cvd_disk& disk, std::uint64_t offset) {
  std::string payload;
  Payload_Writer(payload).u32(disk.handle).u64(offset);
  return payload;
}

// Reads `length` bytes at `offset` into `into`, or writes them from `from`, in pieces, up to
// `window` of them in flight. Returns the bytes moved up to the first short piece, or the first
// error; every answer is taken in either way, so that the connection stays in step.
std::int64_t transfer(cvd_disk& disk, std::uint64_t offset, std::uint64_t length, char* into,
                      const char* from) {
  const bool reading = into != nullptr;
  struct Piece {
    std::uint32_t id;
    std::uint64_t at;  // from `offset`
    std::uint32_t length;
  } pieces[window];
  std::size_t first = 0, count = 0;
  std::uint64_t sent = 0, moved = length;
  int error = 0;
  const Opcode op = reading ? READ : WRITE;
  for (;;) {
    while (error == 0 && sent < length && count < window) {
      Piece& p = pieces[(first + count) % window];
      p.at = sent;
      p.length = static_cast<std::uint32_t>(std::min<std::uint64_t>(piece_size, length - sent));
      std::string payload = io_prefix(disk, offset + sent);
      if (reading)
        Payload_Writer(payload).u32(p.length);
      int sent_error =
          disk.channel.send(op, payload.data(), payload.size(), reading ? nullptr : from + sent,
                            reading ? 0 : p.length, p.id);
      if (sent_error != 0)
        return sent_error;
      sent += p.length;
      ++count;
    }
    if (count == 0)
      break;
    const Piece& p = pieces[first];
    first = (first + 1) % window;
    --count;
    Header head;
    int failed = disk.channel.receive(op, p.id, head, reading ? p.length : 0);
    if (failed == 0 && head.status == 0 && reading)
      failed = disk.channel.receive_payload(into + p.at, head.payload_length);
    if (failed != 0)
      return failed;
    if (head.status != 0 && error == 0)
      error = head.status;
    if (reading && head.status == 0 && head.payload_length < p.length)
      moved = std::min(moved, p.at + head.payload_length);
  }
  return error ? error : static_cast<std::int64_t>(moved);
}

}  // namespace

int cvd_init(const char* name, const char* log_path, const char* conf_path) {
  return guarded([&] {
    if (settings.inited)
      return -EINVAL;
    settings = Settings();
    settings.name = name && *name ? name : "libcvd";
    if (log_path && *log_path) {
      settings.log_fd = open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
      if (settings.log_fd < 0) {
        // A missing log folder must not stop disk access: the lines go to stderr instead.
        settings.log_fd = STDERR_FILENO;
        log_line(LOG_WARN, "Cannot open the log '%s' (%s); logging to stderr.", log_path,
                 strerror(errno));
      }
    }
    if (conf_path && *conf_path) {
      int error = read_conf(conf_path);
      if (error != 0) {
        cvd_deinit();
        return error;
      }
    }
    settings.inited = true;
    log_line(LOG_INFO, "libcvd ready: network_timeout = %ld s, log_level = %s.",
             settings.timeout_seconds, level_names[settings.level]);
    return 0;
  });
}

int cvd_deinit(void) {
  if (settings.log_fd > STDERR_FILENO)
    close(settings.log_fd);
  bool inited = settings.inited;
  settings = Settings();
  return inited ? 0 : -EINVAL;
}

namespace {

// Where a CVK's disk service really is: the environment variable CVD_SIM_ADDRESS_MAP holds
// "host:port=host:port" pairs separated by commas ("192.168.10.11:8192=127.0.0.1:41235"); a
// left side "*" stands for any address. The first pair that matches wins; without one the address
// is used as given.
void map_address(std::string& host, int& port) {
  const char* map = getenv("CVD_SIM_ADDRESS_MAP");
  std::string from = host + ":" + std::to_string(port);
  std::istringstream pairs(map ? map : "");
  for (std::string pair; std::getline(pairs, pair, ',');) {
    std::size_t equals = pair.find('='), colon = pair.rfind(':');
    if (equals == std::string::npos || colon == std::string::npos || colon < equals)
      continue;
    if (pair.compare(0, equals, from) != 0 && pair.compare(0, equals, "*") != 0)
      continue;
    int to_port = atoi(pair.c_str() + colon + 1);
    if (to_port < 1 || to_port > 65535)
      continue;
    log_line(LOG_DEBUG, "The disk service of %s is at %s.", from.c_str(),
             pair.c_str() + equals + 1);
    host = pair.substr(equals + 1, colon - equals - 1);
    port = to_port;
    return;
  }
}

}  // namespace

int cvd_connect(const cvd_connect_param* param, cvd_conn_t* conn) {
  return guarded([&] {
    if (!settings.inited || !param || !conn || !param->host || !valid_text(param->user) ||
        !valid_text(param->password) || (param->extra && !valid_text(param->extra)) ||
        param->port < 1 || param->port > 65535)
      return -EINVAL;
    auto c = std::make_unique<cvd_connection>();
    c->host = param->host;
    c->port = param->port;
    c->user = param->user;
    c->password = param->password;
    c->note = param->extra ? param->extra : "";
    map_address(c->host, c->port);
    // The credentials are checked now; each disk opens a connection of its own later.
    Channel channel;
    int error = channel.dial(c->host, c->port);
    if (error == 0)
      error = channel.hello(c->user, c->password, c->note);
    if (error == -EACCES)
      log_line(LOG_ERROR, "The disk service at %s:%d refused user '%s'.", c->host.c_str(), c->port,
               c->user.c_str());
    if (error != 0)
      return error;
    log_line(LOG_INFO, "Connected to %s:%d as '%s' (%s).", c->host.c_str(), c->port,
             c->user.c_str(), c->note.c_str());
    *conn = c.release();
    return 0;
  });
}

int cvd_disconnect(cvd_conn_t conn) {
  if (!conn)
    return -EINVAL;
  log_line(LOG_INFO, "Disconnected from %s:%d.", conn->host.c_str(), conn->port);
  delete conn;
  return 0;
}

int cvd_disk_open(cvd_conn_t conn, const char* path, const char* snapshot, int flags,
                  cvd_disk_t* disk) {
  return guarded([&] {
    if (!conn || !disk || !valid_text(path) || !*path || (snapshot && !valid_text(snapshot)) ||
        (flags != CVD_OPEN_READ && flags != CVD_OPEN_READ_WRITE))
      return -EINVAL;
    auto d = std::make_unique<cvd_disk>();
    d->path = path;
    std::string payload, answer;
    Payload_Writer(payload)
        .u32(static_cast<std::uint32_t>(flags))
        .text(path)
        .text(snapshot ? snapshot : "");
    int error = d->channel.dial(conn->host, conn->port);
    if (error == 0)
      error = d->channel.hello(conn->user, conn->password, conn->note);
    if (error == 0)
      error = d->channel.call(OPEN, payload, &answer);
    Payload_Reader in(answer.data(), answer.size());
    if (error == 0 && !(in.u32(d->handle) && in.u64(d->size) && in.at_end()))
      error = -EIO;
    if (error != 0) {
      log_line(LOG_ERROR, "Cannot open disk '%s' (snapshot '%s'): %s.", path,
               snapshot ? snapshot : "", strerror(-error));
      return error;
    }
    log_line(LOG_INFO, "Opened disk '%s' (snapshot '%s') for %s: %llu bytes.", path,
             snapshot ? snapshot : "",
             flags == CVD_OPEN_READ_WRITE ? "reading and writing" : "reading",
             static_cast<unsigned long long>(d->size));
    *disk = d.release();
    return 0;
  });
}

int cvd_disk_close(cvd_disk_t disk) {
  if (!disk)
    return -EINVAL;
  std::unique_ptr<cvd_disk> owned(disk);
  return guarded([&] {
    std::string payload;
    Payload_Writer(payload).u32(disk->handle);
    int error = disk->channel.broken() ? 0 : disk->channel.call(CLOSE, payload, nullptr);
    log_line(error ? LOG_ERROR : LOG_INFO, "Closed disk '%s'%s.", disk->path.c_str(),
             error ? " with an error" : "");
    return error;
  });
}

int64_t cvd_disk_read(cvd_disk_t disk, uint64_t offset, uint64_t length, void* buffer) {
  if (!disk || (!buffer && length))
    return -EINVAL;
  if (disk->channel.broken())
    return -ECONNRESET;
  if (offset >= disk->size)
    return 0;
  length = std::min(length, disk->size - offset);
  return guarded(
      [&] { return transfer(*disk, offset, length, static_cast<char*>(buffer), nullptr); });
}

int64_t cvd_disk_write(cvd_disk_t disk, uint64_t offset, uint64_t length, const void* buffer) {
  // Checked here so that a write is refused whole; the service refuses writes on read-only
  // handles by itself.
  if (!disk || (!buffer && length) || offset > disk->size || length > disk->size - offset)
    return -EINVAL;
  if (disk->channel.broken())
    return -ECONNRESET;
  return guarded(
      [&] { return transfer(*disk, offset, length, nullptr, static_cast<const char*>(buffer)); });
}
