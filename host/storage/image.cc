#include "host/storage/image.h"

#include "host/core/log.h"
#include "host/storage/codec.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <limits>

using Compression = Client_IO_Base::Compression;

namespace {

const char magic[8] = {'B', 'R', 'L', 'I', 'M', 'A', 'G', 'E'};

enum Record_Type : std::uint8_t { data_record = 1, zero_record = 2, end_record = 3 };

// Records are written in pieces of about this size, so that the sink sees few large writes.
constexpr std::size_t out_chunk = 1u << 20;
// And read in pieces of at least this size.
constexpr std::size_t in_chunk = 1u << 20;

void put32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

void put64(std::uint8_t* p, std::uint64_t v) {
  for (int i = 0; i < 8; ++i)
    p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint32_t get32(const std::uint8_t* p) {
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i)
    v = (v << 8) | p[i];
  return v;
}

std::uint64_t get64(const std::uint8_t* p) {
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i)
    v = (v << 8) | p[i];
  return v;
}

bool power_of_two(std::uint32_t v) {
  return v != 0 && (v & (v - 1)) == 0;
}

bool all_zero(const std::uint8_t* p, std::size_t n) {
  return n == 0 || (p[0] == 0 && std::memcmp(p, p + 1, n - 1) == 0);
}

struct Record {
  std::uint8_t type = 0;
  std::uint8_t codec = 0;
  std::uint32_t length = 0;
  std::uint64_t offset = 0;
  std::uint32_t stored = 0;
  std::uint64_t checksum = 0;
};

void encode(const Record& r, std::uint8_t* p) {
  std::memset(p, 0, image_format::record_size);
  p[0] = r.type;
  p[1] = r.codec;
  put32(p + 4, r.length);
  put64(p + 8, r.offset);
  put32(p + 16, r.stored);
  put64(p + 24, r.checksum);
  put64(p + 32, XXH3_64bits(p, 32));
}

// False when the header's own checksum or its reserved bytes are wrong.
bool decode(const std::uint8_t* p, Record& r) {
  if (get64(p + 32) != XXH3_64bits(p, 32) || p[2] || p[3] || get32(p + 20))
    return false;
  r.type = p[0];
  r.codec = p[1];
  r.length = get32(p + 4);
  r.offset = get64(p + 8);
  r.stored = get32(p + 16);
  r.checksum = get64(p + 24);
  return true;
}

}  // namespace

vxrt::Image_Writer::Image_Writer(Client_IO_Base::Compression method, int level)
    : method_(method), level_(level) {}

vxrt::Image_Writer::~Image_Writer() = default;

bool vxrt::Image_Writer::init(std::uint32_t block_size, std::uint32_t sector_size,
                              std::uint32_t version, std::uint32_t flags) {
  if (state_ != State::Created) {
    LOG_MSG((LM_ERROR, "Image writer of '%s' is already initialised.\n", name_i().c_str()));
    return false;
  }
  if (version != image_format::version || !power_of_two(sector_size) || sector_size < 512 ||
      !power_of_two(block_size) || block_size < sector_size ||
      block_size > image_format::max_block_size) {
    LOG_MSG((LM_ERROR,
             "Invalid image parameters for '%s': block size %u, sector size %u, version %u.\n",
             name_i().c_str(), block_size, sector_size, version));
    return false;
  }
  if (!compressor_ && !set_compression(method_, level_))
    return false;
  block_size_ = block_size;
  sector_size_ = sector_size;
  flags_ = flags;
  state_ = State::Initialised;
  return true;
}

bool vxrt::Image_Writer::set_compression(Client_IO_Base::Compression method, int level) {
  if (state_ == State::Finished) {
    LOG_MSG((LM_ERROR, "Image compression of '%s' changed after its blocks.\n", name_i().c_str()));
    return false;
  }
  const Codec_Info* info = codec_info(method);
  if (!info) {
    LOG_MSG((LM_ERROR, "Unknown compression method %d for '%s'.\n", static_cast<int>(method),
             name_i().c_str()));
    return false;
  }
  std::unique_ptr<Codec_Compressor> compressor(new Codec_Compressor(method, level));
  if (!compressor->ready()) {
    if (method != Compression::None && level != 0 &&
        (level < info->min_level || level > info->max_level))
      LOG_MSG((LM_ERROR, "Invalid %s compression level %d for '%s'.\n", info->name, level,
               name_i().c_str()));
    else
      LOG_MSG(
          (LM_ERROR, "Failed to create a %s compressor for '%s'.\n", info->name, name_i().c_str()));
    return false;
  }
  compressor_ = std::move(compressor);
  return true;
}

