// Options of the storage-pool I/O and their JSON form. The agent writes them into a servant's
// parameters and the servant reads them back, so both sides go through these two operators.
#pragma once

#include "host/core/json.h"

#include <string>

// The storage-pool clients (one driver per URL scheme) derive from this class.
class Client_IO_Base {
 public:
  // 0 is no method: an unknown name. Image records store these numbers as their codec.
  enum class Compression { Zstd = 1, Lz4 = 2, Zlib = 3, None = 4 };
  // Direct: this process opens the pool itself. Proxy: the data goes through the backup server.
  enum class Access_Mode { Direct = 0, Proxy = 1 };

  // JSON keys: "connect_timeout" and "io_timeout" (seconds, 1..86400), "retry_count" (0..1000),
  // "retry_interval" (seconds, 0..3600), "compression" ("none", "zstd", "lz4", "zlib"),
  // "compression_level" (zstd 1..22, lz4 1..12, zlib 1..9; not checked for "none"),
  // "encryption" (boolean; true needs a non-empty "encryption_key_id"), "encryption_key_id",
  // "access_mode" ("direct", "proxy") and "extra" (an object handed to the driver as is).
  // The defaults suit a backup over a LAN: zstd level 3 trades little speed for about half the
  // size on typical VM disks, and a few retries ride out a pool that restarts.
  struct Options {
    int connect_timeout_ = 30;
    int io_timeout_ = 300;
    int retry_count_ = 3;
    int retry_interval_ = 10;
    Compression compression_ = Compression::Zstd;
    int compression_level_ = 3;
    bool encryption_ = false;
    std::string encryption_key_id_;
    Access_Mode access_mode_ = Access_Mode::Direct;
    JSON_Value extra_ = JSON_Value::object();
  };

  virtual ~Client_IO_Base() = default;
};

// Reads an object of the keys above; a key that is absent keeps its current value and unknown
// keys are ignored, so older and newer writers interoperate. A wrong type or a value out of range
// leaves `opts` unchanged: false after one log line.
bool operator<<(Client_IO_Base::Options& opts, const JSON_Value& value);

// Writes every key into `value` (made an object when it is not one; other members stay).
void operator>>(const Client_IO_Base::Options& opts, JSON_Value& value);
