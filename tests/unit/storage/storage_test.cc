#include "host/storage/client_io.h"
#include "host/storage/file_driver.h"
#include "host/storage/image.h"
#include "host/storage/pool_url.h"
#include "tests/support/faulty_storage.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {
using Compression = Client_IO_Base::Compression;
using Names = std::set<std::string>;
using Ranges = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // offset, length

const char object_name[] = "set/disk0_chunk1.img";
const std::uint8_t set_id[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
const std::uint8_t image_id[16] = {16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};

Names list_dir(const std::string& path) {
  Names names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(path, ec))
    names.insert(e.path().filename());
  return names;
}

std::string read_file(const std::string& path) {
  return {std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {}};
}

// The source disk, a function of the offset: 50,000-byte runs of zeros, text and noise in turn.
std::uint8_t disk_byte(std::uint64_t offset) {
  const std::uint64_t x = offset * 0x9E3779B97F4A7C15ull, kind = (offset / 50000) % 3;
  return kind == 0   ? 0
         : kind == 1 ? "the quick brown fox jumps over a lazy dog "[offset % 42]
                     : (x ^ (x >> 29)) >> 17;
}

// An image writer's read callback over the disk, answering at most buffer.size() bytes.
vxrt::Image_Writer::Read_Callback disk_reader(std::vector<std::uint8_t>& buffer) {
  return [&buffer](std::uint64_t offset, std::size_t wanted, const void*& data) {
    std::size_t n = std::min(wanted, buffer.size());
    for (std::size_t i = 0; i < n; ++i)
      buffer[i] = disk_byte(offset + i);
    data = buffer.data();
    return static_cast<ssize_t>(n);
  };
}

struct Memory_Writer : vxrt::Image_Writer {
  using vxrt::Image_Writer::Image_Writer;
  std::string bytes;
  bool write_i(const void* data, std::size_t size) override {
    return bytes.append(static_cast<const char*>(data), size), true;
  }
  std::string name_i() const override { return object_name; }
};

// Reads at most `max_read` bytes at once; counts what it hands over, which must be the disk's.
struct Memory_Reader : Image_Reader {
  Memory_Reader(std::string bytes, std::size_t buffer_size, std::size_t max_read = 1 << 30)
      : Image_Reader(buffer_size), bytes_(std::move(bytes)), max_read_(max_read) {}
  std::uint64_t handed = 0;
  std::size_t largest = 0;  // hand-over
  bool read() {
    return read_blocks([&](const void* data, std::size_t length, std::uint64_t at) {
      for (std::size_t i = 0; i < length; ++i)
        if (static_cast<const std::uint8_t*>(data)[i] != disk_byte(at + i))
          return ADD_FAILURE() << "wrong data handed at " << at + i, false;
      largest = std::max(largest, length);
      return handed += length, true;
    });
  }
  ssize_t read_i(void* data, std::size_t size) override {
    std::size_t n = bytes_.copy(static_cast<char*>(data), std::min(size, max_read_), at_);
    return at_ += n, static_cast<ssize_t>(n);
  }
  std::string name_i() const override { return object_name; }
  std::string bytes_;
  std::size_t max_read_, at_ = 0;
};

// An image of the disk's `ranges`; the read callback answers at most `max_read` bytes at once.
std::string write_image(const Ranges& ranges, Compression codec, int level,
                        std::size_t max_read = 1 << 20, std::uint64_t* progress = nullptr) {
  Memory_Writer writer;
  EXPECT_TRUE(writer.init(65536, 512, 1, 0) && writer.set_compression(codec, level) &&
              writer.write_superblock(set_id, image_id, "meta", 4));
  for (const auto& r : ranges)
    EXPECT_TRUE(writer.add_block(r.first, r.second));
  std::vector<std::uint8_t> buffer(max_read);
  std::uint64_t sum = 0;
  EXPECT_TRUE(writer.write_blocks(disk_reader(buffer), [&](std::uint64_t n) { sum += n; }));
  EXPECT_EQ(writer.stored_bytes(), writer.bytes.size());
  if (progress)
    *progress = sum;
  return writer.bytes;
}

