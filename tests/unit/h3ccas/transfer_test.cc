#include "h3ccas/servant/chunk_transfer.h"
#include "h3ccas/servant/cvd_loader.h"
#include "host/storage/file_driver.h"
#include "host/storage/image.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

#include <filesystem>

namespace h3ccas {
namespace {

using S = std::string;
using Chunk = Backup_Plan::Chunk;

// Pool "fault://<dir>": the file pool at <dir>, where writing objects named "*bad*" fails at the
// fault_write'th write (0: never) and their commit fails when fault_commit is set.
int fault_write = 0;
bool fault_commit = false;

struct Faulty_Object : Storage_Object_Wrapper {
  using Storage_Object_Wrapper::Storage_Object_Wrapper;
  bool write(const void* data, std::size_t length, S& error) override {
    return ++writes == fault_write ? (error = "injected write fault", false)
                                   : Storage_Object_Wrapper::write(data, length, error);
  }
  bool commit(S& error) override {
    return fault_commit ? (error = "injected commit fault", false)
                        : Storage_Object_Wrapper::commit(error);
  }
  int writes = 0;
};

struct Faulty_Driver : Storage_Driver_Wrapper {
  using Storage_Driver_Wrapper::Storage_Driver_Wrapper;
  std::unique_ptr<Storage_Object> open(const S& name, int mode, S& error) override {
    auto object = Storage_Driver_Wrapper::open(name, mode, error);
    bool faulty = object && mode == Client_IO_Ex::Write && name.find("bad") != S::npos;
    return faulty ? std::make_unique<Faulty_Object>(std::move(object)) : std::move(object);
  }
};

const bool fault_scheme = Client_IO_Ex::register_driver(
    "fault", [](const S& url, const Client_IO_Base::Options& opts, S& error) {
      auto file = make_file_storage_driver("file" + url.substr(5), opts, error);
      return file ? std::make_unique<Faulty_Driver>(std::move(file)) : nullptr;
    });

class Transfer : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fault_scheme && loader_.init());
    fault_write = 0, fault_commit = false;
    auto& p = t_.params_;
    p.pool_url_ = "fault://" + dir_.file("pool"), p.host_ip_ = "10.0.0.5", p.vm_name_ = "w";
    p.host_name_ = "cvk1", p.opts_.read_buffer_size_ = 12288, p.opts_.parallel_disks_per_vm_ = 2;
    p.catalog_ = json(R"({"name":"j","host_uuid":"h","agent":"a","instance_version":"7",
                          "pool_uuid":"p1"})");
    t_.timestamp_ = "20260101000000", t_.backup_type_ = Job_Definition_Subtype::Full;
    t_.vm_detail_.cpu_ = {{"cpuSockets", "1"}, {"cpuCores", "2"}};
    t_.vm_detail_.memory_ = {{"size", "1024"}};
    t_.chunks_ = {chunk("/vms/a", "/cvk1/w/good_0", {{0, 100000}, {200000, 5000}}),
                  chunk("/vms/b", "/cvk1/w/empty_0", {})};
    t_.progress_ = &progress_;
  }
  static std::shared_ptr<Chunk> chunk(const S& disk, const S& object, std::vector<Block> blocks) {
    auto c = std::make_shared<Chunk>();
    c->disk_path_ = disk, c->remote_path_ = object, c->blocks_ = std::move(blocks);
    for (const Block& b : c->blocks_)
      c->size_ += b.length_;
    return c;
  }
  // The object's blocks as "offset+length," with their bytes checked against the stub's letters.
  S read_back(const S& object) {
    Client_IO_Ex io;
    EXPECT_TRUE(io.connect("file://" + dir_.file("pool"), {}) && io.open(object, 1)) << io.error();
    Image_Block_Reader reader(&io, 1 << 20);
    S got;
    EXPECT_TRUE(reader.read_blocks([&](const void* data, std::size_t n, std::uint64_t off) {
      for (std::size_t i = 0; i < n; ++i)
        EXPECT_EQ(static_cast<const char*>(data)[i], char('a' + (off + i) % 26)) << off + i;
      return got += std::to_string(off) + "+" + std::to_string(n) + ",", true;
    }));
    sb_ = reader.superblock();
    return got;
  }
  JSON_Value catalog() {
    H3C_CAS_Backup_Set set;
    JSON_Value out;
    return t_.fill_catalog(set) ? (set.dump(out), out) : JSON_Value();
  }
  Temp_Dir dir_;
  Scoped_Env root_{"BRIMLET_ROOT", dir_.path()};
  Scoped_Env sdk_{"CAS_CVD_SDK_PATH", S(CVD_STUB_PATH)};
  Scoped_Env journal_{"CVD_STUB_JOURNAL", std::nullopt};
  CVD_Loader loader_;
  Backup_Transfer t_{VM_Backup_Params{}};
  VM_Progress_Info progress_{};
  Image_Reader::Superblock sb_;
};

