#include "host/storage/client_io.h"

#include "host/storage/file_driver.h"
#include "host/storage/image.h"
#include "host/storage/pool_url.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <xxhash.h>

#include <dirent.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Compression = Client_IO_Base::Compression;
using Names = std::set<std::string>;

Names list_dir(const std::string& path) {
  Names names;
  if (DIR* d = opendir(path.c_str())) {
    while (dirent* e = readdir(d))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
        names.insert(e->d_name);
    closedir(d);
  }
  return names;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
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

  bool get(const std::string& path, std::string& data) {
    if (!io_.open(path, Client_IO_Ex::Read))
      return false;
    data.clear();
    char buffer[7];  // odd size: reads end in the middle of the data
    for (ssize_t n; (n = io_.read(buffer, sizeof buffer)) != 0; data.append(buffer, n))
      if (n < 0)
        return false;
    return io_.close();
  }

  Temp_Dir tmp_;
  std::string pool_;
  Client_IO_Base::Options opts_;
  Client_IO_Ex io_;
};

TEST_F(Client_IO_Test, ObjectsReadBackAndAbandonedWritesLeaveNothing) {
  std::string data, back;
  for (int i = 0; i < 1000; ++i)
    data += "block " + std::to_string(i) + "\n";
  ASSERT_TRUE(io_.open("/vm/disk_1", Client_IO_Ex::Write, 0, data.size())) << io_.error();
  ASSERT_TRUE(io_.write(data.data(), 100) && io_.write(data.data() + 100, data.size() - 100));
  ASSERT_TRUE(io_.close()) << io_.error();
  EXPECT_EQ(io_.storage_size(), data.size());
  ASSERT_TRUE(get("vm/disk_1", back)) << io_.error();
  EXPECT_EQ(back, data);
  EXPECT_EQ(io_.storage_size(), data.size());
  ASSERT_TRUE(put("vm/empty", "") && get("vm/empty", back));
  EXPECT_EQ(back, "");
  ASSERT_TRUE(io_.open("vm/disk_1", Client_IO_Ex::Read));
  EXPECT_FALSE(io_.write("x", 1));  // nor may an object open for writing be read
  ASSERT_TRUE(io_.open("vm/other", Client_IO_Ex::Write));
  EXPECT_EQ(io_.read(&back[0], 1), -1);
  {
    Client_IO_Ex writer;
    ASSERT_TRUE(writer.connect("file://" + pool_, opts_));
    ASSERT_TRUE(writer.open("vm/new", Client_IO_Ex::Write) && writer.write("partial", 7));
    ASSERT_TRUE(writer.open("vm/empty", Client_IO_Ex::Write));  // abandons vm/new
    ASSERT_TRUE(writer.write("half-written", 12));
  }  // destroyed without close: vm/empty must stay as it was
  // Removing the object being written abandons the write; so does connecting to another pool.
  ASSERT_TRUE(io_.open("vm/gone", Client_IO_Ex::Write) && io_.write("abc", 3));
  EXPECT_TRUE(io_.remove("/vm/gone")) << io_.error();
  EXPECT_FALSE(io_.is_open() || io_.close());
  ASSERT_TRUE(io_.open("vm/gone", Client_IO_Ex::Write));
  ASSERT_TRUE(io_.connect("file://" + tmp_.file("other"), opts_));
  EXPECT_EQ(list_dir(pool_ + "/vm"), (Names{"disk_1", "empty"}));
  EXPECT_EQ(read_file(pool_ + "/vm/empty"), "");
}

TEST_F(Client_IO_Test, WriterKilledBeforeCloseLeavesNoObject) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    Client_IO_Ex writer;
    std::string data(1 << 20, 'x');
    bool ok = writer.connect("file://" + pool_, opts_) &&
              writer.open("vm/disk", Client_IO_Ex::Write) && writer.write(data.data(), data.size());
    char c = ok ? '1' : '0';
    if (::write(ready[1], &c, 1) != 1)
      _exit(1);
    pause();
    _exit(0);
  }
  close(ready[1]);
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  close(ready[0]);
  EXPECT_EQ(c, '1');
  kill(pid, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  struct stat st;
  EXPECT_NE(lstat((pool_ + "/vm/disk").c_str(), &st), 0);
  std::string data;
  EXPECT_FALSE(get("/vm/disk", data));
}