TEST(Image, RoundTripsEveryCodecAndShape) {
  // A whole block of zeros and text, one touching it, odd offset and length, blocks of each kind.
  const Ranges mixed = {
      {0, 65536}, {65536, 3}, {70001, 511}, {200000, 300001}, {(1ull << 40) + 7, 1000}};
  for (auto [codec_number, level] :
       {std::make_pair(4, 0), {2, 1}, {2, 9}, {1, 1}, {1, 19}, {3, 6}}) {
    const Compression codec = static_cast<Compression>(codec_number);
    for (std::size_t buffer : {4096, 1 << 20}) {
      SCOPED_TRACE(testing::Message() << int(codec) << ' ' << level << ' ' << buffer);
      std::uint64_t progress = 0;
      std::string image = write_image(mixed, codec, level, 100000, &progress);
      EXPECT_EQ(progress, 65536u + 3 + 511 + 300001 + 1000);
      EXPECT_EQ(image.size() < progress * 3 / 4, codec != Compression::None);
      Memory_Reader reader(image, buffer, 777);
      ASSERT_TRUE(reader.read());
      EXPECT_TRUE(reader.handed == progress && reader.plain_bytes() == progress);
      EXPECT_LE(reader.largest, buffer);
      const Image_Reader::Superblock& s = reader.superblock();
      EXPECT_EQ(std::make_tuple(s.block_size, s.sector_size, s.version, s.extra),
                std::make_tuple(65536u, 512u, 1u, std::string("meta")));
      EXPECT_TRUE(!memcmp(s.set_id, set_id, 16) && !memcmp(s.image_id, image_id, 16));
      // All-zero data is stored as headers only; an empty image is superblock and end record.
      const std::string zeros = write_image({{0, 40000}, {150000, 50000}}, codec, level);
      EXPECT_EQ(zeros.size(), image_format::superblock_size + 12 + 3 * image_format::record_size);
      Memory_Reader empty(write_image({}, codec, level), buffer);
      EXPECT_TRUE(empty.read() && empty.handed == 0 && empty.blocks() == 0);
    }
  }
  // Records larger than the reader's reads of 1 MiB.
  Memory_Writer big;
  std::vector<std::uint8_t> buffer(3 << 20);
  ASSERT_TRUE(big.init(4 << 20, 512, 1, 0) && big.write_superblock(set_id, image_id) &&
              big.add_block(5, 3 << 20) && big.write_blocks(disk_reader(buffer), nullptr));
  Memory_Reader large(big.bytes, 1 << 20);
  EXPECT_TRUE(large.read() && large.handed == 3u << 20);
}

