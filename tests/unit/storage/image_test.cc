#include "host/storage/image.h"

#include "host/storage/client_io.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

using Compression = Client_IO_Base::Compression;
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // offset, length

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

// Reads answer at most `max_read` bytes of the disk at once.
ssize_t read_disk(std::vector<std::uint8_t>& buffer, std::uint64_t offset, std::size_t wanted,
                  const void*& data) {
  std::size_t n = std::min(wanted, buffer.size());
  for (std::size_t i = 0; i < n; ++i)
    buffer[i] = disk_byte(offset + i);
  data = buffer.data();
  return static_cast<ssize_t>(n);
}

class Memory_Writer : public vxrt::Image_Writer {
 public:
  std::string bytes;
  bool fail_writes = false;

 protected:
  bool write_i(const void* data, std::size_t size) override {
    return !fail_writes && (bytes.append(static_cast<const char*>(data), size), true);
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

using Handed = std::vector<std::pair<std::uint64_t, std::string>>;  // disk offset, data

// Reads an image; every hand-over is kept.
bool read_image(Image_Reader& reader, Handed& handed) {
  return reader.read_blocks([&](const void* data, std::size_t length, std::uint64_t offset) {
    handed.emplace_back(offset, std::string(static_cast<const char*>(data), length));
    return true;
  });
}

// Whether every handed byte equals the disk's.
bool matches_disk(const Handed& handed) {
  for (const auto& h : handed)
    for (std::size_t i = 0; i < h.second.size(); ++i)
      if (static_cast<std::uint8_t>(h.second[i]) != disk_byte(h.first + i))
        return false;
  return true;
}

// The handed data as sorted ranges, merged where they touch.
Ranges covered(const Handed& handed) {
  Ranges all, merged;
  for (const auto& h : handed)
    all.emplace_back(h.first, h.second.size());
  std::sort(all.begin(), all.end());
  for (const auto& r : all)
    if (!merged.empty() && merged.back().first + merged.back().second == r.first)
      merged.back().second += r.second;
    else
      merged.push_back(r);
  return merged;
}

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
  EXPECT_TRUE(writer.write_blocks(
      [&](std::uint64_t offset, std::size_t wanted, const void*& data) {
        return read_disk(buffer, offset, wanted, data);
      },
      [&](std::uint64_t bytes) { sum += bytes; }));
  EXPECT_EQ(writer.stored_bytes(), writer.bytes.size());
  if (progress_sum)
    *progress_sum = sum;
  return writer.bytes;
}

TEST(Image, RoundTripsEveryCodecAndShape) {
  const Ranges mixed = {{0, 65536},        // one whole block of zeros and text
                        {65536, 3},        // touches the previous one
                        {70001, 511},      // odd offset and length
                        {200000, 300001},  // several blocks of every kind
                        {(1ull << 40) + 7, 1000}};
  const Ranges merged = {{0, 65539}, {70001, 511}, {200000, 300001}, {(1ull << 40) + 7, 1000}};
  const std::pair<Compression, int> codecs[] = {{Compression::None, 0},  {Compression::Lz4, 1},
                                                {Compression::Lz4, 9},   {Compression::Zstd, 1},
                                                {Compression::Zstd, 19}, {Compression::Zlib, 6}};
  for (const auto& [codec, level] : codecs) {
    for (std::size_t buffer : {std::size_t(4096), std::size_t(1 << 20)}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(codec)) + " level " + std::to_string(level) +
                   " buffer " + std::to_string(buffer));
      std::uint64_t progress = 0;
      std::string image = write_image(mixed, codec, level, 100000, &progress);
      EXPECT_EQ(progress, 65536u + 3 + 511 + 300001 + 1000);
      if (codec != Compression::None)
        EXPECT_LT(image.size(), progress * 3 / 4) << "text and zeros should shrink";
      Memory_Reader reader(image, buffer, 777);
      Handed handed;
      ASSERT_TRUE(read_image(reader, handed));
      EXPECT_TRUE(matches_disk(handed));
      EXPECT_EQ(covered(handed), merged);
      for (const auto& h : handed)
        EXPECT_LE(h.second.size(), buffer);
      EXPECT_EQ(reader.plain_bytes(), progress);
      const Image_Reader::Superblock& s = reader.superblock();
      EXPECT_EQ(std::make_tuple(s.block_size, s.sector_size, s.version, s.extra),
                std::make_tuple(65536u, 512u, 1u, std::string("meta")));
      EXPECT_EQ(0, std::memcmp(s.set_id, set_id, 16));
      EXPECT_EQ(0, std::memcmp(s.image_id, image_id, 16));

      Memory_Reader empty(write_image({}, codec, level), buffer);
      handed.clear();
      EXPECT_TRUE(read_image(empty, handed));
      EXPECT_TRUE(handed.empty());
      EXPECT_EQ(empty.blocks(), 0u);
    }
  }
}

