// Image objects: the blocks of one piece of a disk as stored in a pool.
//
// Layout (integers little-endian):
//   superblock  magic "BRLIMAGE", version, block size, sector size, flags (u32 each), set id and
//               image id (16 bytes each), extra size (u32), u32 0, checksum of the bytes before;
//               then the extra bytes and their checksum when there are any
//   records     40 bytes each: type (u8), codec (u8), u16 0, length (u32), disk offset (u64),
//               stored length (u32), u32 0, checksum of the plain data (u64), checksum of the
//               32 bytes before (u64); a data record is followed by its stored bytes, a zero
//               record stands for `length` zero bytes and stores none
//   end record  a record of type 3 whose offset field is the number of data and zero records and
//               whose checksum field is their total length, so that a truncated object is told
//               from a complete one
// A record holds at most one block size of plain data. Checksums are XXH3-64. The codec numbers
// are those of Client_IO_Base::Compression (see codec.h).
#pragma once

#include "host/storage/options.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class Client_IO_Ex;
class Codec_Compressor;
class Codec_Decompressor;

namespace image_format {
constexpr std::uint32_t version = 1;
constexpr std::uint32_t max_block_size = 16u << 20;
constexpr std::size_t superblock_size = 72;
constexpr std::size_t record_size = 40;
constexpr std::uint32_t max_extra_size = 65536;
}  // namespace image_format

namespace vxrt {

// Writes one image object: init, write_superblock, add_block for every disk range in order, then
// write_blocks once. Where the bytes go is the derived class's matter.
class Image_Writer {
 public:
  // Fills `data` with up to `wanted` bytes of the disk at `offset` and answers how many (at least
  // 1), or -1 to end the write as a failure (the callback reports why).
  using Read_Callback =
      std::function<ssize_t(std::uint64_t offset, std::size_t wanted, const void*& data)>;
  // Called with the plain bytes of each read once they are written.
  using Progress_Callback = std::function<void(std::uint64_t bytes)>;

  // The codec of the data records and its level (the codec's own, see options.h; 0 for its
  // default). Incompressible data is stored plain whatever the codec.
  explicit Image_Writer(Client_IO_Base::Compression method = Client_IO_Base::Compression::None,
                        int level = 0);
  virtual ~Image_Writer();
  Image_Writer(const Image_Writer&) = delete;
  Image_Writer& operator=(const Image_Writer&) = delete;

  // Block size: a power of two from the sector size up to 16 MiB; sector size: a power of two
  // from 512; version 1. Fails too for a compression level out of the codec's range.
  bool init(std::uint32_t block_size, std::uint32_t sector_size, std::uint32_t version,
            std::uint32_t flags);
  // Changes the codec before write_blocks.
  bool set_compression(Client_IO_Base::Compression method, int level);
  bool write_superblock(const std::uint8_t set_id[16], const std::uint8_t image_id[16],
                        const void* extra = nullptr, std::size_t extra_size = 0);
  bool add_block(std::uint64_t offset, std::uint64_t length);
  bool write_blocks(const Read_Callback& read, const Progress_Callback& progress);

  // Bytes written to the object so far.
  std::uint64_t stored_bytes() const { return stored_bytes_; }

 protected:
  // Appends to the object; false when it could not (the sink keeps or reports the reason).
  virtual bool write_i(const void* data, std::size_t size) = 0;
  // For messages.
  virtual std::string name_i() const = 0;

 private:
  bool put_record_i(const std::uint8_t* data, std::size_t length, std::uint64_t offset);
  bool flush_i();

  std::uint32_t block_size_ = 0;
  std::uint32_t sector_size_ = 0;
  std::uint32_t flags_ = 0;
  enum class State { Created, Initialised, Started, Finished } state_ = State::Created;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> blocks_;  // offset, length
  Client_IO_Base::Compression method_;
  int level_;
  std::unique_ptr<Codec_Compressor> compressor_;
  std::vector<std::uint8_t> out_;  // records not yet handed to write_i
  std::size_t out_used_ = 0;
  std::uint64_t records_ = 0;
  std::uint64_t plain_bytes_ = 0;
  std::uint64_t stored_bytes_ = 0;
};

}  // namespace vxrt