// A flip in a plain image is found, none of its record handed over; a compressed one may decode
// it alike but hands over only right data. Cut, extended or foreign objects are refused.
TEST(Image, DamageIsFoundAndNamed) {
  const std::string name = std::string("image object '") + object_name + "' at offset ";
  const Ranges ranges = {{50100, 200}, {60000, 300}, {100, 200}, {120000, 500}};
  for (int codec = 1; codec <= 4; ++codec) {
    std::string image = write_image(ranges, static_cast<Compression>(codec), 0);
    for (std::size_t at = 0; at < image.size(); ++at) {
      std::string bad = image;
      bad[at] ^= 0x20;
      Log_Capture log;
      const bool ok = Memory_Reader(bad, 1 << 20).read();
      ASSERT_TRUE(codec != 4 || !ok) << "flip at " << at;
      ASSERT_TRUE(ok || log.contains(name)) << log.text();
    }
  }
  // A flip in the second record names the offset where that record starts.
  std::string image = write_image(ranges, Compression::None, 0);
  const std::size_t second = image_format::superblock_size + 12 + image_format::record_size + 200;
  image[second + image_format::record_size + 10] ^= 1;
  Log_Capture log;
  Memory_Reader reader(image, 1 << 20);
  EXPECT_FALSE(reader.read() || reader.stopped());
  EXPECT_TRUE(log.contains("Corrupt " + name + std::to_string(second) + ": data checksum mismatch"))
      << log.text();
  image[second + 2] ^= 1;  // its header is checked first
  EXPECT_FALSE(Memory_Reader(image, 1 << 20).read());
  EXPECT_TRUE(log.contains(name + std::to_string(second) + ": record header checksum mismatch"));
  image = write_image({{0, 1000}, {60000, 5000}}, Compression::Zstd, 1);
  for (std::size_t cut = 0; cut < image.size(); ++cut) {
    Log_Capture log;
    ASSERT_FALSE(Memory_Reader(image.substr(0, cut), 4096, 13).read()) << "cut at " << cut;
    ASSERT_TRUE(log.contains("Truncated " + name)) << log.text();
  }
  const std::size_t end = image.size() - image_format::record_size;
  const std::pair<std::string, std::string> cases[] = {
      {image.substr(0, end), "Truncated " + name + std::to_string(end) + ": a record header"},
      {image + "x", name + std::to_string(image.size()) + ": data after the end record"},
      {std::string(200, '\0'), "Corrupt " + name + "0: not an image object"},
      {image.substr(0, 8) + std::string(100, 'x'), name + "0: superblock checksum mismatch"},
  };
  for (const auto& [bytes, message] : cases) {
    Log_Capture log;
    EXPECT_FALSE(Memory_Reader(bytes, 4096).read());
    EXPECT_TRUE(log.contains(message) && log.count() == 1) << log.text();
  }
}

// A read callback that fails or answers nonsense, bad parameters, calls out of order, a stop: fail.
TEST(Image, FailuresAndBadCallsEndTheWork) {
  for (auto [call, answer, message] : {std::make_tuple(3, ssize_t(-1), ""),
                                       {1, 0, "read 0 of 300000 bytes"},
                                       {1, 300001, "read 300001 of 300000 bytes"}}) {
    Memory_Writer writer;
    ASSERT_TRUE(writer.init(65536, 512, 1, 0) && writer.write_superblock(set_id, image_id) &&
                writer.add_block(0, 300000));
    std::vector<std::uint8_t> buffer(400000, 7);
    int calls = 0;
    std::uint64_t progress = 0;
    Log_Capture log;
    EXPECT_FALSE(writer.write_blocks(
        [&, call = call, answer = answer](std::uint64_t, std::size_t wanted, const void*& data) {
          data = buffer.data();
          return ++calls == call ? answer : std::min<ssize_t>(wanted, 65536);
        },
        [&](std::uint64_t bytes) { progress += bytes; }));
    EXPECT_TRUE(log.count() == (*message ? 1u : 0u) && log.contains(message)) << log.text();
    EXPECT_EQ(progress, call == 3 ? 2u * 65536 : 0u);
    EXPECT_FALSE(Memory_Reader(writer.bytes, 65536).read() ||
                 writer.write_blocks(nullptr, nullptr));
  }
  const std::uint32_t bad[][3] = {
      {65536, 512, 2}, {65536, 256, 1}, {65537, 512, 1}, {256, 512, 1}, {32u << 20, 512, 1}};
  for (const auto& b : bad)
    EXPECT_FALSE(Memory_Writer().init(b[0], b[1], b[2], 0)) << b[0] << " " << b[1];
  EXPECT_FALSE(Memory_Writer(Compression::Zstd, 40).init(65536, 512, 1, 0));
  Memory_Writer writer;
  EXPECT_FALSE(writer.write_superblock(set_id, image_id));  // before init
  ASSERT_TRUE(writer.init(4096, 4096, 1, 0));
  EXPECT_FALSE(writer.set_compression(Compression::Zlib, 10) ||
               writer.set_compression(Compression::Zstd, -1) || writer.add_block(10, 0) ||
               writer.add_block(~0ull, 2) ||
               writer.write_blocks(nullptr, nullptr));  // before the superblock
  EXPECT_TRUE(writer.bytes.empty());
  Memory_Reader reader(write_image({{0, 65536}, {100000, 65536}}, Compression::Lz4, 1), 65536);
  int calls = 0;
  EXPECT_FALSE(
      reader.read_blocks([&](const void*, std::size_t, std::uint64_t) { return ++calls < 2; }));
  EXPECT_TRUE(calls == 2 && reader.stopped());
}

