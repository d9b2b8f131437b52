#include "host/servant/frame.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>

namespace {

std::uint32_t read_length(const std::string& buf, std::size_t pos) {
  auto b = [&](std::size_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(buf[pos + i]));
  };
  return b(0) << 24 | b(1) << 16 | b(2) << 8 | b(3);
}

}  // namespace

bool Frame_Decoder::feed(const char* data, std::size_t size) {
  if (bad_)
    return false;
  buf_.append(data, size);
  for (std::size_t p = pos_; p + 4 <= buf_.size();) {
    std::uint32_t length = read_length(buf_, p);
    if (length == 0 || length > max_) {
      bad_ = true;
      return false;
    }
    p += 4 + static_cast<std::size_t>(length);
  }
  return true;
}

bool Frame_Decoder::next(std::string& payload) {
  if (bad_ || buf_.size() - pos_ < 4)
    return false;
  std::size_t length = read_length(buf_, pos_);
  if (buf_.size() - pos_ - 4 < length)
    return false;
  payload.assign(buf_, pos_ + 4, length);
  pos_ += 4 + length;
  // Drop what was handed out once it is most of the buffer, so copying stays linear.
  if (pos_ == buf_.size() || pos_ > buf_.size() / 2) {
    buf_.erase(0, pos_);
    pos_ = 0;
  }
  return true;
}

std::string encode_frame(const std::string& payload) {
  std::uint32_t n = static_cast<std::uint32_t>(payload.size());
  std::string frame;
  frame.reserve(payload.size() + 4);
  frame.push_back(static_cast<char>(n >> 24));
  frame.push_back(static_cast<char>(n >> 16));
  frame.push_back(static_cast<char>(n >> 8));
  frame.push_back(static_cast<char>(n));
  frame += payload;
  return frame;
}

bool write_frame(int fd, const std::string& payload, int timeout_ms) {
  if (payload.empty() || payload.size() > JSON_RPC_FRAME_MAX) {
    errno = EMSGSIZE;
    return false;
  }
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms < 0 ? 0 : timeout_ms);
  const std::string frame = encode_frame(payload);
  std::size_t sent = 0;
  while (sent < frame.size()) {
    ssize_t n = ::send(fd, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
      return false;
    int wait_ms = -1;
    if (timeout_ms >= 0) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) {
        errno = ETIMEDOUT;
        return false;
      }
      wait_ms = static_cast<int>(left.count());
    }
    pollfd p{fd, POLLOUT, 0};
    if (::poll(&p, 1, wait_ms) < 0 && errno != EINTR)
      return false;
  }
  return true;
}

bool Frame_Writer::write(const std::string& payload) {
  std::lock_guard<std::mutex> lock(mutex_);
  return write_frame(fd_, payload);
}

std::string frame_text(const JSON_RPC_Object& obj) {
  return obj.to_json().dump(-1, ' ', false, JSON_Value::error_handler_t::replace);
}

int Frame_Channel::send(const JSON_RPC_Object& obj) {
  // Answered from now on: the peer may read the answer and close before write() returns here.
  done();
  return writer_->write(frame_text(obj)) ? 0 : -1;
}

void Frame_Channel::done() {
  std::call_once(done_once_, [this] {
    if (on_done_)
      on_done_();
  });
}
