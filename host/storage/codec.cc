#include "host/storage/codec.h"

#include <lz4.h>
#include <lz4hc.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <climits>
#include <cstring>

using Compression = Client_IO_Base::Compression;

namespace {

// The level ranges are those of the libraries (zstd without its negative "fast" levels, lz4 with
// its high-compression levels above 2).
const Codec_Info s_codecs[] = {
    {Compression::Zstd, "zstd", ".zst", 1, 22, 3},
    {Compression::Lz4, "lz4", ".lz4", 1, 12, 1},
    {Compression::Zlib, "zlib", ".zlib", 1, 9, 6},
    {Compression::None, "none", "", 0, 0, 0},
};

}  // namespace

const Codec_Info* codec_info(Compression codec) {
  for (const auto& c : s_codecs)
    if (c.codec == codec)
      return &c;
  return nullptr;
}

const Codec_Info* codec_info(int value) {
  return codec_info(static_cast<Compression>(value));
}

const Codec_Info* codec_info(const std::string& name) {
  for (const auto& c : s_codecs)
    if (name == c.name)
      return &c;
  return nullptr;
}

std::size_t codec_bound(Compression codec, std::size_t length) {
  switch (codec) {
    case Compression::None:
      return length;
    case Compression::Lz4:
      return length > LZ4_MAX_INPUT_SIZE
                 ? 0
                 : static_cast<std::size_t>(LZ4_compressBound(static_cast<int>(length)));
    case Compression::Zstd:
      return ZSTD_compressBound(length);
    case Compression::Zlib:
      return compressBound(static_cast<uLong>(length));
  }
  return 0;
}

struct Codec_Compressor::Context {
  ZSTD_CCtx* zstd = nullptr;
  ~Context() { ZSTD_freeCCtx(zstd); }
};

Codec_Compressor::Codec_Compressor(Compression codec, int level)
    : codec_(codec), level_(level), context_(new Context) {
  const Codec_Info* info = codec_info(codec);
  if (!info)
    return;
  if (level_ == 0 || codec == Compression::None)  // "none" has no levels: any is ignored
    level_ = info->default_level;
  if (level_ < info->min_level || level_ > info->max_level)
    return;
  if (codec == Compression::Zstd && !(context_->zstd = ZSTD_createCCtx()))
    return;
  ready_ = true;
}

Codec_Compressor::~Codec_Compressor() = default;

std::size_t Codec_Compressor::compress(const void* data, std::size_t length, void* out,
                                       std::size_t capacity) {
  if (!ready_)
    return 0;
  switch (codec_) {
    case Compression::None:
      return 0;
    case Compression::Lz4: {
      if (length > LZ4_MAX_INPUT_SIZE)
        return 0;
      const char* s = static_cast<const char*>(data);
      char* d = static_cast<char*>(out);
      int cap = static_cast<int>(std::min<std::size_t>(capacity, INT_MAX));
      int r = level_ <= 2 ? LZ4_compress_default(s, d, static_cast<int>(length), cap)
                          : LZ4_compress_HC(s, d, static_cast<int>(length), cap, level_);
      return r > 0 ? static_cast<std::size_t>(r) : 0;
    }
    case Compression::Zstd: {
      std::size_t r = ZSTD_compressCCtx(context_->zstd, out, capacity, data, length, level_);
      return ZSTD_isError(r) ? 0 : r;
    }
    case Compression::Zlib: {
      uLongf size = capacity;
      return compress2(static_cast<Bytef*>(out), &size, static_cast<const Bytef*>(data), length,
                       level_) == Z_OK
                 ? size
                 : 0;
    }
  }
  return 0;
}

struct Codec_Decompressor::Context {
  ZSTD_DCtx* zstd = nullptr;
  ~Context() { ZSTD_freeDCtx(zstd); }
};

Codec_Decompressor::Codec_Decompressor() : context_(new Context) {}

Codec_Decompressor::~Codec_Decompressor() = default;

bool Codec_Decompressor::decompress(Compression codec, const void* stored, std::size_t stored_size,
                                    void* out, std::size_t length) {
  switch (codec) {
    case Compression::None:
      if (stored_size != length)
        return false;
      std::memcpy(out, stored, length);
      return true;
    case Compression::Lz4:
      return stored_size <= INT_MAX && length <= INT_MAX &&
             LZ4_decompress_safe(static_cast<const char*>(stored), static_cast<char*>(out),
                                 static_cast<int>(stored_size),
                                 static_cast<int>(length)) == static_cast<int>(length);
    case Compression::Zstd:
      // Made on first use: a reader of plain or lz4 data never needs one.
      if (!context_->zstd && !(context_->zstd = ZSTD_createDCtx()))
        return false;
      return ZSTD_decompressDCtx(context_->zstd, out, length, stored, stored_size) == length;
    case Compression::Zlib: {
      uLongf size = length;
      return uncompress(static_cast<Bytef*>(out), &size, static_cast<const Bytef*>(stored),
                        stored_size) == Z_OK &&
             size == length;
    }
  }
  return false;
}