class Client_IO_Test : public testing::Test {
 protected:
  void SetUp() override {
    pool_ = tmp_.file("pool");
    ASSERT_TRUE(io_.connect("file://" + pool_, opts_)) << io_.error();
  }
  bool put(const std::string& path, const std::string& data) {
    return io_.open(path, Client_IO_Ex::Write) && io_.write(data.data(), data.size()) &&
           io_.close();
  }
  bool get(const std::string& path, std::string& data) { return get(io_, path, data); }
  static bool get(Client_IO_Ex& io, const std::string& path, std::string& data) {
    data.clear();
    if (!io.open(path, Client_IO_Ex::Read))
      return false;
    char buffer[4099];  // odd size: reads end in the middle of the data
    for (ssize_t n; (n = io.read(buffer, sizeof buffer)) != 0; data.append(buffer, n))
      if (n < 0)
        return false;
    return io.close();
  }
  Temp_Dir tmp_;
  std::string pool_;
  Client_IO_Base::Options opts_;
  Client_IO_Ex io_;
};

// A killed writer leaves no object; the next write into its folder sweeps its hidden temporary,
// and only it: a live writer's and another host's stay.
TEST_F(Client_IO_Test, WriterKilledBeforeCloseLeavesNoObject) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    std::string data(1 << 20, 'x');
    Client_IO_Ex writer;
    char ok = writer.connect("file://" + pool_, opts_) &&
              writer.open("vm/disk", Client_IO_Ex::Write) && writer.write(data.data(), data.size());
    if (::write(ready[1], &ok, 1) == 1)
      pause();
    _exit(1);
  }
  char ok = 0;
  const bool told = pid > 0 && close(ready[1]) == 0 && ::read(ready[0], &ok, 1) == 1;
  const Names left = list_dir(pool_ + "/vm");
  Client_IO_Ex live;  // still writing when the next write sweeps
  ASSERT_TRUE(live.connect("file://" + pool_, opts_) && live.open("vm/live", Client_IO_Ex::Write));
  int status = 0;
  ASSERT_TRUE(pid > 0 && kill(pid, SIGKILL) == 0 && waitpid(pid, &status, 0) == pid);
  ASSERT_TRUE(told && ok && WIFSIGNALED(status) && close(ready[0]) == 0 && left.size() == 1);
  EXPECT_FALSE(io_.open("/vm/disk", Client_IO_Ex::Read));
  EXPECT_EQ(io_.error(), "Cannot open '" + pool_ + "/vm/disk': " + strerror(ENOENT));
  std::ofstream(pool_ + "/vm/.disk.partial.elsewhere." + std::to_string(pid) + ".0") << "x";
  Names kept = list_dir(pool_ + "/vm");
  ASSERT_EQ(kept.size(), 3u);
  ASSERT_TRUE(put("vm/next", "y"));
  kept.erase(*left.begin());
  kept.insert("next");
  EXPECT_EQ(list_dir(pool_ + "/vm"), kept);
}