TEST_F(Client_IO_Test, NamesAndLinksCannotLeadOutOfThePool) {
  for (const char* path : {"", "/", "..", "../x", "/../x", "a/../../x", "a/..", "./a", "a/./b",
                           "a//b", "//a", "a/", "/a/b/"}) {
    EXPECT_FALSE(io_.open(path, Client_IO_Ex::Write) || io_.open(path, Client_IO_Ex::Read) ||
                 io_.remove(path));
    EXPECT_EQ(io_.error(), "Invalid object name '" + std::string(path) + "'");
  }
  EXPECT_FALSE(io_.open(std::string("a\0b", 3), Client_IO_Ex::Write));
  EXPECT_EQ(list_dir(tmp_.path()), Names{});

  const std::string outside = tmp_.file("outside");
  ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
  write_text_file(outside + "/secret", "secret");
  ASSERT_TRUE(put("vm/x", "x"));
  ASSERT_EQ(symlink(outside.c_str(), (pool_ + "/link").c_str()), 0);
  ASSERT_EQ(symlink((outside + "/secret").c_str(), (pool_ + "/vm/file_link").c_str()), 0);
  std::string data;
  EXPECT_FALSE(put("link/new", "data"));
  EXPECT_EQ(io_.error(), "Cannot create '" + pool_ + "/link/new': folder '" + pool_ +
                             "/link' is not a folder inside the pool");
  EXPECT_FALSE(get("link/secret", data) || io_.remove("link/secret") || get("vm/file_link", data));
  // Writing over a link replaces the link, never what it points to.
  EXPECT_TRUE(put("vm/file_link", "mine"));
  EXPECT_EQ(list_dir(outside), Names{"secret"});
  EXPECT_EQ(read_file(outside + "/secret"), "secret");
}

TEST_F(Client_IO_Test, ErrorsNameTheObjectAndTheReason) {
  std::string data;
  EXPECT_FALSE(get("vm/missing", data));
  EXPECT_EQ(io_.error(), "Cannot open '" + pool_ + "/vm/missing': cannot open pool folder '" +
                             pool_ + "': " + strerror(ENOENT));
  ASSERT_TRUE(put("vm/file", "x"));
  EXPECT_FALSE(get("vm/missing", data));
  EXPECT_EQ(io_.error(), "Cannot open '" + pool_ + "/vm/missing': " + strerror(ENOENT));
  EXPECT_FALSE(get("vm", data));  // a folder is no object, and cannot be removed
  EXPECT_EQ(io_.error(), "Cannot open '" + pool_ + "/vm': not a regular file");
  EXPECT_FALSE(io_.remove("vm"));
  EXPECT_EQ(io_.error(), "Cannot remove '" + pool_ + "/vm': " + strerror(EISDIR));
  // Absent objects and folders count as removed.
  EXPECT_TRUE(io_.remove("/vm/file") && io_.remove("vm/file") && io_.remove("nowhere/a"));
  EXPECT_EQ(list_dir(pool_ + "/vm"), Names{});
  EXPECT_FALSE(io_.open("vm/x", 3));
  EXPECT_EQ(io_.error(), "Cannot open 'vm/x': invalid mode 3");
  EXPECT_FALSE(io_.open("vm/x", Client_IO_Ex::Write, 1));
  EXPECT_EQ(io_.error(), "Cannot open 'vm/x': invalid flags 1");
  Client_IO_Ex unconnected;
  EXPECT_FALSE(unconnected.open("vm/x", Client_IO_Ex::Read) || unconnected.remove("vm/x"));
  EXPECT_EQ(unconnected.error(), "Cannot remove 'vm/x': not connected to a storage pool");
}

