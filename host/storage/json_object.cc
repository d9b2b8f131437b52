// JSON documents stored as pool objects, compressed with the client's method. A reader tells the
// method from the first bytes (a JSON text never starts with them), so it needs no options.
#include "host/storage/client_io.h"

#include <lz4frame.h>
#include <zlib.h>
#include <zstd.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace {

using Compression = Client_IO_Base::Compression;

// Bounds what a (possibly hostile) object can make us allocate.
constexpr std::size_t s_max_document = 64u << 20;
constexpr std::size_t s_step = 64u << 10;

bool compress(Compression method, int level, const std::string& in, std::string& out) {
  switch (method) {
    case Compression::None:
      out = in;
      return true;
    case Compression::Zstd: {
      // With the frame checksum, damage is found on reading rather than parsed.
      std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> cctx(ZSTD_createCCtx(), ZSTD_freeCCtx);
      if (!cctx ||
          ZSTD_isError(ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_compressionLevel, level)) ||
          ZSTD_isError(ZSTD_CCtx_setParameter(cctx.get(), ZSTD_c_checksumFlag, 1)))
        return false;
      out.resize(ZSTD_compressBound(in.size()));
      std::size_t n = ZSTD_compress2(cctx.get(), &out[0], out.size(), in.data(), in.size());
      if (ZSTD_isError(n))
        return false;
      out.resize(n);
      return true;
    }
    case Compression::Lz4: {
      LZ4F_preferences_t prefs;
      std::memset(&prefs, 0, sizeof prefs);
      prefs.compressionLevel = level;
      prefs.frameInfo.contentSize = in.size();
      prefs.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
      out.resize(LZ4F_compressFrameBound(in.size(), &prefs));
      std::size_t n = LZ4F_compressFrame(&out[0], out.size(), in.data(), in.size(), &prefs);
      if (LZ4F_isError(n))
        return false;
      out.resize(n);
      return true;
    }
    case Compression::Zlib: {
      uLongf n = compressBound(static_cast<uLong>(in.size()));
      out.resize(n);
      if (compress2(reinterpret_cast<Bytef*>(&out[0]), &n,
                    reinterpret_cast<const Bytef*>(in.data()), static_cast<uLong>(in.size()),
                    level) != Z_OK)
        return false;
      out.resize(n);
      return true;
    }
  }
  return false;
}

bool starts_with(const std::string& s, const unsigned char* magic, std::size_t size) {
  return s.size() >= size && std::memcmp(s.data(), magic, size) == 0;
}