TEST_F(Client_IO_Test, ErrorsNameTheObjectAndNothingLeadsOutOfThePool) {
  const std::string none = strerror(ENOENT);
  std::string data;
  EXPECT_FALSE(get("vm/a", data));
  EXPECT_EQ(io_.error(),
            "Cannot open '" + pool_ + "/vm/a': cannot open pool folder '" + pool_ + "': " + none);
  EXPECT_FALSE(!put("vm/file", "x") || get("vm/a", data));
  EXPECT_EQ(io_.error(), "Cannot open '" + pool_ + "/vm/a': " + none);
  EXPECT_FALSE(get("vm", data));  // a folder is no object, and cannot be removed
  EXPECT_EQ(io_.error(), "Cannot open '" + pool_ + "/vm': not a regular file");
  EXPECT_FALSE(io_.remove("vm"));
  EXPECT_EQ(io_.error(), "Cannot remove '" + pool_ + "/vm': " + strerror(EISDIR));
  // Absent objects and folders count as removed.
  EXPECT_TRUE(io_.remove("/vm/file") && io_.remove("vm/file") && io_.remove("nowhere/a"));
  EXPECT_EQ(list_dir(pool_ + "/vm"), Names{});
  EXPECT_FALSE(io_.open("vm/x", 3) || io_.open("vm/x", Client_IO_Ex::Write, 1));
  EXPECT_EQ(io_.error(), "Cannot open 'vm/x': invalid flags 1");
  EXPECT_FALSE(Client_IO_Ex().open("vm/x", Client_IO_Ex::Read));
  for (const char* path : {"", "/", "..", "../x", "/../x", "a/../../x", "a/..", "./a", "a/./b",
                           "a//b", "//a", "a/", "/a/b/"}) {
    EXPECT_FALSE(io_.open(path, Client_IO_Ex::Write) || io_.open(path, Client_IO_Ex::Read) ||
                 io_.remove(path));
    EXPECT_EQ(io_.error(), "Invalid object name '" + std::string(path) + "'");
  }
  EXPECT_FALSE(io_.open(std::string("a\0b", 3), Client_IO_Ex::Write));
  const std::string outside = tmp_.file("outside");
  std::filesystem::create_directory(outside);
  write_text_file(outside + "/secret", "secret");
  ASSERT_TRUE(put("vm/x", "x"));
  std::filesystem::create_directory_symlink(outside, pool_ + "/link");
  std::filesystem::create_symlink(outside + "/secret", pool_ + "/vm/file_link");
  EXPECT_FALSE(put("link/new", "data"));
  EXPECT_EQ(io_.error(), "Cannot create '" + pool_ + "/link/new': folder '" + pool_ +
                             "/link' is not a folder inside the pool");
  EXPECT_FALSE(get("link/secret", data) || io_.remove("link/secret") || get("vm/file_link", data));
  // Writing over a link replaces the link, never what it points to.
  EXPECT_TRUE(put("vm/file_link", "mine"));
  EXPECT_EQ(list_dir(outside), Names{"secret"});
  EXPECT_EQ(read_file(outside + "/secret"), "secret");
}

// The backup server registers exactly the pools the client opens ('@': " storage pool URL...").
TEST(Pool_URL, ServerAndClientAgree) {
  const std::pair<std::string, std::string> cases[] = {
      {"file:///srv/pool", "/srv/pool"},
      {"s3://bucket/prefix", "Unsupported@s3:// pools are not supported yet"},
      {"nfs:///pool", "Unsupported@expected file:///absolute/folder"},
      {"/abs/dir", "Invalid@expected file:///absolute/folder"},
      {"file://h/d", "Invalid@the folder must be absolute, as in file:///srv/pool"},
      {"file:///", "Invalid@the root folder cannot be a pool"},
      {"file:///a//b/", "Invalid@empty folder name (a doubled or trailing '/')"},
      {"file:///a/./b", "Invalid@'.' and '..' are not allowed in the folder"},
      {"file:///a/..", "Invalid@'.' and '..' are not allowed in the folder"},
      {"file:///a\n", "Invalid@control characters are not allowed"},
      {"file:///a ", "Invalid@leading or trailing spaces are not allowed"},
  };
  EXPECT_FALSE(Client_IO_Ex::register_driver("file", nullptr));  // taken
  for (auto [url, expected] : cases) {
    std::string folder, error;
    const bool valid = validate_pool_url(url, folder, error);
    if (!valid)
      expected.replace(expected.find('@'), 1, " storage pool URL '" + url + "': ");
    EXPECT_EQ(valid ? folder : error, expected);
    Client_IO_Ex io;
    EXPECT_EQ(io.connect(url, Client_IO_Base::Options()), valid) << url;
    EXPECT_EQ(io.error(), error);
  }
}

