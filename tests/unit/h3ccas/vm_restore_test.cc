#include "h3ccas/servant/vm_restore.h"
#include "h3ccas/servant/cvd_loader.h"
#include "h3ccas/servant/exec_handler.h"
#include "host/storage/client_io.h"
#include "tests/unit/h3ccas/support.h"

#include <filesystem>
#include <fstream>
#include <functional>

namespace h3ccas {
namespace {
const S full = "11111111-1111-1111-1111-111111111111", inc = "22222222-2222-2222-2222-222222222222",
        disk1 = "/vms/a/disk1.qcow2", vm = " of CAS VM 'w' ";

// A CVM past its digest challenge: tasks that make object "42"; 500 for the requests in `broken`,
// "volume exists" for the volumes in `taken`. Changes go to `log` as "METHOD path[ volName]".
struct Fake_CVM : HTTP_Session {
  bool send(const HTTP_Request& req, const S* body, HTTP_Response& resp) override {
    resp.clear(), resp.set_status(200);
    const JSON_Value b = body ? json(*body) : JSON_Value::object();
    const S line = S(http_method_string(req.method())) + " " + req.path(),
            vol = b.value("volName", "");
    if (!req.headers().get("Authorization"))
      return resp.headers().put("WWW-Authenticate", R"(Digest realm="r", nonce="n")"),
             resp.set_status(401), true;
    resp.body() = lists.count(req.path())
                      ? lists[req.path()]
                      : R"({"msgId":"1","completed":"true","result":"0","targetId":"42"})";
    if (req.method() != HTTP_Method::GET)
      log += line + (vol.empty() ? "" : " " + vol) + "\n", bodies[line] = b;
    if (taken.count(vol) || broken.count(line))
      resp.set_status(500), resp.headers().put("Error-Code", taken.count(vol) ? "2005" : "9");
    return true;
  }
  const S& host() const override { return log; }
  std::uint16_t port() const override { return 1; }
  std::set<S> taken, broken;
  std::map<S, S> lists;  // answers to GET by path
  S log;
  std::map<S, JSON_Value> bodies;
};
struct Client : Test_Client {
  Client(std::shared_ptr<Fake_CVM> s) : Test_Client(make_cvm(1, "u", "p")), s(std::move(s)) {}
  std::shared_ptr<HTTP_Session> create_session() override { return s; }
  std::shared_ptr<Fake_CVM> s;
};

// VM "w" (id 7) of job "j1": a full set and an incremental one of its disk /vms/a/disk1.qcow2 in
// pool "p1" of the catalog, restored as "new" onto CVK "cvk1" (id 1), pool "pool2".
class Restore : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(loader_.init() && open_job_activity(act_, "j1", true) &&
                progress_.open("j1", "7", true, true, 0750));
    catalog_.route_prefix(HTTP_Method::GET, "/k4/r/", [&](Req q, Res r) {  // the view, pool p1
      r.json(q.path.find("/pool") == S::npos ? view_ : pool_);
    });
    ASSERT_TRUE(catalog_.start(HTTP_Server::Options()));
    reset();
  }
  void reset() {
    *cvm_ = Fake_CVM(), act_->state = Job_Activity::running;
    std::filesystem::remove_all(disks_), std::filesystem::create_directory(disks_);
    put("/f0", 0x11, {{0, 4096}, {65536, 512}}, image(1 << 20, false));
    put("/i0", 0x22, {{512, 512}, {131072, 512}}, image(1 << 20));
    Client_IO_Ex io;
    ASSERT_TRUE(io.connect("file://" + dir_.file("cvm"), {}) &&
                client_io_write_json(io, "c.json",
                                     json(R"({"basic":{"architecture":"x86_64","system":"0"},)"
                                          R"("cpu":{"maxCpuNum":"16"},"memory":{}})")));
    view_ = {set(full, full, {piece("/f0", 4608), piece("/c.json", 0, "")}),
             set(inc, full, {piece("/i0", 1024), piece("/x", 5, "/vms/gone")})};
  }
  // Object `path` of the set whose id bytes are all `id`: `blocks` of `disk`.
  void put(const S& path, std::uint8_t id, std::vector<Block> blocks, const S& disk) {
    Client_IO_Ex io;
    ASSERT_TRUE(io.connect("file://" + dir_.file("cvm"), {}) && io.open(path, 2));
    Image_Block_Writer w(&io);
    const std::vector<std::uint8_t> set(16, id);
    ASSERT_TRUE(w.init(65536, 512, 1, 0) && w.write_superblock(set.data(), set.data()) &&
                w.set_compression(Client_IO_Base::Compression::None, 0));
    for (const Block& b : blocks)
      ASSERT_TRUE(w.add_block(b.offset_, b.length_));
    auto read = [&](std::uint64_t at, std::size_t n, const void*& data) {
      return data = disk.data() + at, static_cast<ssize_t>(n);
    };
    ASSERT_TRUE(w.write_blocks(read, [](std::uint64_t) {}) && io.close());
  }
  static JSON_Value piece(const S& path, int size, const S& object = disk1) {
    return {{"object", object}, {"size", size}, {"path", path}};
  }
  static JSON_Value set(const S& uuid, const S& base, const JSON_Value& pieces) {
    VM_Disk d;
    d.path_ = disk1, d.format_ = "raw", d.total_bytes_ = 1 << 20, d.file_type_ = "block";
    JSON_Value s = json(R"({"uri":"cvm","storages":[{"pool_uuid":"p1"}],"source_size":1048576,)"
                        R"("vm_config_path":"/c.json","backup_type":"incremental"})");
    s["uuid"] = uuid, s["base"] = base, s["incarnation"] = full, s["pieces"] = pieces;
    s["vm_disks"] = JSON_Value::array({d.dump()});
    return uuid == base ? (s["backup_type"] = "full", s) : s;
  }
  VM_Restore_Params params() {
    VM_Restore_Params p;
    p.def_id_ = "j1", p.source_vm_id_ = "7", p.source_vm_name_ = "w", p.target_host_id_ = "1";
    p.target_host_name_ = "cvk1", p.target_vm_name_ = "new", p.catalog_uuid_ = inc;
    p.backupd_host_ = "127.0.0.1", p.backupd_port_ = catalog_.port();
    p.opts_.write_buffer_size_ = 1000;
    p.disks_ = {{disk1, "pool2", "/pool2", "dir", "", THIN}};
    p.nics_ = {{"3", "vs", "5", "pf"}};
    return p;
  }
  bool run(VM_Restore_Params p, JSON_Value& result) {
    return VM_Restore(std::move(p), std::make_unique<Client>(cvm_)).restore(result);
  }
  // The disk's first `size` bytes after the full set, or the whole chain; the bytes of a file.
  static S image(std::size_t size, bool chain = true) {
    S d(size, '\0');
    d.replace(0, 4096, S(4096, 'A')).replace(65536, 512, S(512, 'B'));
    return chain ? d.replace(512, 512, S(512, 'C')).replace(131072, 512, S(512, 'D')) : d;
  }
  S read(const S& name) {
    std::ifstream in(dir_.file(name));
    return {std::istreambuf_iterator<char>(in), {}};
  }
  Temp_Dir dir_;
  const S disks_ = dir_.file("disks");
  Scoped_Env root_{"BRIMLET_ROOT", dir_.path()}, sdk_{"CAS_CVD_SDK_PATH", S(CVD_STUB_PATH)},
      disks_env_{"CVD_STUB_DISKS", disks_}, journal_{"CVD_STUB_JOURNAL", std::nullopt};
  CVD_Loader loader_;
  Job_Activity_Handle act_;
  VM_Progress_Info_Handle progress_;
  HTTP_Server catalog_;
  JSON_Value view_, pool_ = {{"uuid", "p1"}, {"name", "one"}, {"url", "file://" + dir_.path()}};
  std::shared_ptr<Fake_CVM> cvm_ = std::make_shared<Fake_CVM>();
};