bool vxrt::Image_Writer::write_superblock(const std::uint8_t set_id[16],
                                          const std::uint8_t image_id[16], const void* extra,
                                          std::size_t extra_size) {
  if (state_ != State::Initialised) {
    LOG_MSG((LM_ERROR, "Image superblock of '%s' written out of order.\n", name_i().c_str()));
    return false;
  }
  if (extra_size > image_format::max_extra_size || (extra_size && !extra)) {
    LOG_MSG((LM_ERROR, "Image superblock of '%s': extra data of %u bytes is too large.\n",
             name_i().c_str(), static_cast<unsigned>(extra_size)));
    return false;
  }
  std::vector<std::uint8_t> block(image_format::superblock_size + extra_size +
                                  (extra_size ? 8 : 0));
  std::uint8_t* p = block.data();
  std::memcpy(p, magic, 8);
  put32(p + 8, image_format::version);
  put32(p + 12, block_size_);
  put32(p + 16, sector_size_);
  put32(p + 20, flags_);
  std::memcpy(p + 24, set_id, 16);
  std::memcpy(p + 40, image_id, 16);
  put32(p + 56, static_cast<std::uint32_t>(extra_size));
  put64(p + 64, XXH3_64bits(p, 64));
  if (extra_size) {
    std::memcpy(p + 72, extra, extra_size);
    put64(p + 72 + extra_size, XXH3_64bits(extra, extra_size));
  }
  if (!write_i(block.data(), block.size()))
    return false;
  stored_bytes_ += block.size();
  state_ = State::Started;
  return true;
}

bool vxrt::Image_Writer::add_block(std::uint64_t offset, std::uint64_t length) {
  if (state_ == State::Created || state_ == State::Finished || length == 0 ||
      offset > std::numeric_limits<std::uint64_t>::max() - length) {
    LOG_MSG((LM_ERROR, "Invalid image block for '%s': offset %Q, length %Q.\n", name_i().c_str(),
             static_cast<ACE_UINT64>(offset), static_cast<ACE_UINT64>(length)));
    return false;
  }
  blocks_.emplace_back(offset, length);
  return true;
}

bool vxrt::Image_Writer::write_blocks(const Read_Callback& read,
                                      const Progress_Callback& progress) {
  if (state_ != State::Started) {
    LOG_MSG((LM_ERROR, "Image blocks of '%s' written out of order.\n", name_i().c_str()));
    return false;
  }
  state_ = State::Finished;  // once, whatever the outcome
  out_.resize(out_chunk + image_format::record_size +
              codec_bound(compressor_->codec(), block_size_));
  out_used_ = 0;
  for (const auto& block : blocks_) {
    std::uint64_t offset = block.first, end = block.first + block.second;
    while (offset < end) {
      std::uint64_t wanted64 = end - offset;
      std::size_t wanted = static_cast<std::size_t>(
          std::min<std::uint64_t>(wanted64, std::numeric_limits<ssize_t>::max()));
      const void* data = nullptr;
      ssize_t got = read(offset, wanted, data);
      if (got < 0)
        return false;
      if (got == 0 || static_cast<std::size_t>(got) > wanted || !data) {
        LOG_MSG((LM_ERROR, "Image data of '%s' at disk offset %Q: read %d of %u bytes.\n",
                 name_i().c_str(), static_cast<ACE_UINT64>(offset), static_cast<int>(got),
                 static_cast<unsigned>(wanted)));
        return false;
      }
      const std::uint8_t* p = static_cast<const std::uint8_t*>(data);
      for (std::size_t done = 0; done < static_cast<std::size_t>(got);) {
        std::size_t n = std::min<std::size_t>(block_size_, got - done);
        if (!put_record_i(p + done, n, offset + done))
          return false;
        done += n;
      }
      offset += got;
      if (progress)
        progress(static_cast<std::uint64_t>(got));
    }
  }
  if (out_used_ + image_format::record_size > out_.size() && !flush_i())
    return false;
  Record end_rec;
  end_rec.type = end_record;
  end_rec.offset = records_;
  end_rec.checksum = plain_bytes_;
  encode(end_rec, out_.data() + out_used_);
  out_used_ += image_format::record_size;
  return flush_i();
}