// A stored document as its layout says: header, then the text as one block.
std::string stored_document(int codec, const std::string& block, const std::string& text,
                            int version = 1) {
  std::string doc = std::string("BRLJSON\0", 8) + char(version) + char(codec) + '\0' + '\0';
  for (auto [v, bytes] :
       {std::make_pair(text.size(), 4), {XXH3_64bits(text.data(), text.size()), 8}})
    for (; bytes-- > 0; v >>= 8)
      doc += char(v & 0xff);
  return doc + block;
}

TEST_F(Client_IO_Test, ObjectsAndJSONDocumentsReadBack) {
  std::string data(10000, 'd'), back;
  ASSERT_TRUE(put("/vm/disk_1", data)) << io_.error();
  EXPECT_EQ(io_.storage_size(), data.size());
  ASSERT_TRUE(put("vm/empty", "") && get("vm/disk_1", back)) << io_.error();
  EXPECT_TRUE(back == data && io_.storage_size() == data.size());
  EXPECT_TRUE(get("vm/empty", back) && back.empty());
  EXPECT_FALSE(!io_.open("vm/disk_1", Client_IO_Ex::Read) || io_.write("x", 1) ||
               !io_.open("vm/other", Client_IO_Ex::Write) || io_.read(&back[0], 1) != -1);
  // Removing the object being written abandons the write.
  ASSERT_TRUE(io_.open("vm/gone", Client_IO_Ex::Write) && io_.write("abc", 3));
  EXPECT_FALSE(!io_.remove("/vm/gone") || io_.is_open() || io_.close());
  EXPECT_EQ(io_.error(), "Cannot close 'vm/gone': not open");
  EXPECT_EQ(list_dir(pool_ + "/vm"), (Names{"disk_1", "empty"}));
  const JSON_Value doc = {{"name", "vm-01"}, {"note", std::string(3000, 'a')}};
  const std::string text = doc.dump();
  std::string stored[5];
  for (int codec : {1, 2, 3, 4}) {
    opts_.compression_ = static_cast<Compression>(codec);
    opts_.compression_level_ = codec == 4 ? 7 : 1;  // "none" ignores any level
    ASSERT_TRUE(io_.connect("file://" + pool_, opts_) && client_io_write_json(io_, "/h/doc", doc) &&
                client_io_write_json(io_, "/h/number", 80))
        << io_.error();
    stored[codec] = read_file(pool_ + "/h/doc");
    EXPECT_EQ(stored[codec].substr(0, 10), std::string("BRLJSON\0\1", 9) + char(codec));
    EXPECT_EQ(stored[codec].size() < 1000, codec != 4);
    // Too short to shrink, so stored plain whatever the codec; as plain text it looked like zlib.
    EXPECT_EQ(read_file(pool_ + "/h/number"), stored_document(4, "80", "80"));
    JSON_Value back;
    EXPECT_TRUE(client_io_read_json(io_, "h/doc", back) && back == doc) << io_.error();
    EXPECT_TRUE(client_io_read_json(io_, "h/number", back) && back == 80) << io_.error();
  }
  EXPECT_EQ(stored[4], stored_document(4, text, text));
  EXPECT_EQ(compression_value_to_suffix(compression_name_to_value("lz4")), std::string(".lz4"));
  const std::pair<std::string, std::string> cases[] = {
      {"", "not a stored JSON document"},
      {text, "not a stored JSON document"},  // JSON as such, without a header
      {stored_document(4, text, text, 2), "unsupported document version 2"},
      {stored_document(9, text, text), "unknown codec 9"},
      {stored[4].replace(15, 1, "\x04"), "the document is larger than 64 MiB"},  // length
      {stored[1].substr(0, stored[1].size() - 5), "damaged zstd data"},
      {stored[2].substr(0, stored[2].size() - 3), "damaged lz4 data"},
      {stored[3].substr(0, stored[3].size() / 2), "damaged zlib data"},
      {stored_document(4, text + " ", text), "damaged none data"},
      {stored_document(4, "[2]", "[1]"), "checksum mismatch"},
      {stored_document(4, "{", "{"), "not a valid JSON document"},
  };
  for (const auto& c : cases) {
    write_text_file(pool_ + "/bad", c.first);
    JSON_Value back = "untouched";
    EXPECT_FALSE(client_io_read_json(io_, "bad", back));
    EXPECT_EQ(io_.error(), "Cannot read 'bad': " + c.second);
    EXPECT_EQ(back, "untouched");
  }
}

