// cvd-ds, the disk service of a CVK: serves the simulator's disk images to libcvd over the cvd
// protocol (sim/cvd/protocol.h, described in sim/cas/README.md). One thread per connection; a
// connection that breaks the protocol is closed, the service and the other connections go on.
#pragma once

#include "sim/cvd/protocol.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace cas_sim {

class Simulator;

class CVD_Service {
 public:
  // Connections served at once; more are closed as they come.
  static constexpr std::size_t max_connections = 256;

  explicit CVD_Service(Simulator& sim) : sim_(sim) {}
  ~CVD_Service() { stop(); }
  CVD_Service(const CVD_Service&) = delete;
  CVD_Service& operator=(const CVD_Service&) = delete;

  // Binds (port 0: any free port, see port()) and starts serving. False after one log line.
  bool start(const std::string& host, std::uint16_t port);
  std::uint16_t port() const { return port_; }
  // Closes every connection and waits for their threads. Idempotent.
  void stop();

 private:
  struct Connection {
    Unique_Fd fd;
    std::string peer;
    std::thread thread;
    std::atomic<bool> done{false};
  };
  void accept_loop();
  // Joins the threads of finished connections (all of them when `all`).
  void reap(bool all);

  Simulator& sim_;
  Unique_Fd listener_;
  std::uint16_t port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::mutex mutex_;  // guards connections_
  std::list<std::unique_ptr<Connection>> connections_;
};

}  // namespace cas_sim