bool vxrt::Image_Writer::put_record_i(const std::uint8_t* data, std::size_t length,
                                      std::uint64_t offset) {
  Record r;
  r.length = static_cast<std::uint32_t>(length);
  r.offset = offset;
  std::uint8_t* head = out_.data() + out_used_;
  std::uint8_t* body = head + image_format::record_size;
  if (all_zero(data, length)) {
    r.type = zero_record;
  } else {
    r.type = data_record;
    r.checksum = XXH3_64bits(data, length);
    // Only a smaller result is worth storing.
    std::size_t packed = compressor_->compress(data, length, body, length - 1);
    if (packed) {
      r.codec = static_cast<std::uint8_t>(compressor_->codec());
      r.stored = static_cast<std::uint32_t>(packed);
    } else {
      r.codec = static_cast<std::uint8_t>(Compression::None);
      std::memcpy(body, data, length);
      r.stored = static_cast<std::uint32_t>(length);
    }
  }
  encode(r, head);
  out_used_ += image_format::record_size + r.stored;
  ++records_;
  plain_bytes_ += length;
  return out_used_ < out_chunk || flush_i();
}

bool vxrt::Image_Writer::flush_i() {
  if (out_used_ && !write_i(out_.data(), out_used_))
    return false;
  stored_bytes_ += out_used_;
  out_used_ = 0;
  return true;
}

Image_Reader::Image_Reader(std::size_t buffer_size)
    : buffer_size_(std::max<std::size_t>(buffer_size, 1)), decompressor_(new Codec_Decompressor) {}

Image_Reader::~Image_Reader() = default;

bool Image_Reader::corrupt_i(std::uint64_t at, const char* why) {
  LOG_MSG((LM_ERROR, "Corrupt image object '%s' at offset %Q: %s.\n", name_i().c_str(),
           static_cast<ACE_UINT64>(at), why));
  return false;
}

Image_Reader::Fill Image_Reader::fill_i(std::size_t size) {
  if (in_end_ - in_begin_ >= size)
    return Fill::Ok;
  // The unconsumed tail moves to the front, so that the bytes wanted end up in one piece.
  std::memmove(in_.data(), in_.data() + in_begin_, in_end_ - in_begin_);
  in_end_ -= in_begin_;
  in_begin_ = 0;
  if (in_.size() < size)  // a record larger than the reads: room for it and as much again
    in_.resize(2 * size);
  while (in_end_ < size) {
    ssize_t got = read_i(in_.data() + in_end_, in_.size() - in_end_);
    if (got < 0)
      return Fill::Failed;
    if (got == 0)
      return Fill::End;
    in_end_ += static_cast<std::size_t>(got);
  }
  return Fill::Ok;
}

bool Image_Reader::need_i(std::size_t size, const char* what) {
  switch (fill_i(size)) {
    case Fill::Ok:
      return true;
    case Fill::End:
      LOG_MSG((LM_ERROR, "Truncated image object '%s' at offset %Q: %s is incomplete.\n",
               name_i().c_str(), static_cast<ACE_UINT64>(position_), what));
      return false;
    case Fill::Failed:
      return false;
  }
  return false;
}

const std::uint8_t* Image_Reader::take_i(std::size_t size) {
  const std::uint8_t* p = in_.data() + in_begin_;
  in_begin_ += size;
  position_ += size;
  return p;
}