// An image of 3 MiB of the disk from an offset set by `version` (3+ writes), or a JSON document.
bool write_object(Client_IO_Ex& io, const std::string& name, bool image, int version) {
  if (!image)
    return client_io_write_json(io, name, {{"version", version}});
  std::vector<std::uint8_t> buffer(1 << 20);
  Image_Block_Writer writer(&io);
  return io.open(name, Client_IO_Ex::Write) && writer.init(65536, 512, 1, 0) &&
         writer.write_superblock(set_id, image_id) && writer.add_block(version * 100000, 3 << 20) &&
         writer.write_blocks(disk_reader(buffer), nullptr) && io.close();
}

// A write failing at any step leaves nothing new (no temporary either) and an older object as it
// was; without a fault the wrapper changes nothing.
TEST_F(Client_IO_Test, FailureAtAnyStepOfAWriteLeavesNothingNew) {
  opts_.compression_ = Compression::None;
  ASSERT_TRUE(io_.connect("file://" + pool_, opts_));
  for (bool image : {true, false}) {
    for (std::string fault : {"", "open", "write 1", "full 2", "sync", "commit"}) {
      SCOPED_TRACE((image ? "image, " : "document, ") + fault);
      ASSERT_TRUE(io_.remove("vm/new") && write_object(io_, "vm/old", image, 1)) << io_.error();
      const std::string old_bytes = read_file(pool_ + "/vm/old");
      const bool fails = !fault.empty() && (image || fault != "full 2");
      std::string error;
      Client_IO_Ex io;
      ASSERT_TRUE(io.connect(std::make_unique<Faulty_Driver>(
                                 make_file_storage_driver("file://" + pool_, opts_, error), fault),
                             "x", opts_));
      for (const char* name : {"vm/new", "vm/old"})
        EXPECT_EQ(write_object(io, name, image, fails ? 2 : 1), !fails) << name;
      EXPECT_FALSE(io.is_open() || (fails && io.close()));  // closing keeps the reason
      EXPECT_EQ(io.error(), fails ? Faulty_Driver::reason(fault) : "");
      EXPECT_EQ(list_dir(pool_ + "/vm"), fails ? Names{"old"} : (Names{"new", "old"}));
      std::string back;  // read back through the wrapper
      EXPECT_TRUE(get(io, "vm/old", back) && back == old_bytes);
      EXPECT_EQ(get(io, "vm/new", back) ? back : "none", fails ? "none" : old_bytes);
      Image_Block_Reader reader(&io, 1 << 20);  // an image reads through the client too
      EXPECT_TRUE(!image || (io.open("vm/old", Client_IO_Ex::Read) &&
                             reader.read_blocks([](auto...) { return true; }) &&
                             reader.plain_bytes() == 3u << 20));
    }
  }
}
}  // namespace
