// JSON-RPC frames on a stream socket: a 4-byte big-endian length, then that many bytes of JSON
// text. An empty frame or one above the maximum makes the whole stream bad, since after a wrong
// length nothing later on it can be trusted.
#pragma once

#include "host/core/unique_fd.h"
#include "host/jsonrpc/jsonrpc.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

// Large enough for any parameters record, small enough that a corrupt length cannot make a reader
// buffer gigabytes.
constexpr std::size_t JSON_RPC_FRAME_MAX = 16u << 20;

// Splits the bytes read from a stream into frames.
class Frame_Decoder {
 public:
  explicit Frame_Decoder(std::size_t max_frame = JSON_RPC_FRAME_MAX) : max_(max_frame) {}
  // Adds bytes. False once the stream is bad; every length header is checked as soon as it
  // arrives, so a bad one is refused before its body is buffered.
  bool feed(const char* data, std::size_t size);
  // Moves the next complete frame's text into `payload`; false when none is complete.
  bool next(std::string& payload);
  bool bad() const { return bad_; }
  // Part of a frame is buffered: a stream that ends now was cut mid-frame.
  bool partial() const { return buf_.size() > pos_; }

 private:
  std::size_t max_;
  std::string buf_;
  std::size_t pos_ = 0;  // first byte not yet handed out
  bool bad_ = false;
};

// The frame for `payload` (header and text).
std::string encode_frame(const std::string& payload);

// Writes one whole frame to socket `fd`, waiting at most `timeout_ms` (-1: no limit) when the
// socket is non-blocking and full. False with errno set (EMSGSIZE for a payload that is empty or
// too long, ETIMEDOUT, EPIPE, ...); nothing is logged, the caller knows what the frame was for.
bool write_frame(int fd, const std::string& payload, int timeout_ms = -1);

// Writes frames on one socket for several threads, one whole frame at a time.
class Frame_Writer {
 public:
  explicit Frame_Writer(int fd) : fd_(fd) {}
  bool write(const std::string& payload);

 private:
  std::mutex mutex_;
  int fd_;
};

// The channel of one request received as a frame: its answer goes back as a frame. `on_done`
// runs once, as soon as the request is answered or its handler has finished with it.
class Frame_Channel : public JSON_RPC_Channel {
 public:
  Frame_Channel(std::shared_ptr<Frame_Writer> writer, std::function<void()> on_done = nullptr)
      : writer_(std::move(writer)), on_done_(std::move(on_done)) {}
  int send(const JSON_RPC_Object& obj) override;
  void done() override;

 private:
  std::shared_ptr<Frame_Writer> writer_;
  std::function<void()> on_done_;
  std::once_flag done_once_;
};

// JSON text as written into a frame (invalid UTF-8 replaced rather than thrown on).
std::string frame_text(const JSON_RPC_Object& obj);
