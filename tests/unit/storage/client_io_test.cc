#include "host/storage/client_io.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Compression = Client_IO_Base::Compression;

std::set<std::string> list_dir(const std::string& path) {
  std::set<std::string> names;
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

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
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
    for (;;) {
      ssize_t n = io_.read(buffer, sizeof buffer);
      if (n < 0)
        return false;
      if (n == 0)
        return io_.close();
      data.append(buffer, static_cast<std::size_t>(n));
    }
  }

  Temp_Dir tmp_;
  std::string pool_;
  Client_IO_Base::Options opts_;
  Client_IO_Ex io_;
};

TEST_F(Client_IO_Test, WrittenObjectReadsBackWithItsSize) {
  std::string data;
  for (int i = 0; i < 1000; ++i)
    data += "block " + std::to_string(i) + "\n";
  ASSERT_TRUE(io_.open("/host/vm/disk_1", Client_IO_Ex::Write, 0, data.size())) << io_.error();
  ASSERT_TRUE(io_.write(data.data(), 100));
  ASSERT_TRUE(io_.write(data.data() + 100, data.size() - 100));
  ASSERT_TRUE(io_.close()) << io_.error();
  EXPECT_EQ(io_.storage_size(), data.size());
  // Only the object itself: no temporary left beside it.
  EXPECT_EQ(list_dir(pool_ + "/host/vm"), std::set<std::string>{"disk_1"});
  EXPECT_EQ(read_file(pool_ + "/host/vm/disk_1"), data);

  Client_IO_Ex reader;
  ASSERT_TRUE(reader.connect("file://" + pool_ + "/", opts_));
  ASSERT_TRUE(reader.open("host/vm/disk_1", Client_IO_Ex::Read)) << reader.error();
  EXPECT_EQ(reader.storage_size(), data.size());
  std::string back(data.size() + 10, '\0');
  EXPECT_EQ(reader.read(&back[0], back.size()), static_cast<ssize_t>(data.size()));
  back.resize(data.size());
  EXPECT_EQ(back, data);
  EXPECT_EQ(reader.read(&back[0], 1), 0);
  EXPECT_TRUE(reader.close());
  // Writing is refused on an object opened for reading, and the other way round.
  ASSERT_TRUE(reader.open("host/vm/disk_1", Client_IO_Ex::Read));
  EXPECT_FALSE(reader.write("x", 1));
  ASSERT_TRUE(io_.open("host/vm/other", Client_IO_Ex::Write));
  char c;
  EXPECT_EQ(io_.read(&c, 1), -1);
}

TEST_F(Client_IO_Test, NewWriteReplacesObjectAndEmptyObjectExists) {
  ASSERT_TRUE(put("a/obj", "the first version"));
  ASSERT_TRUE(put("a/obj", "second"));
  std::string data;
  ASSERT_TRUE(get("a/obj", data)) << io_.error();
  EXPECT_EQ(data, "second");
  EXPECT_EQ(io_.storage_size(), 6u);

  ASSERT_TRUE(put("a/empty", ""));
  ASSERT_TRUE(get("a/empty", data));
  EXPECT_EQ(data, "");
}

TEST_F(Client_IO_Test, AbandonedWriteLeavesNothing) {
  ASSERT_TRUE(put("vm/kept", "old"));
  {
    Client_IO_Ex writer;
    ASSERT_TRUE(writer.connect("file://" + pool_, opts_));
    ASSERT_TRUE(writer.open("vm/new", Client_IO_Ex::Write));
    ASSERT_TRUE(writer.write("partial", 7));
    ASSERT_TRUE(writer.open("vm/kept", Client_IO_Ex::Write));  // abandons vm/new
    ASSERT_TRUE(writer.write("half-written", 12));
  }  // destroyed without close: vm/kept must keep its old content
  EXPECT_EQ(list_dir(pool_ + "/vm"), std::set<std::string>{"kept"});
  EXPECT_EQ(read_file(pool_ + "/vm/kept"), "old");

  // Removing the object being written abandons the write.
  ASSERT_TRUE(io_.open("vm/gone", Client_IO_Ex::Write));
  ASSERT_TRUE(io_.write("abc", 3));
  EXPECT_TRUE(io_.remove("/vm/gone")) << io_.error();
  EXPECT_FALSE(io_.is_open());
  EXPECT_FALSE(io_.close());
  // So does connecting to another pool.
  ASSERT_TRUE(io_.open("vm/gone", Client_IO_Ex::Write));
  ASSERT_TRUE(io_.connect("file://" + tmp_.file("other"), opts_));
  EXPECT_EQ(list_dir(pool_ + "/vm"), std::set<std::string>{"kept"});
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

  EXPECT_FALSE(exists(pool_ + "/vm/disk"));
  std::string data;
  EXPECT_FALSE(get("vm/disk", data));
  EXPECT_FALSE(get("/vm/disk", data));
}

