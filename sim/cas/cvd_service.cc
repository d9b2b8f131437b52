#include "sim/cas/cvd_service.h"

#include "host/core/log.h"
#include "sim/cas/simulator.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

namespace cas_sim {

namespace {

using namespace cvd_protocol;

// Seconds a peer may take to finish a frame it has begun, or to take in an answer.
constexpr int io_timeout_seconds = 60;
// Disks one connection may hold open.
constexpr std::size_t max_open_disks = 1024;

std::string peer_name(const sockaddr_storage& address) {
  char host[NI_MAXHOST] = "?", port[NI_MAXSERV] = "?";
  getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof address, host, sizeof host, port,
              sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
  return std::string(host) + ":" + port;
}

// One connection: a hello first, then opens, reads, writes and closes of disks, each answered in
// turn.
class Session {
 public:
  Session(Simulator& sim, int fd, const std::string& peer) : sim_(sim), fd_(fd), peer_(peer) {}

  // Serves until the peer leaves or breaks the protocol, or the service stops.
  void run() {
    for (;;) {
      pollfd wait = {fd_, POLLIN, 0};
      if (poll(&wait, 1, -1) < 0) {
        if (errno == EINTR)
          continue;
        return;
      }
      std::uint8_t head[header_size];
      if (!recv_all(fd_, head, header_size))
        return;
      Header request;
      if (!decode_header(head, request))
        return broken("not a cvd frame of version 1");
      if (request.opcode < HELLO || request.opcode > CLOSE)
        return broken("unknown opcode " + std::to_string(request.opcode));
      if (request.status != 0)
        return broken("a request with a status");
      if (request.payload_length > (request.opcode == WRITE ? max_payload : max_small_payload))
        return broken("a payload of " + std::to_string(request.payload_length) + " bytes");
      if ((request.opcode == HELLO) == authenticated_)
        return broken(authenticated_ ? "a second hello" : "a request before the hello");
      reserve(request.payload_length);
      if (!recv_all(fd_, buffer_.get(), request.payload_length))
        return broken("a frame cut short");
      if (!handle(request))
        return;
    }
  }

 private:
  // An open disk. Its image is mapped whole, so that a read is answered straight from the page
  // cache: one copy fewer than reading into a buffer first, which made reads about a third faster
  // with two or more connections.
  struct Open_Disk {
    Disk_Store::Opened opened;
    bool writable = false;
    const char* data = nullptr;  // the mapping of the disk's own image; null for a snapshot
    ~Open_Disk() {
      if (data)
        munmap(const_cast<char*>(data), opened.size);
    }
  };

  void broken(const std::string& why) {
    LOG_MSG(
        (LM_WARNING, "cvd-ds: closing the connection of %s: %s.\n", peer_.c_str(), why.c_str()));
  }

  void reserve(std::size_t size) {
    // Not a vector: growing one would zero every byte that is about to be overwritten anyway.
    if (size > capacity_) {
      buffer_.reset(new char[size]);
      capacity_ = size;
    }
  }

  void reserve_read(std::size_t size) {
    if (size > read_capacity_) {
      read_buffer_.reset(new char[size]);
      read_capacity_ = size;
    }
  }

  // False when the answer could not be sent: the connection is then done.
  bool reply(const Header& request, int status, const void* payload = nullptr,
             std::size_t length = 0) {
    Header answer = request;
    answer.status = status;
    answer.payload_length = static_cast<std::uint32_t>(length);
    return send_frame(fd_, answer, payload, length);
  }

  // False: close the connection.
  bool handle(const Header& request) {
    Payload_Reader in(buffer_.get(), request.payload_length);
    switch (request.opcode) {
      case HELLO:
        return hello(request, in);
      case OPEN:
        return open(request, in);
      case READ:
        return read(request, in);
      case WRITE:
        return write(request, in);
      default:
        return close(request, in);
    }
  }

  bool hello(const Header& request, Payload_Reader& in) {
    std::string user, password, note, expected;
    if (!in.text(user) || !in.text(password) || !in.text(note) || !in.at_end()) {
      broken("a malformed hello");
      return false;
    }
    if (!sim_.password_of(user, expected) || expected != password) {
      LOG_MSG((LM_WARNING, "cvd-ds: refused user '%s' from %s.\n", user.c_str(), peer_.c_str()));
      reply(request, -EACCES);
      return false;
    }
    authenticated_ = true;
    LOG_MSG((LM_DEBUG, "cvd-ds: '%s' connected from %s (%s).\n", user.c_str(), peer_.c_str(),
             note.c_str()));
    return reply(request, 0);
  }

