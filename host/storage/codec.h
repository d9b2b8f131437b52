// Block codecs of the storage layer. Image records and stored JSON documents compress through
// these; both formats store a codec as its Client_IO_Base::Compression value, so those numbers
// never change.
#pragma once

#include "host/storage/options.h"

#include <cstddef>
#include <memory>
#include <string>

struct Codec_Info {
  Client_IO_Base::Compression codec;
  const char* name;    // as in the options' JSON form: "zstd", "lz4", "zlib", "none"
  const char* suffix;  // of object names written with the codec: ".zst", ".lz4", ".zlib", ""
  int min_level;       // the levels the codec takes (0 for "none"); 0 always means its default
  int max_level;
  int default_level;
};

// The codec of a value or name; null for none.
const Codec_Info* codec_info(Client_IO_Base::Compression codec);
const Codec_Info* codec_info(int value);
const Codec_Info* codec_info(const std::string& name);

// The most bytes a block of `length` bytes can take once compressed by `codec` (`length` for
// "none"); 0 for an unknown codec.
std::size_t codec_bound(Client_IO_Base::Compression codec, std::size_t length);

// Compresses blocks one at a time with one codec and level, keeping the codec's context.
class Codec_Compressor {
 public:
  // `level` is 0 (the codec's default) or in the codec's range.
  Codec_Compressor(Client_IO_Base::Compression codec, int level);
  ~Codec_Compressor();
  Codec_Compressor(const Codec_Compressor&) = delete;
  Codec_Compressor& operator=(const Codec_Compressor&) = delete;

  // False for an unknown codec, a level out of its range, or a context that could not be made.
  bool ready() const { return ready_; }
  Client_IO_Base::Compression codec() const { return codec_; }

  // Compresses `length` bytes into `out` and answers the size, or 0 when the result does not fit
  // in `capacity` bytes or the codec is "none". A capacity below `length` keeps only results that
  // shrink.
  std::size_t compress(const void* data, std::size_t length, void* out, std::size_t capacity);

 private:
  struct Context;
  Client_IO_Base::Compression codec_;
  int level_;
  bool ready_ = false;
  std::unique_ptr<Context> context_;
};

// Expands blocks of any codec, keeping the contexts between blocks.
class Codec_Decompressor {
 public:
  Codec_Decompressor();
  ~Codec_Decompressor();
  Codec_Decompressor(const Codec_Decompressor&) = delete;
  Codec_Decompressor& operator=(const Codec_Decompressor&) = delete;

  // True when the `stored_size` bytes of `codec` at `stored` expand to exactly `length` bytes in
  // `out` ("none": are exactly `length` bytes, copied).
  bool decompress(Client_IO_Base::Compression codec, const void* stored, std::size_t stored_size,
                  void* out, std::size_t length);

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};
