// What every long-running program needs: "host:port" parsing, stop signals, a UTF-8 locale.
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

// CAS and the JSON we speak are UTF-8, and text is converted to the locale's character set:
// takes the environment's locale, and C.UTF-8 when that is not a UTF-8 one.
void use_utf8_locale();