  bool open(const Header& request, Payload_Reader& in) {
    std::uint32_t flags = 0;
    std::string path, snapshot;
    if (!in.u32(flags) || !in.text(path) || !in.text(snapshot) || !in.at_end()) {
      broken("a malformed open");
      return false;
    }
    if (flags != OPEN_READ && flags != OPEN_READ_WRITE)
      return reply(request, -EINVAL);
    if (disks_.size() >= max_open_disks) {
      LOG_MSG(
          (LM_WARNING, "cvd-ds: %s holds %zu disks open already.\n", peer_.c_str(), disks_.size()));
      return reply(request, -EIO);
    }
    bool writable = flags == OPEN_READ_WRITE;
    Disk_Store::Opened opened = sim_.disks().open(path, snapshot, writable);
    if (opened.error)
      return reply(request, opened.error);
    auto disk = std::make_unique<Open_Disk>();
    disk->writable = writable;
    if (opened.size && opened.fd >= 0) {
      void* data = mmap(nullptr, opened.size, PROT_READ, MAP_SHARED, opened.fd, 0);
      if (data == MAP_FAILED) {
        LOG_MSG((LM_ERROR, "cvd-ds: failed to map disk '%s': %m.\n", path.c_str()));
        return reply(request, -EIO);
      }
      disk->data = static_cast<const char*>(data);
    }
    std::uint64_t size = opened.size;
    disk->opened = std::move(opened);
    std::uint32_t handle = ++last_handle_;
    disks_[handle] = std::move(disk);
    std::string payload;
    Payload_Writer(payload).u32(handle).u64(size);
    return reply(request, 0, payload.data(), payload.size());
  }

  bool read(const Header& request, Payload_Reader& in) {
    std::uint32_t handle = 0, length = 0;
    std::uint64_t offset = 0;
    if (!in.u32(handle) || !in.u64(offset) || !in.u32(length) || !in.at_end()) {
      broken("a malformed read");
      return false;
    }
    auto it = disks_.find(handle);
    if (it == disks_.end() || length > max_io)
      return reply(request, -EINVAL);
    const Open_Disk& disk = *it->second;
    const std::uint64_t size = disk.opened.size;
    std::size_t wanted = offset >= size ? 0 : std::min<std::uint64_t>(length, size - offset);
    if (!may_move(disk, wanted))
      return false;
    // Snapshots, and disks whose reads fail by a fault, are read through the store.
    if (disk.data && !Disk_Store::reads_fail(disk.opened))
      return reply(request, 0, wanted ? disk.data + offset : nullptr, wanted);
    reserve_read(wanted);
    long n = sim_.disks().read(disk.opened, offset, read_buffer_.get(), wanted);
    if (n < 0)
      return reply(request, static_cast<int>(n));
    return reply(request, 0, read_buffer_.get(), static_cast<std::size_t>(n));
  }

  bool write(const Header& request, Payload_Reader& in) {
    std::uint32_t handle = 0;
    std::uint64_t offset = 0;
    if (!in.u32(handle) || !in.u64(offset)) {
      broken("a malformed write");
      return false;
    }
    const char* data = buffer_.get() + write_prefix;
    std::size_t length = request.payload_length - write_prefix;
    auto it = disks_.find(handle);
    const Open_Disk* disk = it == disks_.end() ? nullptr : it->second.get();
    if (!disk || !disk->writable || offset > disk->opened.size ||
        length > disk->opened.size - offset)
      return reply(request, -EINVAL);
    if (!may_move(*disk, length))
      return false;
    return reply(request, sim_.disks().write(disk->opened, offset, data, length));
  }