bool Image_Reader::read_superblock_i() {
  if (!need_i(image_format::superblock_size, "the superblock"))
    return false;
  const std::uint8_t* p = take_i(image_format::superblock_size);
  if (std::memcmp(p, magic, 8) != 0)
    return corrupt_i(0, "not an image object");
  if (get64(p + 64) != XXH3_64bits(p, 64) || get32(p + 60) != 0)
    return corrupt_i(0, "superblock checksum mismatch");
  Superblock& s = superblock_;
  s.version = get32(p + 8);
  s.block_size = get32(p + 12);
  s.sector_size = get32(p + 16);
  s.flags = get32(p + 20);
  std::memcpy(s.set_id, p + 24, 16);
  std::memcpy(s.image_id, p + 40, 16);
  std::uint32_t extra_size = get32(p + 56);
  if (s.version != image_format::version)
    return corrupt_i(8, "unsupported version");
  if (!power_of_two(s.sector_size) || s.sector_size < 512 || !power_of_two(s.block_size) ||
      s.block_size < s.sector_size || s.block_size > image_format::max_block_size ||
      extra_size > image_format::max_extra_size)
    return corrupt_i(12, "invalid superblock parameters");
  if (extra_size) {
    std::uint64_t at = position_;
    if (!need_i(extra_size + 8, "the superblock"))
      return false;
    const std::uint8_t* extra = take_i(extra_size + 8);
    if (get64(extra + extra_size) != XXH3_64bits(extra, extra_size))
      return corrupt_i(at, "superblock extra data checksum mismatch");
    s.extra.assign(reinterpret_cast<const char*>(extra), extra_size);
  }
  return true;
}

bool Image_Reader::hand_over_i(const Block_Callback& callback) {
  for (std::size_t done = 0; done < out_used_;) {
    std::size_t n = std::min(buffer_size_, out_used_ - done);
    if (!callback(out_.data() + done, n, out_offset_ + done)) {
      stopped_ = true;
      return false;
    }
    done += n;
  }
  out_offset_ += out_used_;
  out_used_ = 0;
  return true;
}

bool Image_Reader::read_blocks(const Block_Callback& callback) {
  stopped_ = false;
  records_ = plain_bytes_ = position_ = 0;
  in_.resize(in_chunk);
  in_begin_ = in_end_ = 0;
  out_used_ = 0;
  if (!read_superblock_i())
    return false;
  const std::uint32_t block_size = superblock_.block_size;
  out_.resize(std::max<std::size_t>(buffer_size_, block_size));

  for (;;) {
    std::uint64_t at = position_;
    if (!need_i(image_format::record_size, "a record header"))
      return false;
    Record r;
    if (!decode(take_i(image_format::record_size), r))
      return corrupt_i(at, "record header checksum mismatch");
    if (r.type == end_record) {
      if (r.offset != records_ || r.checksum != plain_bytes_ || r.codec || r.length || r.stored)
        return corrupt_i(at, "end record does not match the records read");
      switch (fill_i(1)) {
        case Fill::End:
          return hand_over_i(callback);
        case Fill::Ok:
          return corrupt_i(at + image_format::record_size, "data after the end record");
        case Fill::Failed:
          return false;
      }
    }
    if (r.type != data_record && r.type != zero_record)
      return corrupt_i(at, "unknown record type");
    // A zero record stores nothing and names no codec (0).
    if (r.type == data_record && !codec_info(r.codec))
      return corrupt_i(at, "unknown codec");
    Compression codec = static_cast<Compression>(r.codec);
    if (r.length == 0 || r.length > block_size ||
        r.offset > std::numeric_limits<std::uint64_t>::max() - r.length)
      return corrupt_i(at, "invalid record length or offset");
    if (r.type == zero_record ? (r.codec || r.stored || r.checksum)
                              : (r.stored == 0 || r.stored > codec_bound(codec, r.length) ||
                                 (codec == Compression::None) != (r.stored == r.length)))
      return corrupt_i(at, "invalid stored length");

    // A block that does not continue the pending data, or does not fit after it, sends the
    // pending data first.
    if (out_used_ && (r.offset != out_offset_ + out_used_ || out_used_ + r.length > out_.size()) &&
        !hand_over_i(callback))
      return false;
    if (out_used_ == 0)
      out_offset_ = r.offset;
    std::uint8_t* dst = out_.data() + out_used_;
    if (r.type == zero_record) {
      std::memset(dst, 0, r.length);
    } else {
      if (!need_i(r.stored, "a record's data"))
        return false;
      const std::uint8_t* stored = take_i(r.stored);
      if (codec == Compression::None)
        std::memcpy(dst, stored, r.length);
      else if (!decompressor_->decompress(codec, stored, r.stored, dst, r.length))
        return corrupt_i(at, "data does not decompress");
      if (XXH3_64bits(dst, r.length) != r.checksum)
        return corrupt_i(at, "data checksum mismatch");
    }
    out_used_ += r.length;
    ++records_;
    plain_bytes_ += r.length;
    if (out_used_ >= buffer_size_ && !hand_over_i(callback))
      return false;
  }
}