TEST_F(Client_IO_Test, NamesOutsideThePoolAreRefused) {
  for (const char* path : {"", "/", "..", "../x", "/../x", "a/../../x", "a/..", "./a", "a/./b",
                           "a//b", "//a", "a/", "/a/b/"}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(io_.open(path, Client_IO_Ex::Write));
    EXPECT_NE(io_.error().find("Invalid object name"), std::string::npos) << io_.error();
    EXPECT_FALSE(io_.open(path, Client_IO_Ex::Read));
    EXPECT_FALSE(io_.remove(path));
  }
  EXPECT_FALSE(io_.open(std::string("a\0b", 3), Client_IO_Ex::Write));
  EXPECT_EQ(list_dir(tmp_.path()), std::set<std::string>{});
}

TEST_F(Client_IO_Test, SymbolicLinksCannotLeadOutOfThePool) {
  const std::string outside = tmp_.file("outside");
  ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
  write_text_file(outside + "/secret", "secret");
  ASSERT_TRUE(put("vm/x", "x"));
  ASSERT_EQ(symlink(outside.c_str(), (pool_ + "/link").c_str()), 0);
  ASSERT_EQ(symlink((outside + "/secret").c_str(), (pool_ + "/vm/file_link").c_str()), 0);

  std::string data;
  EXPECT_FALSE(put("link/new", "data"));
  EXPECT_NE(io_.error().find("link"), std::string::npos) << io_.error();
  EXPECT_FALSE(get("link/secret", data));
  EXPECT_FALSE(io_.remove("link/secret"));
  EXPECT_FALSE(get("vm/file_link", data));
  // Writing over a link replaces the link, never what it points to.
  EXPECT_TRUE(put("vm/file_link", "mine"));
  EXPECT_EQ(list_dir(outside), std::set<std::string>{"secret"});
  EXPECT_EQ(read_file(outside + "/secret"), "secret");
}

TEST_F(Client_IO_Test, ErrorsNameTheObjectAndTheReason) {
  std::string data;
  EXPECT_FALSE(get("vm/missing", data));
  EXPECT_NE(io_.error().find(pool_ + "/vm/missing"), std::string::npos) << io_.error();
  EXPECT_NE(io_.error().find(strerror(ENOENT)), std::string::npos) << io_.error();

  ASSERT_TRUE(put("vm/file", "x"));
  EXPECT_FALSE(put("vm/file/child", "x"));  // a file stands where a folder is needed
  EXPECT_NE(io_.error().find(pool_ + "/vm/file"), std::string::npos) << io_.error();
  EXPECT_FALSE(get("vm", data));  // a folder is no object
  EXPECT_NE(io_.error().find(pool_ + "/vm"), std::string::npos) << io_.error();

  EXPECT_FALSE(io_.open("vm/x", 3));
  EXPECT_NE(io_.error().find("invalid mode"), std::string::npos) << io_.error();
  EXPECT_FALSE(io_.open("vm/x", Client_IO_Ex::Write, 1));
  EXPECT_NE(io_.error().find("invalid flags"), std::string::npos) << io_.error();

  Client_IO_Ex unconnected;
  EXPECT_FALSE(unconnected.open("vm/x", Client_IO_Ex::Read));
  EXPECT_NE(unconnected.error().find("not connected"), std::string::npos);
  EXPECT_FALSE(unconnected.remove("vm/x"));
}