TEST(Image, ZeroRunsTakeNoDataSpace) {
  // Offsets 0..49,999 of every 150,000 are zeros.
  Ranges ranges;
  for (std::uint64_t i = 0; i < 16; ++i)
    ranges.emplace_back(i * 150000, 40000);
  std::string image = write_image(ranges, Compression::None, 0);
  // Superblock with its extra data, one header per range and the end record: no data bytes.
  EXPECT_EQ(image.size(), image_format::superblock_size + 4 + 8 + 17 * image_format::record_size);
  Memory_Reader reader(image, 1 << 20);
  Handed handed;
  ASSERT_TRUE(read_image(reader, handed));
  EXPECT_TRUE(matches_disk(handed));
  EXPECT_EQ(covered(handed).size(), 16u);
  EXPECT_EQ(reader.plain_bytes(), 16u * 40000);
}

// Every byte of a plain image is covered by a checksum: a flip anywhere is found, and nothing of
// the record it lies in is handed over. A compressed image may still decode a flip to the same
// data; whatever it hands over must be right.
TEST(Image, FlippedByteIsFoundAndNamed) {
  const Ranges ranges = {{50100, 200}, {60000, 300}, {100, 200}, {120000, 500}};
  for (Compression codec :
       {Compression::None, Compression::Lz4, Compression::Zstd, Compression::Zlib}) {
    SCOPED_TRACE(static_cast<int>(codec));
    std::string image = write_image(ranges, codec, 0);
    for (std::size_t at = 0; at < image.size(); ++at) {
      std::string bad = image;
      bad[at] ^= 0x20;
      Log_Capture log;
      Memory_Reader reader(bad, 1 << 20);
      Handed handed;
      bool ok = read_image(reader, handed);
      ASSERT_TRUE(matches_disk(handed)) << "flip at " << at;
      ASSERT_TRUE(codec != Compression::None || !ok) << "flip at " << at;
      ASSERT_TRUE(ok || log.contains(std::string("image object '") + object_name + "' at offset "))
          << log.text();
    }
  }
  // A flip in the data of the second record names the offset where that record starts.
  std::string image = write_image(ranges, Compression::None, 0);
  const std::size_t second =
      image_format::superblock_size + 4 + 8 + image_format::record_size + 200;
  image[second + image_format::record_size + 10] ^= 1;
  Log_Capture log;
  Memory_Reader reader(image, 1 << 20);
  Handed handed;
  EXPECT_FALSE(read_image(reader, handed));
  EXPECT_TRUE(log.contains("Corrupt image object '" + std::string(object_name) + "' at offset " +
                           std::to_string(second) + ": data checksum mismatch"))
      << log.text();
  EXPECT_FALSE(reader.stopped());
}

TEST(Image, TruncatedExtendedOrForeignObjectIsAnError) {
  std::string image = write_image({{0, 1000}, {60000, 5000}}, Compression::Zstd, 1);
  for (std::size_t cut = 0; cut < image.size(); ++cut) {
    Log_Capture log;
    Memory_Reader reader(image.substr(0, cut), 4096, 13);
    Handed handed;
    ASSERT_FALSE(read_image(reader, handed)) << "cut at " << cut;
    ASSERT_TRUE(matches_disk(handed));
    ASSERT_TRUE(
        log.contains("Truncated image object '" + std::string(object_name) + "' at offset "))
        << log.text();
  }
  const std::size_t end = image.size() - image_format::record_size;
  const std::pair<std::string, std::string> cases[] = {
      {image.substr(0, end), "Truncated image object '" + std::string(object_name) +
                                 "' at offset " + std::to_string(end) + ": a record header"},
      {image + "x", "at offset " + std::to_string(image.size()) + ": data after the end record"},
      {std::string(100, 'h'),
       "Corrupt image object '" + std::string(object_name) + "' at offset 0"},
      {std::string(200, '\0'), "at offset 0: not an image object"},
      {image.substr(0, 8) + std::string(100, 'x'), "at offset 0: superblock checksum mismatch"},
  };
  for (const auto& [bytes, message] : cases) {
    Log_Capture log;
    Memory_Reader reader(bytes, 4096);
    Handed handed;
    EXPECT_FALSE(read_image(reader, handed));
    EXPECT_TRUE(log.contains(message)) << log.text();
    EXPECT_EQ(log.count(), 1u);
  }
}

