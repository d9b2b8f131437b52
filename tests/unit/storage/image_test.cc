#include "host/storage/image.h"

#include "host/core/log.h"
#include "host/storage/client_io.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

using Compression = Client_IO_Base::Compression;

const char object_name[] = "set/disk0_chunk1.img";
const std::uint8_t set_id[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const std::uint8_t image_id[16] = {16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};

// The source disk: every byte is a function of its offset. Regions of 50,000 bytes cycle
// through zeros, text-like bytes and noise, so block edges fall inside regions of each kind.
std::uint8_t disk_byte(std::uint64_t offset) {
  switch ((offset / 50000) % 3) {
    case 0:
      return 0;
    case 1:
      return static_cast<std::uint8_t>("the quick brown fox jumps over a lazy dog "[offset % 42]);
    default: {
      std::uint64_t x = offset * 0x9E3779B97F4A7C15ull;
      return static_cast<std::uint8_t>((x ^ (x >> 29)) >> 17);
    }
  }
}

class Memory_Writer : public vxrt::Image_Writer {
 public:
  std::string bytes;
  bool fail_writes = false;

 protected:
  bool write_i(const void* data, std::size_t size) override {
    if (fail_writes)
      return false;
    bytes.append(static_cast<const char*>(data), size);
    return true;
  }
  std::string name_i() const override { return object_name; }
};

// Answers at most `max_read` bytes per read, to exercise the reader's refills.
class Memory_Reader : public Image_Reader {
 public:
  Memory_Reader(std::string bytes, std::size_t buffer_size,
                std::size_t max_read = std::numeric_limits<std::size_t>::max())
      : Image_Reader(buffer_size), bytes_(std::move(bytes)), max_read_(max_read) {}

 protected:
  ssize_t read_i(void* data, std::size_t size) override {
    std::size_t n = std::min({size, max_read_, bytes_.size() - at_});
    std::memcpy(data, bytes_.data() + at_, n);
    at_ += n;
    return static_cast<ssize_t>(n);
  }
  std::string name_i() const override { return object_name; }

 private:
  std::string bytes_;
  std::size_t max_read_;
  std::size_t at_ = 0;
};

class Log_Lines {
 public:
  Log_Lines() {
    id_ = add_log_sink([this](ACE_Log_Priority, const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      text_ += line;
    });
  }
  ~Log_Lines() { remove_log_sink(id_); }
  std::string text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
  int id_;
};

using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // offset, length

// An image of the disk's `ranges`; the read callback answers at most `max_read` bytes at once.
std::string write_image(const Ranges& ranges, Compression codec, int level,
                        std::size_t max_read = 1 << 20, std::uint64_t* progress_sum = nullptr) {
  Memory_Writer writer;
  EXPECT_TRUE(writer.init(65536, 512, 1, 0));
  EXPECT_TRUE(writer.set_compression(codec, level));
  EXPECT_TRUE(writer.write_superblock(set_id, image_id, "meta", 4));
  for (const auto& r : ranges)
    EXPECT_TRUE(writer.add_block(r.first, r.second));
  std::vector<std::uint8_t> buffer(max_read);
  std::uint64_t sum = 0;
  bool ok = writer.write_blocks(
      [&](std::uint64_t offset, std::size_t wanted, const void*& data) -> ssize_t {
        std::size_t n = std::min(wanted, buffer.size());
        for (std::size_t i = 0; i < n; ++i)
          buffer[i] = disk_byte(offset + i);
        data = buffer.data();
        return static_cast<ssize_t>(n);
      },
      [&](std::uint64_t bytes) { sum += bytes; });
  EXPECT_TRUE(ok);
  EXPECT_EQ(writer.stored_bytes(), writer.bytes.size());
  if (progress_sum)
    *progress_sum = sum;
  return writer.bytes;
}

struct Handed {
  std::uint64_t offset;
  std::string data;
};

// Reads an image; every hand-over is kept.
bool read_image(Memory_Reader& reader, std::vector<Handed>& handed) {
  return reader.read_blocks([&](const void* data, std::size_t length, std::uint64_t offset) {
    handed.push_back({offset, std::string(static_cast<const char*>(data), length)});
    return true;
  });
}

// Whether every handed byte equals the disk's.
bool matches_disk(const std::vector<Handed>& handed) {
  for (const auto& h : handed)
    for (std::size_t i = 0; i < h.data.size(); ++i)
      if (static_cast<std::uint8_t>(h.data[i]) != disk_byte(h.offset + i))
        return false;
  return true;
}

// The handed data as sorted, merged ranges.
Ranges covered(const std::vector<Handed>& handed) {
  Ranges out;
  for (const auto& h : handed)
    out.emplace_back(h.offset, h.data.size());
  std::sort(out.begin(), out.end());
  Ranges merged;
  for (const auto& r : out) {
    if (!merged.empty() && merged.back().first + merged.back().second == r.first)
      merged.back().second += r.second;
    else
      merged.push_back(r);
  }
  return merged;
}

TEST(Image, RoundTripsEveryCodecAndShape) {
  // Disjoint ranges in increasing order; covered() must give them back merged where they touch.
  const Ranges mixed = {{0, 65536},        // one whole block of zeros and text
                        {65536, 3},        // touches the previous one
                        {70001, 511},      // odd offset and length
                        {200000, 300001},  // several blocks of every kind
                        {(1ull << 40) + 7, 1000}};
  const Ranges mixed_merged = {
      {0, 65539}, {70001, 511}, {200000, 300001}, {(1ull << 40) + 7, 1000}};
  struct Case {
    Compression codec;
    int level;
  };
  for (Case c :
       {Case{Compression::None, 0}, Case{Compression::Lz4, 1}, Case{Compression::Lz4, 9},
        Case{Compression::Zstd, 1}, Case{Compression::Zstd, 19}, Case{Compression::Zlib, 6}}) {
    for (std::size_t buffer : {std::size_t(4096), std::size_t(65536), std::size_t(1 << 20)}) {
      SCOPED_TRACE("codec " + std::to_string(static_cast<int>(c.codec)) + " level " +
                   std::to_string(c.level) + " buffer " + std::to_string(buffer));
      std::uint64_t progress = 0;
      std::string image = write_image(mixed, c.codec, c.level, 100000, &progress);
      EXPECT_EQ(progress, 65536u + 3 + 511 + 300001 + 1000);
      Memory_Reader reader(image, buffer, 777);
      std::vector<Handed> handed;
      ASSERT_TRUE(read_image(reader, handed));
      EXPECT_TRUE(matches_disk(handed));
      EXPECT_EQ(covered(handed), mixed_merged);
      for (const auto& h : handed)
        EXPECT_LE(h.data.size(), buffer);
      EXPECT_EQ(reader.plain_bytes(), progress);
      EXPECT_EQ(reader.superblock().block_size, 65536u);
      EXPECT_EQ(reader.superblock().sector_size, 512u);
      EXPECT_EQ(reader.superblock().version, 1u);
      EXPECT_EQ(0, std::memcmp(reader.superblock().set_id, set_id, 16));
      EXPECT_EQ(0, std::memcmp(reader.superblock().image_id, image_id, 16));
      EXPECT_EQ(reader.superblock().extra, "meta");
      if (c.codec != Compression::None) {
        EXPECT_LT(image.size(), progress * 3 / 4) << "text and zeros should shrink";
      }

      std::string empty = write_image({}, c.codec, c.level);
      Memory_Reader empty_reader(empty, buffer);
      handed.clear();
      EXPECT_TRUE(read_image(empty_reader, handed));
      EXPECT_TRUE(handed.empty());
      EXPECT_EQ(empty_reader.blocks(), 0u);
    }
  }
}

TEST(Image, ZeroRunsTakeNoDataSpace) {
  // Offsets 0..49,999 of every 150,000 are zeros: 16 whole zero blocks from 3 * 150,000.
  Ranges ranges;
  for (std::uint64_t i = 0; i < 16; ++i)
    ranges.emplace_back(i * 150000, 40000);
  std::string image = write_image(ranges, Compression::None, 0);
  // Superblock with its extra data, one header per range and the end record: no data bytes.
  EXPECT_EQ(image.size(), image_format::superblock_size + 4 + 8 + 17 * image_format::record_size);
  Memory_Reader reader(image, 1 << 20);
  std::vector<Handed> handed;
  ASSERT_TRUE(read_image(reader, handed));
  EXPECT_TRUE(matches_disk(handed));
  EXPECT_EQ(covered(handed).size(), 16u);
  EXPECT_EQ(reader.plain_bytes(), 16u * 40000);
}

// Every byte of a plain image is covered by a checksum: a flip anywhere is found, and nothing of
// the record it lies in is handed over. A compressed image may still decode a flip to the same
// data; whatever it hands over must be right.
TEST(Image, FlippedByteIsFoundAndNamed) {
  // Text, text, zeros, noise.
  const Ranges ranges = {{50100, 200}, {60000, 300}, {100, 200}, {120000, 500}};
  for (Compression codec :
       {Compression::None, Compression::Lz4, Compression::Zstd, Compression::Zlib}) {
    SCOPED_TRACE(static_cast<int>(codec));
    std::string image = write_image(ranges, codec, 0);
    for (std::size_t at = 0; at < image.size(); ++at) {
      std::string bad = image;
      bad[at] ^= 0x20;
      Log_Lines log;
      Memory_Reader reader(bad, 1 << 20);
      std::vector<Handed> handed;
      bool ok = read_image(reader, handed);
      ASSERT_TRUE(matches_disk(handed)) << "flip at " << at;
      if (codec == Compression::None) {
        ASSERT_FALSE(ok) << "flip at " << at;
      }
      if (!ok) {
        ASSERT_NE(log.text().find(std::string("image object '") + object_name + "' at offset "),
                  std::string::npos)
            << log.text();
      }
    }
  }

  // A flip in the data of the second record names the offset where that record starts.
  std::string image = write_image(ranges, Compression::None, 0);
  const std::size_t second =
      image_format::superblock_size + 4 + 8 + image_format::record_size + 200;
  image[second + image_format::record_size + 10] ^= 1;
  Log_Lines log;
  Memory_Reader reader(image, 1 << 20);
  std::vector<Handed> handed;
  EXPECT_FALSE(read_image(reader, handed));
  EXPECT_NE(log.text().find("Corrupt image object '" + std::string(object_name) + "' at offset " +
                            std::to_string(second) + ": data checksum mismatch"),
            std::string::npos)
      << log.text();
  EXPECT_FALSE(reader.stopped());
}

TEST(Image, TruncatedOrExtendedObjectIsAnError) {
  const Ranges ranges = {{0, 1000}, {60000, 5000}};
  std::string image = write_image(ranges, Compression::Zstd, 1);
  std::vector<std::size_t> boundaries;  // where each record starts
  for (std::size_t cut = 0; cut < image.size(); ++cut) {
    Log_Lines log;
    Memory_Reader reader(image.substr(0, cut), 4096, 13);
    std::vector<Handed> handed;
    ASSERT_FALSE(read_image(reader, handed)) << "cut at " << cut;
    ASSERT_TRUE(matches_disk(handed));
    ASSERT_NE(
        log.text().find("Truncated image object '" + std::string(object_name) + "' at offset "),
        std::string::npos)
        << log.text();
  }
  // A cut right before the end record names that offset.
  std::size_t end = image.size() - image_format::record_size;
  Log_Lines log;
  Memory_Reader cut(image.substr(0, end), 4096);
  std::vector<Handed> handed;
  EXPECT_FALSE(read_image(cut, handed));
  EXPECT_NE(log.text().find("at offset " + std::to_string(end) + ": a record header"),
            std::string::npos)
      << log.text();

  Memory_Reader longer(image + "x", 4096);
  EXPECT_FALSE(read_image(longer, handed));
  EXPECT_NE(
      log.text().find("at offset " + std::to_string(image.size()) + ": data after the end record"),
      std::string::npos)
      << log.text();
}

TEST(Image, ReadCallbackFailureEndsTheWrite) {
  Memory_Writer writer;
  ASSERT_TRUE(writer.init(65536, 512, 1, 0));
  ASSERT_TRUE(writer.write_superblock(set_id, image_id));
  ASSERT_TRUE(writer.add_block(0, 300000));
  std::vector<std::uint8_t> buffer(65536, 7);
  int calls = 0;
  std::uint64_t progress = 0;
  EXPECT_FALSE(writer.write_blocks(
      [&](std::uint64_t, std::size_t wanted, const void*& data) -> ssize_t {
        if (++calls == 3)
          return -1;
        data = buffer.data();
        return static_cast<ssize_t>(std::min(wanted, buffer.size()));
      },
      [&](std::uint64_t bytes) { progress += bytes; }));
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(progress, 2u * 65536);
  // What was written is no complete object.
  Memory_Reader reader(writer.bytes, 65536);
  std::vector<Handed> handed;
  EXPECT_FALSE(read_image(reader, handed));

  // Neither may a second call finish it.
  EXPECT_FALSE(writer.write_blocks(
      [&](std::uint64_t, std::size_t, const void*&) -> ssize_t { return -1; }, nullptr));
}

TEST(Image, BadReadAnswersAndSinkFailuresFail) {
  for (ssize_t answer : {ssize_t(0), ssize_t(70000)}) {
    Memory_Writer writer;
    ASSERT_TRUE(writer.init(65536, 512, 1, 0));
    ASSERT_TRUE(writer.write_superblock(set_id, image_id));
    ASSERT_TRUE(writer.add_block(0, 65536));
    std::vector<std::uint8_t> buffer(70000);
    Log_Lines log;
    EXPECT_FALSE(writer.write_blocks(
        [&](std::uint64_t, std::size_t, const void*& data) {
          data = buffer.data();
          return answer;
        },
        nullptr));
    EXPECT_NE(log.text().find("read " + std::to_string(answer) + " of 65536 bytes"),
              std::string::npos)
        << log.text();
  }

  Memory_Writer writer;
  ASSERT_TRUE(writer.init(65536, 512, 1, 0));
  ASSERT_TRUE(writer.write_superblock(set_id, image_id));
  ASSERT_TRUE(writer.add_block(0, 100));
  writer.fail_writes = true;
  std::uint8_t data[100] = {1};
  EXPECT_FALSE(writer.write_blocks(
      [&](std::uint64_t, std::size_t wanted, const void*& out) -> ssize_t {
        out = data;
        return static_cast<ssize_t>(wanted);
      },
      nullptr));
}

TEST(Image, WriterRefusesBadParametersAndOrder) {
  struct Case {
    std::uint32_t block, sector, version;
  };
  for (Case c : {Case{65536, 512, 2}, Case{65536, 256, 1}, Case{65537, 512, 1}, Case{256, 512, 1},
                 Case{32u << 20, 512, 1}}) {
    Memory_Writer writer;
    EXPECT_FALSE(writer.init(c.block, c.sector, c.version, 0)) << c.block << " " << c.sector;
  }
  Memory_Writer writer;
  EXPECT_FALSE(writer.write_superblock(set_id, image_id));  // before init
  ASSERT_TRUE(writer.init(4096, 4096, 1, 0));
  EXPECT_FALSE(writer.set_compression(Compression::Zlib, 10));
  EXPECT_FALSE(writer.set_compression(Compression::Zstd, -1));
  EXPECT_FALSE(writer.add_block(10, 0));
  EXPECT_FALSE(writer.add_block(std::numeric_limits<std::uint64_t>::max(), 2));
  EXPECT_FALSE(writer.write_blocks(nullptr, nullptr));  // before the superblock
  EXPECT_TRUE(writer.bytes.empty());
}

TEST(Image, CallbackStopsTheReader) {
  const Ranges ranges = {{0, 65536}, {100000, 65536}, {200000, 65536}};
  std::string image = write_image(ranges, Compression::Lz4, 1);
  Memory_Reader reader(image, 65536);
  int calls = 0;
  EXPECT_FALSE(
      reader.read_blocks([&](const void*, std::size_t, std::uint64_t) { return ++calls < 2; }));
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(reader.stopped());
}

TEST(Image, ReaderRefusesForeignObjects) {
  std::string image = write_image({{0, 10}}, Compression::None, 0);
  for (std::string bad : {std::string(100, 'h'), std::string(200, '\0'),
                          image.substr(0, 8) + std::string(100, 'x')}) {
    Log_Lines log;
    Memory_Reader reader(bad, 4096);
    std::vector<Handed> handed;
    EXPECT_FALSE(read_image(reader, handed));
    EXPECT_TRUE(handed.empty());
    EXPECT_NE(
        log.text().find("Corrupt image object '" + std::string(object_name) + "' at offset 0"),
        std::string::npos)
        << log.text();
  }
}

// Through a file:// pool: the writer takes the codec of the client's options, and the reader
// names the object by its pool path.
TEST(Image, BlockWriterAndReaderUseThePoolClient) {
  Temp_Dir dir;
  Client_IO_Base::Options opts;
  opts.compression_ = Compression::Zstd;
  opts.compression_level_ = 1;
  Client_IO_Ex io;
  ASSERT_TRUE(io.connect("file://" + dir.path(), opts)) << io.error();
  ASSERT_TRUE(io.open("/set/chunk0.img", Client_IO_Ex::Write)) << io.error();
  Image_Block_Writer writer(&io);
  ASSERT_TRUE(writer.init(65536, 512, 1, 0));
  ASSERT_TRUE(writer.write_superblock(set_id, set_id));
  ASSERT_TRUE(writer.add_block(50000, 150000));
  std::vector<std::uint8_t> buffer(150000);
  for (std::size_t i = 0; i < buffer.size(); ++i)
    buffer[i] = disk_byte(50000 + i);
  ASSERT_TRUE(writer.write_blocks(
      [&](std::uint64_t offset, std::size_t wanted, const void*& data) -> ssize_t {
        data = buffer.data() + (offset - 50000);
        return static_cast<ssize_t>(wanted);
      },
      nullptr));
  ASSERT_TRUE(io.close()) << io.error();
  EXPECT_EQ(io.storage_size(), writer.stored_bytes());
  EXPECT_LT(io.storage_size(), 150000u * 3 / 4);  // zstd shrank the text

  ASSERT_TRUE(io.open("/set/chunk0.img", Client_IO_Ex::Read)) << io.error();
  Image_Block_Reader reader(&io, 1 << 20);
  std::vector<Handed> handed;
  ASSERT_TRUE(reader.read_blocks([&](const void* data, std::size_t length, std::uint64_t offset) {
    handed.push_back({offset, std::string(static_cast<const char*>(data), length)});
    return true;
  }));
  EXPECT_TRUE(matches_disk(handed));
  EXPECT_EQ(covered(handed), (Ranges{{50000, 150000}}));
  EXPECT_EQ(0, std::memcmp(reader.superblock().image_id, set_id, 16));
  io.close();

  // A truncated object names the pool path.
  std::string bytes;
  ASSERT_TRUE(io.open("/set/chunk0.img", Client_IO_Ex::Read));
  char piece[4096];
  for (ssize_t n; (n = io.read(piece, sizeof piece)) > 0;)
    bytes.append(piece, static_cast<std::size_t>(n));
  io.close();
  ASSERT_TRUE(io.open("/set/short.img", Client_IO_Ex::Write));
  ASSERT_TRUE(io.write(bytes.data(), bytes.size() - 1));
  ASSERT_TRUE(io.close());
  ASSERT_TRUE(io.open("/set/short.img", Client_IO_Ex::Read));
  Log_Lines log;
  Image_Block_Reader short_reader(&io, 1 << 20);
  EXPECT_FALSE(
      short_reader.read_blocks([](const void*, std::size_t, std::uint64_t) { return true; }));
  EXPECT_NE(log.text().find("Truncated image object '/set/short.img' at offset " +
                            std::to_string(bytes.size() - image_format::record_size)),
            std::string::npos)
      << log.text();

  // A level out of the codec's range in the options fails init.
  opts.compression_level_ = 40;
  Client_IO_Ex bad;
  ASSERT_TRUE(bad.connect("file://" + dir.path(), opts));
  ASSERT_TRUE(bad.open("/set/bad.img", Client_IO_Ex::Write));
  Image_Block_Writer bad_writer(&bad);
  EXPECT_FALSE(bad_writer.init(65536, 512, 1, 0));
}

}  // namespace