TEST_F(Transfer, ChunksRoundTripIntoTheCatalog) {
  t_.set_size_ = 105000;
  ASSERT_TRUE(t_.transfer_chunks());
  EXPECT_EQ(read_back("/cvk1/w/empty_0"), "");
  EXPECT_EQ(read_back("/cvk1/w/good_0"), "0+100000,200000+5000,");
  const Image_Reader::Superblock& sb = sb_;
  EXPECT_EQ(sb.set_id[0], std::stoi(t_.bset_uuid_.substr(0, 2), nullptr, 16));
  EXPECT_EQ(sb.set_id[15], std::stoi(t_.bset_uuid_.substr(34), nullptr, 16));
  EXPECT_TRUE(std::equal(sb.set_id, sb.set_id + 16, sb.image_id) && sb.block_size == 65536);
  EXPECT_TRUE(progress_.processed_size == 105000 && progress_.total_size == 105000);
  JSON_Value out = catalog();
  EXPECT_EQ(out["pieces"].dump(),
            R"([{"object":"","path":"/cvk1/w/vm_config_20260101000000_full.json.zst","size":0},)"
            R"({"object":"/vms/a","path":"/cvk1/w/good_0","size":105000},)"
            R"({"object":"/vms/b","path":"/cvk1/w/empty_0","size":0}])");
  EXPECT_EQ(out["incarnation"].dump() + out["base"].dump(),
            '"' + t_.bset_uuid_ + "\"\"" + t_.bset_uuid_ + '"');
  EXPECT_EQ(out["storages"][0].dump(),
            R"({"extra":{"code_name":"reborn"},"pool_uuid":"p1","size":)" +
                std::to_string(t_.storage_size_) + "}");
  Client_IO_Ex io;
  JSON_Value config;
  ASSERT_TRUE(io.connect("file://" + dir_.file("pool"), {}) &&
              client_io_read_json(io, out["vm_config_path"], config));
  EXPECT_EQ(config, t_.vm_detail_.dump());
  // An incremental set continues its base's chain; a set without its job's keys is refused.
  t_.backup_type_ = Job_Definition_Subtype::Incremental;
  t_.last_bset_uuid_ = "b0", t_.last_bset_incarnation_ = "i0", t_.use_cbt_ = true;
  t_.snapshot_name_ = "Brimlet5-x";
  out = catalog();
  EXPECT_EQ(out["incarnation"].dump() + out["base"].dump() + out["cbt_name"].dump(),
            R"("i0""b0""Brimlet5-x")");
  t_.params_.catalog_.erase("agent");
  Log_Capture log;
  EXPECT_TRUE(catalog().is_null());
  EXPECT_EQ(messages(log), "Invalid CAS VM catalog: missing string 'agent'.\n");
}

// A chunk that fails leaves nothing in the pool and no piece in the set, which is not committed.
TEST_F(Transfer, FailedChunkLeavesNothing) {
  struct Case {
    int write;
    bool commit;
    S disk, error;
  } const cases[] = {
      {1, false, "/vms/c", "Failed to write image super block for CAS disk '/vms/c'.\n"},
      {3, false, "/vms/c", "Failed to write to storage pool: injected write fault.\n"},
      {0, true, "/vms/c",
       "Failed to close '/cvk1/w/bad_0' on storage pool: injected commit fault.\n"},
      {0, false, "/unreadable", "Failed to read data from CAS VM 'w' on CVK '10.0.0.5'.\n"},
  };
  for (const Case& c : cases) {
    SetUp();
    std::filesystem::remove_all(dir_.file("pool"));
    fault_write = c.write, fault_commit = c.commit;
    t_.chunks_.push_back(chunk(c.disk, "/cvk1/w/bad_0", {{0, 3 << 20}}));
    t_.params_.io_opts_.compression_ = Client_IO_Base::Compression::None;  // many writes
    Log_Capture log;
    EXPECT_FALSE(t_.transfer_chunks());
    EXPECT_EQ(log.count(LM_ERROR), 1u);
    EXPECT_TRUE(log.contains(c.error)) << messages(log);
    std::set<S> files;  // hidden ones included
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.file("pool")))
      files.insert(e.is_regular_file() ? e.path().filename() : "");
    EXPECT_EQ(files, (std::set<S>{"", "empty_0", "good_0"}));
    EXPECT_EQ(catalog()["pieces"].dump().find("bad_0"), S::npos);
    EXPECT_FALSE(t_.save_catalog());
    EXPECT_TRUE(log.contains("Backup of CAS VM 'w' is incomplete, 2 of 3 chunk(s) stored.\n"));
  }
}

}  // namespace
}  // namespace h3ccas