// A read callback that fails or answers nonsense, or a sink that fails, ends the write as a
// failure: no complete object, and no second chance.
TEST(Image, WriteFailuresEndTheWrite) {
  const struct {
    int fail_call;  // the read call that answers `answer`
    ssize_t answer;
    bool sink_fails;
    const char* message;
  } cases[] = {{3, -1, false, ""},
               {1, 0, false, "read 0 of 300000 bytes"},
               {1, 300001, false, "read 300001 of 300000 bytes"},
               {0, 0, true, ""}};
  for (const auto& c : cases) {
    Memory_Writer writer;
    ASSERT_TRUE(writer.init(65536, 512, 1, 0));
    ASSERT_TRUE(writer.write_superblock(set_id, image_id));
    ASSERT_TRUE(writer.add_block(0, 300000));
    writer.fail_writes = c.sink_fails;
    std::vector<std::uint8_t> buffer(400000, 7);
    int calls = 0;
    std::uint64_t progress = 0;
    Log_Capture log;
    EXPECT_FALSE(writer.write_blocks(
        [&](std::uint64_t, std::size_t wanted, const void*& data) -> ssize_t {
          data = buffer.data();
          return ++calls == c.fail_call ? c.answer : std::min<ssize_t>(wanted, 65536);
        },
        [&](std::uint64_t bytes) { progress += bytes; }));
    EXPECT_EQ(log.count(), *c.message ? 1u : 0u);
    EXPECT_TRUE(log.contains(c.message)) << log.text();
    if (c.fail_call == 3)
      EXPECT_EQ(progress, 2u * 65536);
    Memory_Reader reader(writer.bytes, 65536);
    Handed handed;
    EXPECT_FALSE(read_image(reader, handed));
    EXPECT_FALSE(writer.write_blocks(nullptr, nullptr));
  }
}

TEST(Image, WriterRefusesBadParametersAndOrder) {
  for (auto [block, sector, version] : {std::make_tuple(65536u, 512u, 2u),
                                        {65536u, 256u, 1u},
                                        {65537u, 512u, 1u},
                                        {256u, 512u, 1u},
                                        {32u << 20, 512u, 1u}}) {
    Memory_Writer writer;
    EXPECT_FALSE(writer.init(block, sector, version, 0)) << block << " " << sector;
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
  Memory_Reader reader(
      write_image({{0, 65536}, {100000, 65536}, {200000, 65536}}, Compression::Lz4, 1), 65536);
  int calls = 0;
  EXPECT_FALSE(
      reader.read_blocks([&](const void*, std::size_t, std::uint64_t) { return ++calls < 2; }));
  EXPECT_EQ(calls, 2);
  EXPECT_TRUE(reader.stopped());
}

// Through a file:// pool the writer takes the codec of the client's options, and the reader names
// the object by its pool path.
TEST(Image, BlockWriterAndReaderUseThePoolClient) {
  Temp_Dir dir;
  Client_IO_Base::Options opts;
  opts.compression_ = Compression::Zstd;
  opts.compression_level_ = 1;
  Client_IO_Ex io;
  ASSERT_TRUE(io.connect("file://" + dir.path(), opts)) << io.error();
  ASSERT_TRUE(io.open("/set/chunk.img", Client_IO_Ex::Write)) << io.error();
  Image_Block_Writer writer(&io);
  std::vector<std::uint8_t> buffer(1 << 20);
  ASSERT_TRUE(writer.init(65536, 512, 1, 0) && writer.write_superblock(set_id, set_id) &&
              writer.add_block(50000, 150000) &&
              writer.write_blocks(
                  [&](std::uint64_t offset, std::size_t wanted, const void*& data) {
                    return read_disk(buffer, offset, wanted, data);
                  },
                  nullptr));
  ASSERT_TRUE(io.close()) << io.error();
  EXPECT_EQ(io.storage_size(), writer.stored_bytes());
  EXPECT_LT(io.storage_size(), 150000u * 3 / 4);  // zstd shrank the text

  // The same bytes but the last, as another object.
  std::string bytes(io.storage_size(), '\0');
  ASSERT_TRUE(io.open("/set/chunk.img", Client_IO_Ex::Read));
  ASSERT_EQ(io.read(&bytes[0], bytes.size()), static_cast<ssize_t>(bytes.size()));
  ASSERT_TRUE(io.open("/set/short.img", Client_IO_Ex::Write) &&
              io.write(bytes.data(), bytes.size() - 1) && io.close());
  for (const char* name : {"/set/chunk.img", "/set/short.img"}) {
    ASSERT_TRUE(io.open(name, Client_IO_Ex::Read));
    Image_Block_Reader reader(&io, 1 << 20);
    Handed handed;
    Log_Capture log;
    EXPECT_EQ(read_image(reader, handed), name[5] == 'c');
    EXPECT_TRUE(matches_disk(handed));
    if (name[5] == 'c')
      EXPECT_EQ(covered(handed), (Ranges{{50000, 150000}}));
    else
      EXPECT_TRUE(log.contains("Truncated image object '/set/short.img' at offset " +
                               std::to_string(bytes.size() - image_format::record_size)))
          << log.text();
  }
  // A level out of the codec's range in the options fails init.
  opts.compression_level_ = 40;
  ASSERT_TRUE(io.connect("file://" + dir.path(), opts) &&
              io.open("/set/bad.img", Client_IO_Ex::Write));
  EXPECT_FALSE(Image_Block_Writer(&io).init(65536, 512, 1, 0));
}

}  // namespace