  // Counts `length` bytes of disk data about to be read or written; false when a drop fault
  // ends the connection first. Waits while the disk is held.
  bool may_move(const Open_Disk& disk, std::size_t length) {
    if (length && !drop_checked_)
      dropping_ = sim_.disks().take_drop(disk.opened, drop_budget_), drop_checked_ = true;
    if (dropping_ && moved_ + length > drop_budget_) {
      broken("dropped by a fault after " + std::to_string(moved_) + " bytes");
      return false;
    }
    moved_ += length;
    sim_.disks().wait_while_held(disk.opened);
    return true;
  }

  bool close(const Header& request, Payload_Reader& in) {
    std::uint32_t handle = 0;
    if (!in.u32(handle) || !in.at_end()) {
      broken("a malformed close");
      return false;
    }
    return reply(request, disks_.erase(handle) ? 0 : -EINVAL);
  }

  Simulator& sim_;
  const int fd_;
  const std::string peer_;
  bool authenticated_ = false;
  std::map<std::uint32_t, std::unique_ptr<Open_Disk>> disks_;
  std::uint32_t last_handle_ = 0;
  std::unique_ptr<char[]> buffer_;  // the payload received
  std::size_t capacity_ = 0;
  std::unique_ptr<char[]> read_buffer_;  // the data of an answer read through the store
  std::size_t read_capacity_ = 0;
  // A fault may drop this connection once it has moved `drop_budget_` bytes of disk data.
  bool drop_checked_ = false, dropping_ = false;
  std::uint64_t drop_budget_ = 0, moved_ = 0;
};

}  // namespace

bool CVD_Service::start(const std::string& host, std::uint16_t port) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) {
    LOG_MSG((LM_ERROR, "Failed to resolve '%s' for the disk service: %s.\n", host.c_str(),
             gai_strerror(error)));
    return false;
  }
  int one = 1;
  errno = 0;
  for (addrinfo* a = found; a && !listener_; a = a->ai_next) {
    Unique_Fd fd(socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol));
    if (fd && setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
        bind(fd.get(), a->ai_addr, a->ai_addrlen) == 0 && listen(fd.get(), 128) == 0)
      listener_ = std::move(fd);
  }
  freeaddrinfo(found);
  sockaddr_storage bound = {};
  socklen_t size = sizeof bound;
  if (!listener_ || getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&bound), &size) != 0) {
    LOG_MSG((LM_ERROR, "Failed to listen for the disk service on %s:%d: %m.\n", host.c_str(),
             static_cast<int>(port)));
    listener_.reset();
    return false;
  }
  port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                            : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  acceptor_ = std::thread([this] { accept_loop(); });
  return true;
}

void CVD_Service::accept_loop() {
  while (!stopping_) {
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    Unique_Fd fd(
        accept4(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size, SOCK_CLOEXEC));
    if (!fd) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      continue;  // a stop ends the loop through stopping_
    }
    reap(false);
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_)
      return;
    std::string peer = peer_name(address);
    if (connections_.size() >= max_connections) {
      LOG_MSG((LM_WARNING, "cvd-ds: refusing %s: %zu connections already.\n", peer.c_str(),
               connections_.size()));
      continue;
    }
    int one = 1;
    timeval timeout = {io_timeout_seconds, 0};
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    auto connection = std::make_unique<Connection>();
    connection->fd = std::move(fd);
    connection->peer = std::move(peer);
    Connection& c = *connection;
    connections_.push_back(std::move(connection));
    c.thread = std::thread([this, &c] {
      Session(sim_, c.fd.get(), c.peer).run();
      // Ends the connection now; the descriptor is closed when the thread is joined, so that
      // stop() never touches a number the system may have given to another file.
      shutdown(c.fd.get(), SHUT_RDWR);
      c.done = true;
    });
  }
}

void CVD_Service::reap(bool all) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = connections_.begin(); it != connections_.end();) {
    if (!all && !(*it)->done) {
      ++it;
      continue;
    }
    (*it)->thread.join();
    it = connections_.erase(it);
  }
}

void CVD_Service::stop() {
  if (stopping_.exchange(true) || !listener_)
    return;
  // Wakes the blocked accept(), every connection's poll() or recv() and held reads.
  shutdown(listener_.get(), SHUT_RDWR);
  sim_.disks().release_holds();
  acceptor_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& c : connections_)
      shutdown(c->fd.get(), SHUT_RDWR);
  }
  reap(true);
  listener_.reset();
}

}  // namespace cas_sim
