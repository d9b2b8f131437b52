// Storage-pool I/O: objects of a pool, named by slash-separated paths below the pool's URL, are
// written whole and read sequentially. A driver per URL scheme does the work ("file" is built in).
#pragma once

#include "host/core/json.h"
#include "host/storage/options.h"
#include "host/storage/storage_driver.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// The storage-pool client: connect once, then open, read or write, close, one object at a time.
// Every failure returns false (or -1) and keeps the reason, with the object's name, for error();
// nothing is logged here, so the caller logs exactly once with its own context.
class Client_IO_Ex : public Client_IO_Base {
 public:
  enum Mode { Read = 1, Write = 2 };

  Client_IO_Ex() = default;
  // An object still open for writing is abandoned: it never appears under its name.
  ~Client_IO_Ex() override;
  Client_IO_Ex(const Client_IO_Ex&) = delete;
  Client_IO_Ex& operator=(const Client_IO_Ex&) = delete;

  // Chooses the driver by the URL's scheme ("file:///abs/dir", see validate_pool_url).
  // Connecting again replaces the pool (an open object is abandoned first).
  bool connect(const std::string& url, const Options& options);
  // Reaches the pool at `url` through `driver`, made by the caller (a wrapper around another
  // driver, say); `url` is kept for url() only.
  bool connect(std::unique_ptr<Storage_Driver> driver, const std::string& url,
               const Options& options);

  // Opens `path` ("/a/b" or "a/b", relative to the pool) with mode Read or Write. `flags` must be
  // 0 (none is defined yet); `size_hint` is the expected size of a written object, 0 if unknown.
  // An object still open is abandoned first.
  bool open(const std::string& path, int mode, int flags = 0, std::uint64_t size_hint = 0);

  // A failed write abandons the object: nothing new appears under its name.
  bool write(const void* data, std::size_t length);
  // Bytes read (fewer than `length` only at the end, 0 at the end) or -1.
  ssize_t read(void* buffer, std::size_t length);

  // Commits a write (Storage_Object::sync, then commit) or ends a read. The object is closed even
  // when this fails. With no object open it is false, and error() keeps the reason of the failure
  // that ended the last one (a failed open or write, say).
  bool close();

  // Removes an object of the pool. When it is the object being written, that write is abandoned.
  bool remove(const std::string& path);

  // Bytes stored for the object open or last closed.
  std::uint64_t storage_size() const { return storage_size_; }
  // Why the last call failed: the reason and the object or pool it concerns.
  const std::string& error() const { return error_; }

  const Options& options() const { return options_; }
  const std::string& url() const { return url_; }
  // The object open or last opened, as given to open().
  const std::string& path() const { return path_; }
  bool is_open() const { return object_ != nullptr; }

  // Adds a driver for URLs "<scheme>://...". False when the scheme already has one.
  static bool register_driver(const std::string& scheme, Storage_Driver_Factory factory);

 private:
  friend bool client_io_write_json(Client_IO_Ex&, const std::string&, const JSON_Value&);
  friend bool client_io_read_json(Client_IO_Ex&, const std::string&, JSON_Value&);

  // Keeps `error` for error(); always false.
  bool fail(const std::string& error);
  void abandon();

  Options options_;
  std::string url_;
  std::string path_;
  std::string name_;  // path_ checked and made relative
  std::string error_;
  std::unique_ptr<Storage_Driver> driver_;
  std::unique_ptr<Storage_Object> object_;
  int mode_ = 0;
  std::uint64_t storage_size_ = 0;
};

// The object name of `path` relative to the pool: leading '/' dropped; false for an empty name,
// empty, "." or ".." components, a trailing '/' or a NUL byte.
bool storage_object_name(const std::string& path, std::string& name);

// Compression method by name: "zstd" 1, "lz4" 2, "zlib" 3, "none" 4 (the values of
// Client_IO_Base::Compression); an unknown name gives 0.
int compression_name_to_value(const std::string& name);
// Suffix of object names written with a method: ".zst", ".lz4", ".zlib", ""; "" for an unknown
// value.
const char* compression_value_to_suffix(int value);

// Stored JSON documents. Layout (integers little-endian): magic "BRLJSON" and a 0 byte, version
// (u8, 1), codec (u8, a Client_IO_Base::Compression value), u16 0, length of the JSON text (u32,
// at most 64 MiB), XXH3-64 of the text (u64), then the text as one block of that codec.
//
// Writes `json` as object `path` of the pool `io` is connected to, compressed with the method of
// the client's options (stored plain when that does not shrink it). False with io.error() set on
// failure; no object is left behind then.
bool client_io_write_json(Client_IO_Ex& io, const std::string& path, const JSON_Value& json);
// Reads a document written by client_io_write_json. False with io.error() set when the object
// cannot be read, is no such document, is damaged or holds no valid JSON.
bool client_io_read_json(Client_IO_Ex& io, const std::string& path, JSON_Value& json);