TEST_F(Client_IO_Test, RemoveDeletesObjectsOnly) {
  ASSERT_TRUE(put("vm/a", "a"));
  ASSERT_TRUE(put("vm/b", "b"));
  EXPECT_TRUE(io_.remove("/vm/a")) << io_.error();
  EXPECT_EQ(list_dir(pool_ + "/vm"), std::set<std::string>{"b"});
  // Nothing under the name afterwards is what counts: absent objects and folders are fine.
  EXPECT_TRUE(io_.remove("vm/a")) << io_.error();
  EXPECT_TRUE(io_.remove("nowhere/a")) << io_.error();
  EXPECT_FALSE(io_.remove("vm"));
  EXPECT_NE(io_.error().find(pool_ + "/vm"), std::string::npos) << io_.error();
  EXPECT_TRUE(exists(pool_ + "/vm/b"));
}

TEST(Client_IO_Connect, UnusableURLsAreRefused) {
  Client_IO_Ex io;
  for (const char* url : {"s3://bucket/prefix", "nfs:///pool", "/abs/dir", "://x", "file://",
                          "file://relative/dir", "file:///", "file:///a/../b", "file:///a//b"}) {
    SCOPED_TRACE(url);
    EXPECT_FALSE(io.connect(url, Client_IO_Base::Options()));
    EXPECT_NE(io.error().find(url), std::string::npos) << io.error();
    EXPECT_FALSE(io.open("x", Client_IO_Ex::Write));
  }
}

// An object store kept in memory: shows that a driver of another scheme slots in.
class Memory_Driver : public Storage_Driver {
 public:
  using Store = std::map<std::string, std::string>;
  explicit Memory_Driver(Store* store) : store_(store) {}

  class Object : public Storage_Object {
   public:
    Object(Store* store, std::string name, std::string data, bool writing)
        : store_(store), name_(std::move(name)), data_(std::move(data)), writing_(writing) {}
    bool write(const void* data, std::size_t length, std::string&) override {
      data_.append(static_cast<const char*>(data), length);
      return true;
    }
    ssize_t read(void* buffer, std::size_t length, std::string&) override {
      std::size_t n = data_.copy(static_cast<char*>(buffer), length, pos_);
      pos_ += n;
      return static_cast<ssize_t>(n);
    }
    bool commit(std::string&) override {
      if (writing_)
        (*store_)[name_] = data_;
      return true;
    }
    std::uint64_t stored_size() const override { return data_.size(); }

   private:
    Store* store_;
    std::string name_;
    std::string data_;
    bool writing_;
    std::size_t pos_ = 0;
  };

  std::unique_ptr<Storage_Object> open(const std::string& name, int mode,
                                       std::string& error) override {
    if (mode == Client_IO_Ex::Write)
      return std::make_unique<Object>(store_, name, "", true);
    auto it = store_->find(name);
    if (it == store_->end()) {
      error = "no object '" + name + "'";
      return nullptr;
    }
    return std::make_unique<Object>(store_, name, it->second, false);
  }
  bool remove(const std::string& name, std::string&) override {
    store_->erase(name);
    return true;
  }

 private:
  Store* store_;
};

TEST(Client_IO_Drivers, DriverOfAnotherSchemeServesTheSameCalls) {
  static Memory_Driver::Store s_store;
  ASSERT_TRUE(Client_IO_Ex::register_driver(
      "mem", [](const std::string&, const Client_IO_Base::Options&, std::string&) {
        return std::make_unique<Memory_Driver>(&s_store);
      }));
  EXPECT_FALSE(Client_IO_Ex::register_driver("file", nullptr));

  Client_IO_Ex io;
  ASSERT_TRUE(io.connect("mem://pool", Client_IO_Base::Options())) << io.error();
  JSON_Value doc = {{"name", "vm1"}, {"disks", {1, 2, 3}}};
  ASSERT_TRUE(client_io_write_json(io, "/h/vm1/config.json", doc)) << io.error();
  EXPECT_EQ(s_store.count("h/vm1/config.json"), 1u);  // the leading '/' is not part of the name
  JSON_Value back;
  ASSERT_TRUE(client_io_read_json(io, "h/vm1/config.json", back)) << io.error();
  EXPECT_EQ(back, doc);
  ASSERT_TRUE(io.remove("h/vm1/config.json"));
  EXPECT_TRUE(s_store.empty());
}