// The chain applied in order into a new volume whose first names are taken, then onto an existing
// block volume, which is left without a stale byte; a VM that does not start is still restored.
TEST_F(Restore, ChainIntoVolumes) {
  cvm_->taken = {"blk_disk1.qcow2", "blk_disk1.qcow2_0"};
  JSON_Value result;
  Log_Capture log;
  ASSERT_TRUE(run(params(), result)) << messages(log);
  const S vol = "\nPOST /cas/casrs/storage/volume blk_disk1.qcow2";
  EXPECT_EQ(cvm_->log, "POST /cas/casrs/vm/add" + vol + vol + "_0" + vol +
                           "_1\nPUT /cas/casrs/vm/addDevice\n");
  EXPECT_EQ(read("disks/blk_disk1.qcow2_1"), image(131072 + 512));
  EXPECT_EQ(
      result.dump() + std::to_string(act_->state),
      R"({"code":0,"set_size":5632,"source_size":2097152,"storage_size":6016,"vm_id":"42"}2)");
  EXPECT_EQ(cvm_->bodies["POST /cas/casrs/vm/add"].dump(),
            R"({"autoMigrate":"0","blkiotune":"300","cpuCores":"1","cpuShares":"512",)"
            R"("cpuSockets":"1","formatEnable":"1","hostId":"1","maxCpuSocket":"16",)"
            R"("memory":"1024","name":"new","network":[{"deviceModel":"virtio",)"
            R"("isKernelAccelerated":"1","profileId":"5","vsId":"3","vsName":"vs"}],)"
            R"("osBit":"x86_64","osVersion":"","storage":[{"device":"floppy","targetBus":)"
            R"("fdc"}],"system":"0","title":"new"})");
  reset();
  write_text_file(dir_.file("disks/lun1"), S(1 << 20, 'x'));
  auto p = params();
  p.disks_ = {{disk1, "lun", "/iscsi", "iscsi", "lun1", UNKNOWN}}, p.opts_.start_vm_ = true;
  // Never over a volume a VM uses.
  cvm_->lists["/cas/casrs/storage/volume"] =
      R"({"storageVolume":[{"name":"lun0","size":"1","users":"a"},)"
      R"({"name":"lun1","size":"1","users":"w"}]})";
  EXPECT_FALSE(run(p, result));
  EXPECT_TRUE(
      log.contains("Unable to restore disk '/vms/a/disk1.qcow2' of CAS VM 'new' onto "
                   "volume 'lun1' of pool 'lun', CAS VM 'w' uses it.\n"));
  EXPECT_EQ(read("disks/lun1") + cvm_->log,
            S(1 << 20, 'x') + "POST /cas/casrs/vm/add\nDELETE /cas/casrs/vm/delete/42\n");
  cvm_->lists["/cas/casrs/storage/volume"] =
      R"({"storageVolume":{"name":"lun1","size":"1","users":""}})";
  cvm_->log.clear();
  cvm_->broken = {"PUT /cas/casrs/vm/start/42"};
  ASSERT_TRUE(run(p, result)) << messages(log);
  EXPECT_EQ(read("disks/lun1"), image(1 << 20));
  EXPECT_EQ(cvm_->log,
            "POST /cas/casrs/vm/add\nPUT /cas/casrs/vm/addDevice\nPUT /cas/casrs/vm/start/42\n");
  EXPECT_TRUE(log.contains("Failed to start restored CAS VM 'new'.\n"));
}