// Reads one image object from its start and hands every block over, verified, in the order
// written; consecutive blocks are joined up to the buffer size.
class Image_Reader {
 public:
  // (data, length, disk offset); false stops the reading.
  using Block_Callback =
      std::function<bool(const void* data, std::size_t length, std::uint64_t offset)>;

  struct Superblock {
    std::uint32_t version = 0;
    std::uint32_t block_size = 0;
    std::uint32_t sector_size = 0;
    std::uint32_t flags = 0;
    std::uint8_t set_id[16] = {};
    std::uint8_t image_id[16] = {};
    std::string extra;
  };

  // `buffer_size`: the most bytes handed over at once (at least 1).
  explicit Image_Reader(std::size_t buffer_size);
  virtual ~Image_Reader();
  Image_Reader(const Image_Reader&) = delete;
  Image_Reader& operator=(const Image_Reader&) = delete;

  // True when the whole object was read and handed over. False after one error line for a
  // corrupt or truncated object (naming it and the byte offset in it), silently when the source
  // failed (it reports) or the callback stopped (see stopped()).
  bool read_blocks(const Block_Callback& callback);

  bool stopped() const { return stopped_; }
  // Valid once read_blocks got past the superblock.
  const Superblock& superblock() const { return superblock_; }
  std::uint64_t blocks() const { return records_; }
  std::uint64_t plain_bytes() const { return plain_bytes_; }

 protected:
  // Reads up to `size` bytes: how many, 0 at the end of the object, -1 on failure (reported by
  // the source).
  virtual ssize_t read_i(void* data, std::size_t size) = 0;
  virtual std::string name_i() const = 0;

 private:
  enum class Fill { Ok, End, Failed };
  // Makes `size` bytes of the object available in one piece at in_[in_begin_], unconsumed.
  Fill fill_i(std::size_t size);
  // The same, but the end of the object is reported as `what` being truncated.
  bool need_i(std::size_t size, const char* what);
  // Consumes `size` available bytes; the pointer holds until the next fill.
  const std::uint8_t* take_i(std::size_t size);
  bool read_superblock_i();
  bool corrupt_i(std::uint64_t at, const char* why);
  bool hand_over_i(const Block_Callback& callback);

  std::size_t buffer_size_;
  Superblock superblock_;
  std::unique_ptr<Codec_Decompressor> decompressor_;
  // Raw bytes from read_i, large enough for a whole record, so that stored bytes are used where
  // they were read.
  std::vector<std::uint8_t> in_;
  std::size_t in_begin_ = 0, in_end_ = 0;
  std::vector<std::uint8_t> out_;  // verified plain data not yet handed over
  std::size_t out_used_ = 0;
  std::uint64_t out_offset_ = 0;
  std::uint64_t position_ = 0;  // bytes of the object consumed
  std::uint64_t records_ = 0;
  std::uint64_t plain_bytes_ = 0;
  bool stopped_ = false;
};

// The image writer and reader over a storage-pool client opened on the object.
class Image_Block_Writer : public vxrt::Image_Writer {
 public:
  // Writes to the object `io` has open for writing, with the codec and level of its options.
  // Failures of the client are left in io->error() for the caller to report.
  explicit Image_Block_Writer(Client_IO_Ex* io);

 protected:
  bool write_i(const void* data, std::size_t size) override;
  std::string name_i() const override;

 private:
  Client_IO_Ex* io_;
};

class Image_Block_Reader : public Image_Reader {
 public:
  // Reads the object `io` has open for reading; its failures are left in io->error().
  Image_Block_Reader(Client_IO_Ex* io, std::size_t buffer_size);

 protected:
  ssize_t read_i(void* data, std::size_t size) override;
  std::string name_i() const override;

 private:
  Client_IO_Ex* io_;
};