TEST(Compression_Names, NamesValuesAndSuffixes) {
  const struct {
    const char* name;
    int value;
    const char* suffix;
  } cases[] = {{"none", 4, ""}, {"zstd", 1, ".zst"}, {"lz4", 2, ".lz4"}, {"zlib", 3, ".zlib"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(compression_name_to_value(c.name), c.value);
    EXPECT_STREQ(compression_value_to_suffix(c.value), c.suffix);
  }
  EXPECT_EQ(static_cast<int>(Compression::Lz4), compression_name_to_value("lz4"));
  for (const char* name : {"", "ZSTD", "gzip", "zstd "})
    EXPECT_EQ(compression_name_to_value(name), 0) << name;
  EXPECT_STREQ(compression_value_to_suffix(0), "");
  EXPECT_STREQ(compression_value_to_suffix(5), "");
}

TEST_F(Client_IO_Test, JSONDocumentsRoundTripWithEveryCompression) {
  JSON_Value doc = {{"name", "vm-01"},
                    {"memory", 4294967296ULL},
                    {"disks", JSON_Value::array({{{"path", "/vms/vm-01.qcow2"}}})},
                    {"note", std::string(5000, 'a')}};
  for (Compression method :
       {Compression::None, Compression::Zstd, Compression::Lz4, Compression::Zlib}) {
    SCOPED_TRACE(static_cast<int>(method));
    opts_.compression_ = method;
    opts_.compression_level_ = method == Compression::None ? 0 : 1;
    ASSERT_TRUE(io_.connect("file://" + pool_, opts_));
    const std::string path =
        std::string("/h/vm/config.json") + compression_value_to_suffix(static_cast<int>(method));
    ASSERT_TRUE(client_io_write_json(io_, path, doc)) << io_.error();
    const std::string stored = read_file(pool_ + path);
    if (method == Compression::None)
      EXPECT_EQ(JSON_Value::parse(stored), doc);
    else
      EXPECT_LT(stored.size(), 1000u);  // the long note compresses well

    // A reader needs no knowledge of the method.
    Client_IO_Ex reader;
    ASSERT_TRUE(reader.connect("file://" + pool_, Client_IO_Base::Options()));
    JSON_Value back;
    ASSERT_TRUE(client_io_read_json(reader, path, back)) << reader.error();
    EXPECT_EQ(back, doc);
  }
}

TEST_F(Client_IO_Test, DamagedJSONDocumentsAreRefused) {
  JSON_Value doc = {{"name", "vm-01"}, {"note", std::string(3000, 'b')}};
  opts_.compression_ = Compression::Zstd;
  ASSERT_TRUE(io_.connect("file://" + pool_, opts_));
  ASSERT_TRUE(client_io_write_json(io_, "cfg.zst", doc));
  std::string zstd = read_file(pool_ + "/cfg.zst");
  opts_.compression_ = Compression::Zlib;
  ASSERT_TRUE(io_.connect("file://" + pool_, opts_));
  ASSERT_TRUE(client_io_write_json(io_, "cfg.zlib", doc));
  std::string zlib = read_file(pool_ + "/cfg.zlib");
  opts_.compression_ = Compression::Lz4;
  ASSERT_TRUE(io_.connect("file://" + pool_, opts_));
  ASSERT_TRUE(client_io_write_json(io_, "cfg.lz4", doc));
  std::string lz4 = read_file(pool_ + "/cfg.lz4");

  std::string flipped = zstd;
  flipped[flipped.size() / 2] ^= 0x55;
  const std::map<std::string, std::string> damaged = {
      {"empty", ""},
      {"text", "{\"name\": \"vm-01\", "},
      {"trailing", "{} {}"},
      {"zstd_truncated", zstd.substr(0, zstd.size() - 5)},
      {"zstd_flipped", flipped},
      {"zlib_truncated", zlib.substr(0, zlib.size() / 2)},
      {"lz4_truncated", lz4.substr(0, lz4.size() - 3)},
  };
  for (const auto& d : damaged) {
    SCOPED_TRACE(d.first);
    write_text_file(pool_ + "/" + d.first, d.second);
    JSON_Value back = "untouched";
    EXPECT_FALSE(client_io_read_json(io_, d.first, back));
    EXPECT_NE(io_.error().find(d.first), std::string::npos) << io_.error();
    EXPECT_EQ(back, "untouched");
  }
  JSON_Value back;
  EXPECT_FALSE(client_io_read_json(io_, "missing", back));
  EXPECT_NE(io_.error().find(strerror(ENOENT)), std::string::npos) << io_.error();
}

}  // namespace