// Inflates `in` by the method its first bytes name; plain text is copied. False with `error` for
// a damaged stream or one that grows beyond s_max_document.
bool decompress(const std::string& in, std::string& out, std::string& error) {
  static const unsigned char zstd_magic[] = {0x28, 0xb5, 0x2f, 0xfd};
  static const unsigned char lz4_magic[] = {0x04, 0x22, 0x4d, 0x18};
  const std::string too_large = "the document is larger than 64 MiB";
  out.clear();
  if (starts_with(in, zstd_magic, sizeof zstd_magic)) {
    std::unique_ptr<ZSTD_DStream, decltype(&ZSTD_freeDStream)> ds(ZSTD_createDStream(),
                                                                  ZSTD_freeDStream);
    ZSTD_inBuffer src{in.data(), in.size(), 0};
    std::size_t last = 1;
    while (src.pos < src.size || last != 0) {
      std::size_t have = out.size();
      if (have >= s_max_document)
        return error = too_large, false;
      out.resize(have + s_step);
      ZSTD_outBuffer dst{&out[0], out.size(), have};
      last = ZSTD_decompressStream(ds.get(), &dst, &src);
      out.resize(dst.pos);
      if (ZSTD_isError(last))
        return error = std::string("damaged zstd data: ") + ZSTD_getErrorName(last), false;
      if (src.pos == src.size && dst.pos < dst.size && last != 0)
        return error = "truncated zstd data", false;
    }
    return true;
  }
  if (starts_with(in, lz4_magic, sizeof lz4_magic)) {
    LZ4F_dctx* raw = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&raw, LZ4F_VERSION)))
      return error = "out of memory", false;
    std::unique_ptr<LZ4F_dctx, decltype(&LZ4F_freeDecompressionContext)> dctx(
        raw, LZ4F_freeDecompressionContext);
    std::size_t pos = 0;
    std::size_t hint = 1;
    while (hint != 0) {
      std::size_t have = out.size();
      if (have >= s_max_document)
        return error = too_large, false;
      if (pos == in.size())
        return error = "truncated lz4 data", false;
      out.resize(have + s_step);
      std::size_t dst_size = s_step;
      std::size_t src_size = in.size() - pos;
      hint =
          LZ4F_decompress(dctx.get(), &out[have], &dst_size, in.data() + pos, &src_size, nullptr);
      out.resize(have + dst_size);
      if (LZ4F_isError(hint))
        return error = std::string("damaged lz4 data: ") + LZ4F_getErrorName(hint), false;
      pos += src_size;
    }
    return true;
  }
  // zlib: a deflate header whose check bits hold.
  if (in.size() >= 2 && (static_cast<unsigned char>(in[0]) & 0x0f) == 8 &&
      ((static_cast<unsigned char>(in[0]) << 8) | static_cast<unsigned char>(in[1])) % 31 == 0) {
    z_stream zs;
    std::memset(&zs, 0, sizeof zs);
    if (inflateInit(&zs) != Z_OK)
      return error = "out of memory", false;
    std::unique_ptr<z_stream, int (*)(z_stream*)> end(&zs, inflateEnd);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    zs.avail_in = static_cast<uInt>(in.size());
    int rc = Z_OK;
    while (rc != Z_STREAM_END) {
      std::size_t have = out.size();
      if (have >= s_max_document)
        return error = too_large, false;
      out.resize(have + s_step);
      zs.next_out = reinterpret_cast<Bytef*>(&out[have]);
      zs.avail_out = static_cast<uInt>(s_step);
      rc = inflate(&zs, Z_NO_FLUSH);
      out.resize(have + s_step - zs.avail_out);
      if (rc == Z_BUF_ERROR && zs.avail_in == 0)
        return error = "truncated zlib data", false;
      if (rc != Z_OK && rc != Z_STREAM_END)
        return error = std::string("damaged zlib data: ") + (zs.msg ? zs.msg : "unknown"), false;
    }
    return true;
  }
  out = in;
  return true;
}

}  // namespace

bool client_io_write_json(Client_IO_Ex& io, const std::string& path, const JSON_Value& json) {
  const Client_IO_Base::Options& opts = io.options();
  std::string data;
  if (!compress(opts.compression_, opts.compression_level_, json.dump(), data))
    return io.fail("Cannot compress '" + path + "'");
  // A failed write is abandoned by the client, so nothing stays under `path`.
  return io.open(path, Client_IO_Ex::Write, 0, data.size()) && io.write(data.data(), data.size()) &&
         io.close();
}

bool client_io_read_json(Client_IO_Ex& io, const std::string& path, JSON_Value& json) {
  if (!io.open(path, Client_IO_Ex::Read))
    return false;
  if (io.storage_size() > s_max_document) {
    io.close();
    return io.fail("Cannot read '" + path + "': the document is larger than 64 MiB");
  }
  std::string raw(io.storage_size(), '\0');
  ssize_t n = io.read(&raw[0], raw.size());
  if (n < 0)
    return false;
  raw.resize(static_cast<std::size_t>(n));
  io.close();
  std::string text;
  std::string error;
  if (!decompress(raw, text, error))
    return io.fail("Cannot read '" + path + "': " + error);
  JSON_Value value = JSON_Value::parse(text, nullptr, false);
  if (value.is_discarded())
    return io.fail("Cannot read '" + path + "': not a valid JSON document");
  json = std::move(value);
  return true;
}
