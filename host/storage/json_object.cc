// JSON documents stored as pool objects: a header naming the codec, then the text as one block
// (see client_io.h).
#include "host/storage/client_io.h"
#include "host/storage/codec.h"

#include <xxhash.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace {

using Compression = Client_IO_Base::Compression;

const char s_magic[8] = {'B', 'R', 'L', 'J', 'S', 'O', 'N', 0};
constexpr std::uint8_t s_version = 1;
constexpr std::size_t s_header_size = 24;
// Bounds what a (possibly hostile) object can make us allocate.
constexpr std::size_t s_max_document = 64u << 20;

std::uint64_t get_le(const std::uint8_t* p, int bytes) {
  std::uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i)
    v = (v << 8) | p[i];
  return v;
}

void put_le(std::uint8_t* p, std::uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i)
    p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

// The stored form of `text`; false with `error` set.
bool encode(Compression codec, int level, const std::string& text, std::string& out,
            std::string& error) {
  if (text.size() > s_max_document)
    return error = "the document is larger than 64 MiB", false;
  Codec_Compressor compressor(codec, level);
  if (!compressor.ready())
    return error = "cannot compress with method " + std::to_string(static_cast<int>(codec)), false;
  out.assign(s_header_size + std::max<std::size_t>(text.size(), 1), '\0');
  std::uint8_t* p = reinterpret_cast<std::uint8_t*>(&out[0]);
  // Only a smaller result is worth storing; otherwise the text goes in plain.
  std::size_t packed = text.empty() ? 0
                                    : compressor.compress(text.data(), text.size(),
                                                          p + s_header_size, text.size() - 1);
  if (packed == 0) {
    codec = Compression::None;
    packed = text.size();
    std::memcpy(p + s_header_size, text.data(), packed);
  }
  std::memcpy(p, s_magic, sizeof s_magic);
  p[8] = s_version;
  p[9] = static_cast<std::uint8_t>(codec);
  put_le(p + 12, text.size(), 4);
  put_le(p + 16, XXH3_64bits(text.data(), text.size()), 8);
  out.resize(s_header_size + packed);
  return true;
}

// The text of stored document `raw`; false with `error` set.
bool decode(const std::string& raw, std::string& text, std::string& error) {
  const std::uint8_t* header = reinterpret_cast<const std::uint8_t*>(raw.data());
  if (raw.size() < s_header_size || std::memcmp(header, s_magic, sizeof s_magic) != 0)
    return error = "not a stored JSON document", false;
  if (header[8] != s_version || header[10] || header[11])
    return error = "unsupported document version " + std::to_string(header[8]), false;
  const Codec_Info* codec = codec_info(header[9]);
  if (!codec)
    return error = "unknown codec " + std::to_string(header[9]), false;
  const std::size_t length = get_le(header + 12, 4);
  if (length > s_max_document)
    return error = "the document is larger than 64 MiB", false;
  text.assign(length, '\0');
  Codec_Decompressor decompressor;
  if (!decompressor.decompress(codec->codec, raw.data() + s_header_size, raw.size() - s_header_size,
                               &text[0], length))
    return error = std::string("damaged ") + codec->name + " data", false;
  if (XXH3_64bits(text.data(), text.size()) != get_le(header + 16, 8))
    return error = "checksum mismatch", false;
  return true;
}

}  // namespace

bool client_io_write_json(Client_IO_Ex& io, const std::string& path, const JSON_Value& json) {
  const Client_IO_Base::Options& opts = io.options();
  std::string data, error;
  if (!encode(opts.compression_, opts.compression_level_, json.dump(), data, error))
    return io.fail("Cannot write '" + path + "': " + error);
  // A failed write is abandoned by the client, so nothing stays under `path`.
  return io.open(path, Client_IO_Ex::Write, 0, data.size()) && io.write(data.data(), data.size()) &&
         io.close();
}

bool client_io_read_json(Client_IO_Ex& io, const std::string& path, JSON_Value& json) {
  if (!io.open(path, Client_IO_Ex::Read))
    return false;
  std::size_t limit = 0;  // the most any codec stores for the largest document
  for (Compression c : {Compression::Zstd, Compression::Lz4, Compression::Zlib, Compression::None})
    limit = std::max(limit, s_header_size + codec_bound(c, s_max_document));
  if (io.storage_size() > limit) {
    io.close();
    return io.fail("Cannot read '" + path + "': the document is larger than 64 MiB");
  }
  std::string raw(io.storage_size(), '\0');
  ssize_t n = io.read(&raw[0], raw.size());
  if (n < 0)
    return false;
  raw.resize(static_cast<std::size_t>(n));
  io.close();
  std::string text, error;
  if (!decode(raw, text, error))
    return io.fail("Cannot read '" + path + "': " + error);
  JSON_Value value = JSON_Value::parse(text, nullptr, false);
  if (value.is_discarded())
    return io.fail("Cannot read '" + path + "': not a valid JSON document");
  json = std::move(value);
  return true;
}