// Each fault fails the restore with its one error line; once the VM exists, it and its volume go.
TEST_F(Restore, FaultsCleanUp) {
  const S all =
      "POST /cas/casrs/vm/add\nPOST /cas/casrs/storage/volume blk_disk1.qcow2\nPUT "
      "/cas/casrs/vm/addDevice\nDELETE /cas/casrs/vm/delete/42\nDELETE "
      "/cas/casrs/storage/volume/delete/1/pool2/blk_disk1.qcow2\n";
  const std::pair<S, std::function<void(VM_Restore_Params&)>> cases[] = {
      {"Failed to write data to CAS VM 'new'.\n",
       [](auto& p) { p.disks_[0].pool_path_ = "/unwritable"; }},
      {"Corrupt image object '/i0' at offset 72: data checksum mismatch.\n",
       [&](auto&) {
         std::fstream(dir_.file("cvm/i0"), std::ios::in | std::ios::out).seekp(200).put('c');
       }},
      {"Failed to open '/f0' on storage pool: Cannot open '" + dir_.file("cvm/f0"),
       [&](auto&) { std::filesystem::remove(dir_.file("cvm/f0")); }},
      {"Image object '/f0' was written for backup set " + S(32, '3') + ", not for set '" + full +
           "'.\n",
       [&](auto&) {
         put("/f0", 0x33, {{0, 512}}, image(1 << 20));
       }},
      {"Image object '/f0' holds 4608 bytes of disk data, not the 4000 of its set.\n",
       [&](auto&) { view_[0]["pieces"][0]["size"] = 4000; }},
      {"Backup set '" + inc + "' (incremental)" + vm + "does not continue the chain after set '" +
           full + "'.\n",
       [&](auto&) { view_[1]["base"] = inc; }},
      {"Backup chain" + vm + "does not start with a full set: set '" + inc + "' is incremental.\n",
       [&](auto&) { view_.erase(0); }},
      {"Backup chain" + vm + "ends with set '" + inc + "', not with set 'x'.\n",
       [](auto& p) { p.catalog_uuid_ = "x"; }},
  };
  for (const auto& [line, fault] : cases) {
    reset();
    auto p = params();
    fault(p);
    JSON_Value result;
    Log_Capture log;
    EXPECT_TRUE(!run(p, result) && log.count(LM_ERROR) == 1 && log.contains(line)) << messages(log);
    EXPECT_EQ(cvm_->log, line[0] == 'B' ? "" : all);  // the chain is checked before any change
    EXPECT_EQ(result["code"].dump() + std::to_string(act_->state), "13");
    // A damaged object is named in the result too.
    const S bad = result.value("bad_objects", JSON_Value::array()).dump();
    const bool damaged = line.find("object '/") != S::npos || line.find("open '/") != S::npos;
    EXPECT_EQ(bad.find(line.substr(0, line.find('\n'))) != S::npos, damaged) << bad;
    EXPECT_EQ(result.size(), damaged ? 2u : 1u);
  }
}

