// The cvd protocol between libcvd and the disk service cvd-ds: binary frames over TCP, described in
// sim/cas/README.md. Both ends include this header, so it needs nothing beyond C++, POSIX and
// header-only host pieces: libcvd must load into any process without the host library.
#pragma once

#include "host/core/unique_fd.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

namespace cvd_protocol {

constexpr std::uint32_t magic = 0x31445643;  // "CVD1" on the wire
constexpr std::uint16_t version = 1;
constexpr std::size_t header_size = 20;
// Data bytes one read or write frame carries at most.
constexpr std::uint32_t max_io = 8u << 20;
// Bytes of one text: user, password, note, path or snapshot name.
constexpr std::size_t max_text = 4096;
// Largest payload of any frame but a write (a hello with three texts is the largest).
constexpr std::uint32_t max_small_payload = 3 * (2 + max_text);
// A write: handle, offset, then the data.
constexpr std::uint32_t write_prefix = 4 + 8;
constexpr std::uint32_t max_payload = write_prefix + max_io;

enum Opcode : std::uint16_t { HELLO = 1, OPEN = 2, READ = 3, WRITE = 4, CLOSE = 5 };

// Open flags, as in libcvd's interface.
enum : std::uint32_t { OPEN_READ = 1, OPEN_READ_WRITE = 2 };

struct Header {
  std::uint16_t opcode = 0;
  std::uint32_t request_id = 0;  // a reply carries its request's
  std::int32_t status = 0;       // replies: 0 or a negative errno value; requests: 0
  std::uint32_t payload_length = 0;
};

// Little-endian integers, whatever the host's byte order.
inline void put_le(std::uint8_t* out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

inline std::uint64_t get_le(const std::uint8_t* in, int bytes) {
  std::uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i)
    value = value << 8 | in[i];
  return value;
}

inline void encode_header(const Header& h, std::uint8_t out[header_size]) {
  put_le(out, magic, 4);
  put_le(out + 4, version, 2);
  put_le(out + 6, h.opcode, 2);
  put_le(out + 8, h.request_id, 4);
  put_le(out + 12, static_cast<std::uint32_t>(h.status), 4);
  put_le(out + 16, h.payload_length, 4);
}

// False when the frame is not of this protocol and version; judging the rest is the receiver's.
inline bool decode_header(const std::uint8_t in[header_size], Header& h) {
  if (get_le(in, 4) != magic || get_le(in + 4, 2) != version)
    return false;
  h.opcode = static_cast<std::uint16_t>(get_le(in + 6, 2));
  h.request_id = static_cast<std::uint32_t>(get_le(in + 8, 4));
  h.status = static_cast<std::int32_t>(static_cast<std::uint32_t>(get_le(in + 12, 4)));
  h.payload_length = static_cast<std::uint32_t>(get_le(in + 16, 4));
  return true;
}

// Builds a payload: fixed-width integers and texts with a 16-bit length.
class Payload_Writer {
 public:
  explicit Payload_Writer(std::string& out) : out_(out) {}
  Payload_Writer& u32(std::uint32_t value) { return put(value, 4); }
  Payload_Writer& u64(std::uint64_t value) { return put(value, 8); }
  // The caller keeps texts within max_text.
  Payload_Writer& text(const std::string& value) {
    put(value.size(), 2);
    out_ += value;
    return *this;
  }

 private:
  Payload_Writer& put(std::uint64_t value, int bytes) {
    std::uint8_t buffer[8];
    put_le(buffer, value, bytes);
    out_.append(reinterpret_cast<const char*>(buffer), bytes);
    return *this;
  }
  std::string& out_;
};

// Reads a payload; every getter fails, rather than reading past the end, on a short payload.
class Payload_Reader {
 public:
  Payload_Reader(const void* data, std::size_t size)
      : p_(static_cast<const std::uint8_t*>(data)), end_(p_ + size) {}
  bool u32(std::uint32_t& value) { return get(value, 4); }
  bool u64(std::uint64_t& value) { return get(value, 8); }
  bool text(std::string& value) {
    std::uint16_t length = 0;
    if (!get(length, 2) || length > max_text || static_cast<std::size_t>(end_ - p_) < length)
      return false;
    value.assign(reinterpret_cast<const char*>(p_), length);
    p_ += length;
    return true;
  }
  bool at_end() const { return p_ == end_; }

 private:
  template <class T>
  bool get(T& value, int bytes) {
    if (end_ - p_ < bytes)
      return false;
    value = static_cast<T>(get_le(p_, bytes));
    p_ += bytes;
    return true;
  }
  const std::uint8_t* p_;
  const std::uint8_t* end_;
};

// Sends every byte of `iov` (which it consumes); false with errno set. Never raises SIGPIPE.
inline bool send_all(int fd, iovec* iov, int count) {
  while (count > 0) {
    msghdr msg = {};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<std::size_t>(count);
    ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return false;
    }
    auto sent = static_cast<std::size_t>(n);
    while (count > 0 && sent >= iov->iov_len) {
      sent -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + sent;
      iov->iov_len -= sent;
    }
  }
  return true;
}

// A header and its payload in one send; `extra` follows `payload` (a write's data) without a copy.
inline bool send_frame(int fd, const Header& h, const void* payload, std::size_t length,
                       const void* extra = nullptr, std::size_t extra_length = 0) {
  std::uint8_t head[header_size];
  encode_header(h, head);
  iovec iov[3] = {{head, header_size},
                  {const_cast<void*>(payload), length},
                  {const_cast<void*>(extra), extra_length}};
  return send_all(fd, iov, 3);
}

// Receives exactly `length` bytes. False at the end of the stream (errno 0) or on an error
// (errno set; EAGAIN when a receive time-out passed).
inline bool recv_all(int fd, void* buffer, std::size_t length) {
  auto* p = static_cast<char*>(buffer);
  while (length > 0) {
    ssize_t n = ::recv(fd, p, length, MSG_WAITALL);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      if (n == 0)
        errno = 0;
      return false;
    }
    p += n;
    length -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace cvd_protocol