// The backup server registers exactly the pools the client opens.
TEST(Pool_URL, ServerAndClientAgree) {
  const struct {
    const char* url;
    const char* kind;  // null: valid, and the reason is the folder
    const char* reason;
  } cases[] = {
      {"file:///srv/pool", nullptr, "/srv/pool"},
      {"file:///srv/my pool/b1", nullptr, "/srv/my pool/b1"},
      {"s3://bucket/prefix", "Unsupported", "s3:// pools are not supported yet"},
      {"nfs:///pool", "Unsupported", "expected file:///absolute/folder"},
      {"/abs/dir", "Invalid", "expected file:///absolute/folder"},
      {"file://host/dir", "Invalid", "the folder must be absolute, as in file:///srv/pool"},
      {"file:///", "Invalid", "the root folder cannot be a pool"},
      {"file:///a//b/", "Invalid", "empty folder name (a doubled or trailing '/')"},
      {"file:///a/./b", "Invalid", "'.' and '..' are not allowed in the folder"},
      {"file:///a/..", "Invalid", "'.' and '..' are not allowed in the folder"},
      {"file:///a\n", "Invalid", "control characters are not allowed"},
      {"file:///a ", "Invalid", "leading or trailing spaces are not allowed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    std::string folder, error;
    const bool valid = validate_pool_url(c.url, folder, error);
    EXPECT_EQ(valid, c.kind == nullptr);
    EXPECT_EQ(
        valid ? folder : error,
        valid ? c.reason : c.kind + std::string(" storage pool URL '") + c.url + "': " + c.reason);
    Client_IO_Ex io;
    EXPECT_EQ(io.connect(c.url, Client_IO_Base::Options()), valid);
    EXPECT_EQ(io.error(), error);
  }
}

TEST(Client_IO_Drivers, SchemesAndNames) {
  ASSERT_TRUE(Client_IO_Ex::register_driver(
      "wrapped", [](const std::string& url, const Client_IO_Base::Options& opts, std::string& e) {
        auto file = make_file_storage_driver("file" + url.substr(7), opts, e);
        return file ? std::make_unique<Storage_Driver_Wrapper>(std::move(file)) : nullptr;
      }));
  EXPECT_FALSE(Client_IO_Ex::register_driver("file", nullptr));
  Temp_Dir tmp;
  Client_IO_Ex io;
  ASSERT_TRUE(io.connect("wrapped://" + tmp.path(), Client_IO_Base::Options())) << io.error();
  ASSERT_TRUE(client_io_write_json(io, "/h/config.json", 5)) << io.error();
  EXPECT_EQ(list_dir(tmp.path() + "/h"), Names{"config.json"});
  EXPECT_FALSE(io.connect("wrapped:///", Client_IO_Base::Options()));
  EXPECT_EQ(io.error(), "Invalid storage pool URL 'file:///': the root folder cannot be a pool");

  std::string names;  // the values of the names, and their suffixes
  for (const char* name : {"zstd", "lz4", "zlib", "none", "ZSTD", "gzip"}) {
    int value = compression_name_to_value(name);
    names += std::to_string(value) + compression_value_to_suffix(value) + " ";
  }
  EXPECT_EQ(names, "1.zst 2.lz4 3.zlib 4 0 0 ");
  EXPECT_STREQ(compression_value_to_suffix(5), "");
}

// A stored document as its layout says: header, then the text as one block.
std::string stored_document(int codec, const std::string& block, const std::string& text,
                            int version = 1) {
  std::string doc = std::string("BRLJSON\0", 8) + char(version) + char(codec) + '\0' + '\0';
  auto put = [&](std::uint64_t v, int bytes) {
    for (; bytes-- > 0; v >>= 8)
      doc += char(v & 0xff);
  };
  put(text.size(), 4);
  put(XXH3_64bits(text.data(), text.size()), 8);
  return doc + block;
}

TEST_F(Client_IO_Test, JSONDocumentsNameTheirCodec) {
  const JSON_Value doc = {{"name", "vm-01"}, {"note", std::string(3000, 'a')}};
  const std::string text = doc.dump();
  std::string stored[5];
  for (int codec : {1, 2, 3, 4}) {
    SCOPED_TRACE(codec);
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
    Client_IO_Ex reader;  // needs no knowledge of the codec
    JSON_Value back;
    ASSERT_TRUE(reader.connect("file://" + pool_, Client_IO_Base::Options()));
    EXPECT_TRUE(client_io_read_json(reader, "h/doc", back) && back == doc) << reader.error();
    EXPECT_TRUE(client_io_read_json(reader, "h/number", back) && back == 80) << reader.error();
  }
  EXPECT_EQ(stored[4], stored_document(4, text, text));
  std::string large = stored[4];
  large[15] = 0x04;  // a length of 64 MiB and more
  const std::pair<std::string, std::string> cases[] = {
      {"", "not a stored JSON document"},
      {text, "not a stored JSON document"},  // JSON as such, without a header
      {stored_document(4, text, text, 2), "unsupported document version 2"},
      {stored_document(9, text, text), "unknown codec 9"},
      {large, "the document is larger than 64 MiB"},
      {stored[1].substr(0, stored[1].size() - 5), "damaged zstd data"},
      {stored[2].substr(0, stored[2].size() - 3), "damaged lz4 data"},
      {stored[3].substr(0, stored[3].size() / 2), "damaged zlib data"},
      {stored_document(4, text + " ", text), "damaged none data"},
      {stored_document(4, "[2]", "[1]"), "checksum mismatch"},
      {stored_document(4, "{", "{"), "not a valid JSON document"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.second);
    write_text_file(pool_ + "/bad", c.first);
    JSON_Value back = "untouched";
    EXPECT_FALSE(client_io_read_json(io_, "bad", back));
    EXPECT_EQ(io_.error(), "Cannot read 'bad': " + c.second);
    EXPECT_EQ(back, "untouched");
  }
  JSON_Value back;
  EXPECT_FALSE(client_io_read_json(io_, "missing", back));
  EXPECT_NE(io_.error().find(strerror(ENOENT)), std::string::npos) << io_.error();
}

// A fault injected at one step of writing an object, LevelDB style: the wrapped file driver works
// as usual except for that step.
enum class Step { None, Open, Write, Sync, Commit };
struct Fault {
  Step step;
  int nth;       // which write fails
  bool partial;  // half of that write reaches the disk first, as when it fills up
  const char* reason;
};

class Faulty_Object : public Storage_Object_Wrapper {
 public:
  Faulty_Object(std::unique_ptr<Storage_Object> target, const Fault& fault)
      : Storage_Object_Wrapper(std::move(target)), fault_(fault) {}
  bool write(const void* data, std::size_t length, std::string& error) override {
    if (fault_.step != Step::Write || ++writes_ != fault_.nth)
      return Storage_Object_Wrapper::write(data, length, error);
    if (fault_.partial && !Storage_Object_Wrapper::write(data, length / 2, error))
      return false;
    return error = fault_.reason, false;
  }
  bool sync(std::string& error) override {
    return !fails(Step::Sync, error) && Storage_Object_Wrapper::sync(error);
  }
  bool commit(std::string& error) override {
    return !fails(Step::Commit, error) && Storage_Object_Wrapper::commit(error);
  }

 private:
  bool fails(Step step, std::string& error) const {
    return fault_.step == step && (error = fault_.reason, true);
  }
  Fault fault_;
  int writes_ = 0;
};

class Faulty_Driver : public Storage_Driver_Wrapper {
 public:
  Faulty_Driver(std::unique_ptr<Storage_Driver> target, const Fault& fault)
      : Storage_Driver_Wrapper(std::move(target)), fault_(fault) {}
  std::unique_ptr<Storage_Object> open(const std::string& name, int mode,
                                       std::string& error) override {
    if (mode == Client_IO_Ex::Write && fault_.step == Step::Open)
      return error = fault_.reason, nullptr;
    auto object = Storage_Driver_Wrapper::open(name, mode, error);
    return object ? std::make_unique<Faulty_Object>(std::move(object), fault_) : nullptr;
  }

 private:
  Fault fault_;
};

// 2.5 MiB of noise, seeded by `version`: the image writer hands it over in four writes.
std::vector<std::uint8_t> disk_data(int version) {
  std::vector<std::uint8_t> data(5u << 19);
  std::uint64_t x = version * 0x9E3779B97F4A7C15ull;
  for (auto& b : data)
    b = static_cast<std::uint8_t>((x = x * 6364136223846793005ull + 1442695040888963407ull) >> 56);
  return data;
}

bool write_object(Client_IO_Ex& io, const std::string& name, bool image, int version) {
  if (!image)
    return client_io_write_json(io, name, {{"version", version}});
  const std::vector<std::uint8_t> data = disk_data(version);
  const std::uint8_t id[16] = {7};
  Image_Block_Writer writer(&io);
  return io.open(name, Client_IO_Ex::Write) && writer.init(65536, 512, 1, 0) &&
         writer.write_superblock(id, id) && writer.add_block(0, data.size()) &&
         writer.write_blocks(
             [&](std::uint64_t offset, std::size_t wanted, const void*& out) -> ssize_t {
               out = data.data() + offset;
               return static_cast<ssize_t>(std::min<std::size_t>(wanted, 1 << 20));
             },
             nullptr) &&
         io.close();
}

TEST_F(Client_IO_Test, FailureAtAnyStepOfAWriteLeavesNothingNew) {
  opts_.compression_ = Compression::None;
  ASSERT_TRUE(io_.connect("file://" + pool_, opts_));
  const Fault faults[] = {
      {Step::None, 0, false, ""},
      {Step::Open, 0, false, "Cannot create 'x': Permission denied"},
      {Step::Write, 1, false, "Cannot write 'x': Input/output error"},
      {Step::Write, 3, true, "Cannot write 'x': No space left on device"},  // images only
      {Step::Sync, 0, false, "Cannot flush 'x': Input/output error"},
      {Step::Commit, 0, false, "Cannot rename 'x': Read-only file system"},
  };
  for (bool image : {true, false}) {
    for (const Fault& fault : faults) {
      SCOPED_TRACE(std::string(image ? "image " : "document ") + fault.reason);
      ASSERT_TRUE(io_.remove("vm/new") && write_object(io_, "vm/old", image, 1)) << io_.error();
      const std::string old_bytes = read_file(pool_ + "/vm/old");
      std::string error;
      auto file = make_file_storage_driver("file://" + pool_, opts_, error);
      ASSERT_TRUE(file) << error;
      Client_IO_Ex io;
      ASSERT_TRUE(io.connect(std::make_unique<Faulty_Driver>(std::move(file), fault), "x", opts_));
      const bool fails = fault.step != Step::None && (image || fault.nth < 2);
      for (const char* name : {"vm/new", "vm/old"})
        EXPECT_EQ(write_object(io, name, image, 2), !fails) << name;
      EXPECT_FALSE(io.is_open());
      if (!fails) {  // as a plain write leaves it, and read back through the wrapper too
        ASSERT_TRUE(write_object(io_, "ref/x", image, 2));
        const std::string expected = read_file(pool_ + "/ref/x");
        for (const char* name : {"vm/new", "vm/old"}) {
          std::string raw(expected.size() + 1, '\0');
          ASSERT_TRUE(io.open(name, Client_IO_Ex::Read));
          raw.resize(std::max<ssize_t>(io.read(&raw[0], raw.size()), 0));
          EXPECT_TRUE(raw == expected && io.storage_size() == raw.size() && io.close()) << name;
        }
        continue;
      }
      EXPECT_EQ(io.error(), fault.reason);
      EXPECT_EQ(list_dir(pool_ + "/vm"), Names{"old"});  // no temporary either
      EXPECT_EQ(read_file(pool_ + "/vm/old"), old_bytes);
    }
  }
}

}  // namespace