// A verification names every bad object and changes nothing; the servant runs it without libcvd.
TEST_F(Restore, Verify) {
  Scoped_Env journal("CVD_STUB_JOURNAL", dir_.file("journal")), sdk("CAS_CVD_SDK_PATH", "/none");
  JSON_Value params = this->params().dump(), result;
  params["action"] = "verify";
  auto chn = std::make_shared<Capture_Channel>();
  CVD_Loader loader;
  auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", params, 7);
  ASSERT_EQ(Exposed<Exec_Handler>(loader).handle_object_i(chn, req), 0);
  EXPECT_EQ(chn->sent.at(0)["result"].dump(),
            R"({"bad_objects":[],"code":0,"set_size":5632,"source_size":2097152,)"
            R"("storage_size":6016,"vm_id":"7"})");
  std::filesystem::remove(dir_.file("cvm/i0"));
  std::fstream(dir_.file("cvm/f0"), std::ios::in | std::ios::out).seekp(4000).put('c');
  Log_Capture log;
  EXPECT_FALSE(VM_Restore(this->params(), std::make_unique<Client>(cvm_)).verify(result));
  EXPECT_EQ(result["bad_objects"].dump(),
            R"([{"error":"Corrupt image object '/f0' at offset 72: data checksum mismatch.",)"
            R"("object":"/f0"},{"error":"Failed to open '/i0' on storage pool: Cannot open ')" +
                dir_.file("cvm/i0") + R"(': No such file or directory","object":"/i0"}])");
  EXPECT_EQ(result["code"].dump() + std::to_string(log.count(LM_ERROR) * 10 + act_->state), "123");
  EXPECT_EQ(cvm_->log + read("journal"), "");  // nothing on CAS, no cvd connection
}
}  // namespace
}  // namespace h3ccas
