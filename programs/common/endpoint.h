// Helpers shared by the programs: "host:port" parsing, signal waiting, default file locations.
#pragma once

#include <cstdint>
#include <string>

// "127.0.0.1:8080", "[::1]:0", "localhost:0". False when malformed or the port is out of range.
bool parse_listen(const std::string& text, std::string& host, std::uint16_t& port);

bool is_loopback(const std::string& host);

// Blocks SIGTERM, SIGINT and SIGHUP in the calling thread (call before starting threads, so every
// thread inherits the mask) and ignores SIGPIPE.
void block_stop_signals();
// Waits for one of them; returns the signal number.
int wait_stop_signal();

namespace agent_files {
// The agent's configuration file and the file where a running agent publishes its endpoint.
std::string default_config();
std::string endpoint_file();
}  // namespace agent_files
