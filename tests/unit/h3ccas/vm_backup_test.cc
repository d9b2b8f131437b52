#include "h3ccas/servant/vm_backup.h"
#include "h3ccas/servant/cvd_loader.h"
#include "h3ccas/servant/exec_handler.h"
#include "host/core/text.h"
#include "host/http/server.h"
#include "host/storage/file_driver.h"
#include "host/storage/image.h"
#include "tests/support/faulty_storage.h"
#include "tests/unit/h3ccas/support.h"

#include <filesystem>
#include <regex>

namespace h3ccas {
namespace {
using P = Digest_Peer;
using Chunk = Backup_Plan::Chunk;
const S snap = "/cas/casrs/vm/snapshot/7", ok = R"({"errorCode":"0"})",
        name = "Brimlet5_full_20261124000000";

S text(const std::vector<Block>& blocks) {  // "offset+length,..."
  S out;
  for (const Block& b : blocks)
    out += (out.empty() ? "" : ",") + std::to_string(b.offset_) + "+" + std::to_string(b.length_);
  return out;
}
// What was logged, without the client's "Getting ..." progress lines.
S said(const Log_Capture& log) {
  static const std::regex progress("^Getting .*\n", std::regex::multiline);
  return std::regex_replace(messages(log), progress, "");
}

TEST(SplitBlocks, Table) {
  // blocks, alignment, chunks wanted, the chunks as "blocks=size|..."
  const std::tuple<std::vector<Block>, std::uint64_t, int, S> cases[] = {
      {{{0, 1000}, {4096, 3000}}, 512, 2, "0+1000,4096+1048=2048|5144+1952=1952"},
      {{{0, 1000}, {4096, 3000}}, 512, 1, "0+1000,4096+3000=4000"},
      {{}, 512, 4, "=0"},
      {{{0, 1000}}, 512, 3, "0+512=512|512+488=488"},  // 333 rounds up to 512
      {{{0, 1024}}, 1024, 4, "0+1024=1024"},           // the blocks run out first
      {{{0, 3}}, 512, 4, "0+3=3"},                     // less than a byte per chunk
      {{{0, 100}, {200, 100}}, 1, 2, "0+100=100|200+100=100"},
  };
  for (const auto& [blocks, align, n, chunks] : cases) {
    std::uint64_t total = 7, sum = 7;
    S got;
    for (const auto& chunk : split_blocks(blocks, align, n, total)) {
      got += (got.empty() ? "" : "|") + text(chunk.first) + "=" + std::to_string(chunk.second);
      sum += chunk.second;
    }
    EXPECT_EQ(std::tuple(got, total), std::tuple(chunks, sum));
  }
}

// Pool "fault://<dir>": the file pool at <dir>, where writing objects named "*bad*" breaks at the
// step `fault` names.
S fault;
const bool fault_scheme = Client_IO_Ex::register_driver(
    "fault", [](const S& url, const Client_IO_Base::Options& opts, S& error) {
      auto file = make_file_storage_driver("file" + url.substr(5), opts, error);
      return file ? std::make_unique<Faulty_Driver>(std::move(file), fault, "bad") : nullptr;
    });

// Each look at a stopping VM runs `on_pause` instead of waiting.
struct Test_Backup : VM_Backup {
  using VM_Backup::VM_Backup;
  void pause(unsigned) override { on_pause(); }
  std::function<void()> on_pause = [] {};
};

// VM "w" (id 7, one qcow2 disk /img/a) on CVK "cvk1" (id 1) of job "j1" into a file pool; the
// CVM's answers succeed. The catalog takes the set and answers base views with view_.
class Flow : public Cas_Peer {
 protected:
  void SetUp() override {
    Cas_Peer::SetUp();
    ASSERT_TRUE(loader_.init() && open_job_activity(act_, "j1", true));
    ASSERT_TRUE(progress_.open("j1", "7", true, true, 0750));
    ASSERT_TRUE(Job_Activity::set_text(act_->run_id, "run1"));
    catalog_.route(HTTP_Method::POST, "/k4/r/catalog/h3ccas", [&](Req req, Res resp) {
      committed_ = json(req.body), resp.json(JSON_Value::object());
    });
    catalog_.route(HTTP_Method::GET, "/k4/r/catalog/h3ccas/view/base_catalog",
                   [&](Req req, Res resp) {
                     asked_ = *req.headers.get("X-Access-Key");
                     for (const auto& item : req.query)
                       asked_ += " " + item.first + "=" + item.second;
                     resp.json(json(view_));
                   });
    ASSERT_TRUE(fault_scheme && catalog_.start(HTTP_Server::Options()));
    reset();
  }
  // Default answers, nothing committed, requests counted from now.
  void reset() {
    committed_ = nullptr, from_ = peer_.seen().accepted.size();
    tree(R"({"name":"user1","snapshotMode":"1"})");
    detail("running", "qcow2");
    peer_.set("GET /cas/casrs/vm/7/capabilities",
              P::json(R"({"supportSnapshot":"true","supportCbt":"true"})"));
    pools("500");
    peer_.set("GET /cas/casrs/vm/disk/dataBlock",
              P::json(R"({"dataBlockInfo":[{"offset":"0","length":"70000"}]})"));
    for (S path :
         {"DELETE " + snap + "/Brimlet5_x", "DELETE " + snap + "/" + name,
          S("POST /cas/casrs/vm/snapshot"), S("PUT /cas/casrs/vm/stop/7"),
          S("POST /cas/casrs/vm/disk/changedBlockTracker"),
          S("DELETE /cas/casrs/vm/disk/changedBlockTracker"), S("PUT /cas/casrs/vm/start/7")})
      peer_.set(path, P::json(ok));
  }
  void pools(const S& free) {
    const S img = R"({"name":"img","type":"dir","path":"/img","totalSize":"1000","status":"1",)",
            ceph = R"({"name":"ceph","type":"rbd","path":"ceph","totalSize":"1","status":"1",)";
    peer_.set("GET /cas/casrs/storage/pool",
              P::json(R"({"storagePool":[)" + img + R"("freeSize":")" + free + "\"}," + ceph +
                      R"("freeSize":"1"}]})"));
  }
  void tree(const S& root) { peer_.set("GET " + snap, P::json(R"({"snapshot":)" + root + "}")); }
  void detail(const S& status, const S& format) {
    JSON_Value d = json(R"({"basic":{},"cpu":{"cpuSockets":"1","cpuCores":"1"},"memory":{}})");
    d["status"] = status, d["memory"]["size"] = "1024",
    d["storage"] = disk("/img/a", "file", "1", "1"), d["storage"]["format"] = format;
    peer_.set("GET /cas/casrs/vm/detail/7", P::json(d.dump()));
  }
  std::unique_ptr<Test_Backup> backup() {
    VM_Backup_Params p;
    p.cvm_ = cvm(), p.def_id_ = "j1", p.host_id_ = "1", p.host_name_ = "cvk1";
    p.host_ip_ = "10.0.0.5", p.vm_id_ = "7", p.vm_name_ = "w", p.resource_uuid_ = "r";
    p.pool_url_ = "file://" + dir_.file("pool"), p.backup_type_ = Job_Definition_Subtype::Full;
    p.backupd_host_ = "127.0.0.1", p.backupd_port_ = catalog_.port();
    p.opts_.storage_reserved_bytes_ = 0, p.opts_.storage_reserved_percent_ = 0;
    p.opts_.read_buffer_size_ = 65536;
    p.catalog_ = json(R"({"name":"j","host_uuid":"h","agent":"a","instance_version":"7",
                          "pool_uuid":"p1"})");
    auto b = std::make_unique<Test_Backup>(std::move(p), std::make_unique<Test_Client>(cvm()));
    b->timestamp_ = "20261124000000";
    return b;
  }
  // A run past its checks: snapshot "snap", base CBTer "c", for planning the disks.
  std::unique_ptr<Test_Backup> plan(Job_Definition_Subtype type = Job_Definition_Subtype::Full) {
    auto p = backup();
    p->backup_type_ = p->params_.backup_type_ = type, p->params_.access_key_ = "key";
    p->timestamp_ = "20261124", p->snapshot_name_ = "snap", p->last_cbt_ = "c";
    p->use_internal_snapshot_ = p->use_cbt_ = true;
    return p;
  }
  static JSON_Value disk(const S& path, const S& type, const S& mib, const S& alloc_mib) {
    return {{"device", "disk"}, {"deviceName", "vda"},     {"fileType", type},
            {"path", path},     {"format", "raw"},         {"targetBus", "virtio"},
            {"size", mib},      {"allocation", alloc_mib}, {"cacheType", "none"},
            {"mode", "1"}};
  }
  // Two chunks of disks /vms/a and /vms/b (empty) into pool "fault://<dir>/pool".
  std::unique_ptr<Test_Backup> transfer() {
    fault.clear();
    auto t = backup();
    auto& p = t->params_;
    p.pool_url_ = "fault://" + dir_.file("pool");
    p.opts_.read_buffer_size_ = 12288, p.opts_.parallel_disks_per_vm_ = 2;
    t->vm_detail_.cpu_ = {{"cpuSockets", "1"}, {"cpuCores", "2"}};
    t->vm_detail_.memory_ = {{"size", "1024"}};
    t->chunks_ = {chunk("/vms/a", "/cvk1/w/good_0", {{0, 100000}, {200000, 5000}}),
                  chunk("/vms/b", "/cvk1/w/empty_0", {})};
    t->progress_ = &info_;
    return t;
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
  static JSON_Value catalog(Backup_Transfer& t) {
    H3C_CAS_Backup_Set set;
    JSON_Value out;
    return t.fill_catalog(set) ? (set.dump(out), out) : JSON_Value();
  }
  // The run's answer and the CVM requests that changed something, "METHOD path" each.
  S run(Test_Backup& b, Log_Capture& log, bool expect) {
    JSON_Value result;
    EXPECT_EQ(b.backup(result), expect) << messages(log);
    EXPECT_EQ(progress_->state, expect ? 2 : 3);
    EXPECT_EQ(std::tuple(result["code"], result["vm_id"]), std::tuple(expect ? 0 : 1, "7"));
    S changes;
    const auto seen = peer_.seen().accepted;
    for (auto r = seen.begin() + from_; r != seen.end(); ++r)
      if (r->method != "GET")
        changes += r->method + " " + r->target.substr(0, r->target.find('?')) + "\n";
    return changes;
  }
  Temp_Dir dir_;
  Scoped_Env root_{"BRIMLET_ROOT", dir_.path()};
  Scoped_Env sdk_{"CAS_CVD_SDK_PATH", S(CVD_STUB_PATH)};
  Scoped_Env journal_{"CVD_STUB_JOURNAL", std::nullopt};
  CVD_Loader loader_;
  Job_Activity_Handle act_;
  VM_Progress_Info_Handle progress_;
  HTTP_Server catalog_;
  JSON_Value committed_;
  std::size_t from_ = 0;
  S view_, asked_;
  VM_Progress_Info info_{};
  Image_Reader::Superblock sb_;
};

// Whole runs: a residual "Brimlet5" snapshot goes first, the run's snapshot goes on every exit
// (none is deleted when none was made), a local raw disk is copied with the VM stopped and started
// again.
TEST_F(Flow, Runs) {
  const S old = "DELETE " + snap + "/Brimlet5_old\n", mine = "DELETE " + snap + "/" + name + "\n",
          create = "POST /cas/casrs/vm/snapshot\n",
          cbt = " /cas/casrs/vm/disk/changedBlockTracker\n",
          residual = R"({"name":"Brimlet5_old","snapshotMode":"1","snapshots":{"snapshot":[{)"
                     R"("name":"user1","snapshotMode":"1","snapshots":{"snapshot":{"name":)"
                     R"("Brimlet5_x","snapshotMode":"1"}}}]}})";
  // Faults: 1: creating the snapshot fails, 2: deleting the residual one, 3: no restart, 4: an
  // incremental run skipped for want of CBT, 5: with CBT after base "c0", 6: 5 and 1, 7: with CBT
  // after base "Brimlet5_x", whose snapshot stayed; the dead run's CBTer "Brimlet5_old" goes
  const std::tuple<S, S, int, bool, S, S> cases[] = {
      {residual, "qcow2", 0, true, old + "DELETE " + snap + "/Brimlet5_x\n" + create + mine,
       "Snapshot 'Brimlet5_x' deleted.\n"},
      {"", "qcow2", 1, false, create, "Failed to create snapshot for CAS VM 'w'.\n"},
      {residual, "qcow2", 2, false, old, "Failed to delete snapshot 'Brimlet5_old'.\n"},
      {"", "raw", 3, false, "", "The disk format of CAS VM 'w' does NOT support online backup.\n"},
      {"", "raw", 4, true, "",
       "CAS VM 'w' does NOT support CBT, incremetnal backup skip for it.\n"},
      {"", "qcow2", 5, true, "POST" + cbt + create + mine + "DELETE" + cbt,
       "Deleting CBTer 'c0' for CAS VM 'w'.\n"},
      {"", "qcow2", 6, false, "POST" + cbt + create + "DELETE" + cbt,
       "Deleting CBTer '" + name + "' for CAS VM 'w'.\n"},
      {"", "raw", 0, true, "PUT /cas/casrs/vm/stop/7\nPUT /cas/casrs/vm/start/7\n", ""},
      {residual, "qcow2", 7, true,
       old + "DELETE " + snap + "/Brimlet5_x\nDELETE" + cbt + "POST" + cbt + create + mine +
           "DELETE" + cbt,
       "Deleting CBTer 'Brimlet5_old' for CAS VM 'w'.\n"},
  };
  for (const auto& [snapshots, format, fault, good, changes, line] : cases) {
    reset();
    if (!snapshots.empty())
      tree(snapshots);
    detail("running", format);
    peer_.set("DELETE " + snap + "/Brimlet5_old", P::json(ok, fault == 2 ? 500 : 200));
    if (fault == 1 || fault == 6)
      peer_.set("POST /cas/casrs/vm/snapshot", P::json("", 500));
    peer_.set("GET /cas/casrs/vm/disk/changedBlockTracker",
              P::json(fault == 7 ? R"({"dirtyBitmapInfo":{"image":"/img/a","valid":"true"}})"
                                 : R"({"dirtyBitmapInfo":[]})"));
    auto b = backup();
    b->params_.opts_.restart_vm_ = fault != 3, b->params_.opts_.enable_cbt_ = fault >= 5;
    b->last_cbt_ = fault == 7 ? "Brimlet5_x" : fault >= 5 ? "c0" : "";
    b->on_pause = [&, format = format] { detail("shutOff", format); };
    if (fault == 4) {
      peer_.set("GET /cas/casrs/vm/7/capabilities", P::json(R"({"supportSnapshot":"false",)"
                                                            R"("supportCbt":"false"})"));
      b->backup_type_ = Job_Definition_Subtype::Incremental,
      b->params_.opts_.no_cbt_ = No_CBT_Opts::Skip;
    }
    Log_Capture log;
    EXPECT_EQ(run(*b, log, good), changes) << line;
    EXPECT_TRUE(log.contains(line)) << messages(log);
    EXPECT_EQ(b->offline_backup_, format == "raw");
    EXPECT_EQ(committed_["pieces"].size(), good && fault != 4 ? 2u : 0u);
  }
  EXPECT_EQ(committed_["run_uuid"].dump() + committed_["job_uuid"].dump(), R"("run1""j1")");
  // The servant's "backup" action runs the same flow and answers with its counts.
  reset();
  JSON_Value params = backup()->params_.dump();
  params["action"] = "backup";
  auto chn = std::make_shared<Capture_Channel>();
  Exposed<Exec_Handler> handler(loader_);
  auto req = std::make_shared<JSON_RPC_Request>("h3ccas.exec", params, 7);
  ASSERT_TRUE(handler.handle_object_i(chn, req) == 0 && chn->sent.size() == 1u);
  JSON_Value result = chn->sent[0]["result"];
  EXPECT_GT(result["storage_size"], 0u);
  result.erase("storage_size");
  EXPECT_EQ(result, json(R"({"backup_type":"full","code":0,"set_size":70000,)"
                         R"("source_size":1048576,"vm_id":"7"})"));
  // A job being stopped shows in its activity record.
  auto b = backup();
  act_->state = Job_Activity::cancelled;
  EXPECT_TRUE(b->init() && b->is_canceled());
}

// How the VM's capabilities, its last snapshot and the job's policy choose the way of the run.
TEST_F(Flow, DecisionsAndBaseChecks) {
  const S both = R"("supportSnapshot":"true","supportCbt":"true")",
          ext = R"("supportSnapshot":"true","supportCbt":"false","supportExternalSnapshot":)"
                R"("true","supportExternalSnapshotFastBackup":"true")",
          none = R"("supportSnapshot":"false","supportCbt":"false")",
          no_cbt = "CAS VM 'w' does NOT support CBT, ";
  using T = Job_Definition_Subtype;
  using N = No_CBT_Opts;
  // flags: offline, internal, CBT, skipped, full; then the last line logged
  const std::tuple<S, S, S, T, N, bool, S, S> cases[] = {
      {both, "1", "running", T::Incremental, N::None, true, "01100", ""},
      {both, "2", "running", T::Full, N::None, true, "00101", ""},
      {ext, "1", "running", T::Full, N::None, true, "00101", ""},
      {none, "", "shutOff", T::Incremental, N::Skip, false, "10010",
       no_cbt + "incremetnal backup skip for it.\n"},
      {none, "", "shutOff", T::Incremental, N::Skip_With_Alert, false, "10010",
       no_cbt + "incremetnal backup skip for it with alert.\n"},
      {none, "", "shutOff", T::Incremental, N::Full_Backup, true, "10001",
       no_cbt + "perform full backup instead.\n"},
      {none, "", "shutOff", T::Incremental, N::None, false, "10000",
       "The disk format of CAS VM 'w' does NOT incremental backup with CBT.\n"},
      {none, "1", "shutOff", T::Full, N::None, false, "00001",
       "The VM do NOT support snapshot. Maybe the number of snapshots has reached the limit.\n"},
      {both, "1", "paused", T::Full, N::None, false, "00001",
       "The VM is paused. It is unsupported to back up a paused VM.\n"},
  };
  for (const auto& [caps, mode, status, type, policy, good, want, line] : cases) {
    reset();
    peer_.set("GET /cas/casrs/vm/7/capabilities", P::json("{" + caps + "}"));
    tree(R"({"name":")" + S(mode.empty() ? "" : "user1") + R"(","snapshotMode":")" + mode + "\"}");
    detail(status, "qcow2");
    auto b = backup();
    b->backup_type_ = type, b->params_.opts_.no_cbt_ = policy;
    ASSERT_TRUE(b->client_->get_vm_detail("7", b->vm_detail_));
    Log_Capture log;
    EXPECT_EQ(b->check_vm_capabilities(), good) << want;
    S flags;
    for (bool f : {b->offline_backup_, b->use_internal_snapshot_, b->use_cbt_, b->skip_backup_,
                   b->is_full_backup()})
      flags += f ? "1" : "0";
    EXPECT_EQ(flags, want) << line;
    S last = messages(log);
    EXPECT_EQ(line.empty() ? "" : last.substr(last.rfind('\n', last.size() - 2) + 1), line);
  }
  // Each way a base is refused, with its one line; an accepted base fills the chain members. The
  // view is asked for this VM of this resource with the job's access key.
  const auto base = [](const S& pool, const S& cbt) {
    return R"([{"pool_uuid":")" + pool + R"(","incarnation":"i","uuid":"u")" + cbt + "}]";
  };
  const S no_base = "Failed to retrieve base catalogs for CAS VM 'w' on CVK 'cvk1'.\n",
          invalid = "CBTer 'c' of last backup of CAS VM 'w' is invalid.\n",
          good = R"(,"cbt_name":"c")";
  const std::tuple<S, S, S> bases[] = {
      // the view's answer, the CBTer's images, the lines logged
      {"[]", "", no_base},
      {R"({"uuid":"u"})", "", no_base},
      {base("p1", ""), "",
       "Unrecognized response from CAS base_catalog view: " + json(base("p1", "")).dump() + ".\n"},
      {base("p2", good), "", "Storage pool for CAS VM 'w' changed.\n"},
      {base("p1", R"(,"cbt_name":"")"), "", "CBTer has not been created in the last backup.\n"},
      {base("p1", good), "500",
       "CAS request 'GET /cas/casrs/vm/disk/changedBlockTracker?name=c&"
       "vmName=w' returns error, http status = 500, error code = '', message = ''.\nFailed to get "
       "info of last CBTer 'c' of CAS VM 'w'.\n"},
      {base("p1", good), "[]", invalid},
      {base("p1", good), R"([{"image":"/a","valid":"false"},{"image":"/b","valid":"true"}])",
       invalid},
      {base("p1", good), R"([{"image":"/a","valid":"true"}])", ""},
  };
  for (const auto& [answer, images, lines] : bases) {
    auto p = plan(Job_Definition_Subtype::Incremental);
    peer_.set("GET /cas/casrs/vm/disk/changedBlockTracker",
              P::json(images == "500" ? "" : R"({"dirtyBitmapInfo":)" + images + "}",
                      images == "500" ? 500 : 200));
    view_ = answer;
    Log_Capture log;
    EXPECT_EQ(p->check_base_backup(), lines.empty()) << answer;
    EXPECT_EQ(said(log), lines);
    EXPECT_EQ(asked_, "key host_id=1 resource_uuid=r vm_id=7");
    EXPECT_EQ(lines.empty() ? p->last_bset_uuid_ + p->last_bset_incarnation_ +
                                  std::to_string(p->cbt_info_.size())
                            : "ui1",
              "ui1");
  }
}

// A file disk from its allocated blocks in the snapshot, an RBD disk whole, two chunks each; then
// behind an overlay snapshot only the images it froze.
TEST_F(Flow, DisksBlocksAndQuota) {
  const JSON_Value a = disk("/img/a", "file", "8", "1"),
                   ceph = disk("ceph/img", "network", "2", "2");
  peer_.set("GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fimg%2Fa&snapshot=snap&vmId=7",
            P::json(R"({"dataBlockInfo":[{"offset":"0","length":"1048576"},)"
                    R"({"offset":"4194304","length":"512"}]})"));
  auto p = plan();
  p->vm_detail_.storages_ = {a, {{"device", "cdrom"}}, ceph};
  std::vector<std::shared_ptr<Backup_Plan::Chunk>> chunks;
  Log_Capture log;
  ASSERT_TRUE(p->prepare_disks(2, chunks));
  S got;
  for (const auto& c : chunks)
    got += c->remote_path_ + " " + text(c->blocks_) + "=" + std::to_string(c->size_) + " " +
           std::to_string(c->disk_index_) + c->disk_path_ + (c->is_rbd_ ? " rbd\n" : "\n");
  EXPECT_EQ(got,
            "/cvk1/w/_img_a_20261124_full_0.zst 0+524800=524800 0/img/a\n"
            "/cvk1/w/_img_a_20261124_full_1.zst 524800+523776,4194304+512=524288 0/img/a\n"
            "/cvk1/w/ceph_img_20261124_full_0.zst 0+1048576=1048576 1ceph/img rbd\n"
            "/cvk1/w/ceph_img_20261124_full_1.zst 1048576+1048576=1048576 1ceph/img rbd\n");
  EXPECT_EQ(std::to_string(p->set_size_) + " " + std::to_string(p->source_size_) + " " +
                p->vm_disks_.at(1).pool_name_ + p->vm_disks_[1].pool_path_ +
                p->vm_disks_[1].pool_type_ + std::to_string(p->disk_chunks_count_.at(1)),
            "3146240 10485760 cephcephrbd2");
  const S added =
      "Disk added to back up, path='/img/a', type=file, format=raw, mode=1, backup "
      "size=1049088, used size=1048576, total size=8388608.\n";
  EXPECT_EQ(said(log).substr(0, added.size()), added);
  peer_.set("GET /cas/casrs/vm/detail/7",
            P::json(R"({"basic":{},"cpu":{},"memory":{},"storage":[{"device":"disk",)"
                    R"("backingFile":"ceph/img"},{"device":"cdrom","backingFile":"/img/a"}]})"));
  p = plan(), p->use_internal_snapshot_ = false;
  p->vm_detail_.storages_ = {a, ceph};
  chunks.clear();
  Log_Capture log2;
  ASSERT_TRUE(p->prepare_disks(1, chunks));
  EXPECT_EQ(chunks.size(), 1u);
  EXPECT_EQ(chunks.at(0)->remote_path_, "/cvk1/w/ceph_img_20261124_full_0.zst");
  EXPECT_EQ(said(log2).substr(0, 75),
            "Skip backing up disk '/img/a', because it is not included in the snapshot.\n");
  p = plan();
  p->vm_detail_.storages_ = {{{"device", "cdrom"}}};
  EXPECT_FALSE(p->prepare_disks(1, chunks));
  // Which blocks each kind of backup asks CVM for, and when it copies the whole disk instead;
  // whether the pools have room for them.
  const S data = "GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fimg%2Fa&vmId=7",
          changed = "GET /cas/casrs/vm/disk/changedBlock?name=c&snapshotName=",
          some = R"({"dataBlockInfo":[{"offset":"512","length":"1024"}]})",
          none = R"({"dataBlockInfo":[]})",
          whole =
              "Unable to get allocated or changed blocks of disk '/img/a' (format=raw, "
              "type=file), backup the whole disk.\n";
  enum Mode { Full_Offline, Incr_Internal, Incr_External };
  // the disk's allocated MiB, the base CBTer's record of it, the blocks and the lines logged
  const std::tuple<Mode, S, S, S, bool, S, S> cases[] = {
      {Full_Offline, data, some, "1", true, "512+1024", ""},
      {Full_Offline, data, none, "0", true, "",
       "Allocated or changed blocks of disk '/img/a' is empty, backup skipped for it.\n"},
      {Full_Offline, data, none, "1", true, "0+8388608", whole},
      {Full_Offline, data, some, "101", true, "0+8388608",
       "Incomplete allocated blocks detected, disk '/img/a', used size = 101.0 MiB, allocated "
       "blocks got 1.0 KiB.\n" +
           whole},
      {Incr_External, changed + "snap&srcPath=%2Fimg%2Fa&vmId=7", some, "1", true, "512+1024", ""},
      {Incr_Internal, changed + "&srcPath=%2Fimg%2Fa&vmId=7", some, "1", true, "512+1024", ""},
      {Incr_Internal, changed + "&srcPath=%2Fimg%2Fa&vmId=7", some, "1", false, "0+8388608", whole},
  };
  for (const auto& [mode, request, answer, alloc_mib, valid, want, lines] : cases) {
    peer_.set(request, P::json(answer));
    auto p = plan(mode == Full_Offline ? Job_Definition_Subtype::Full
                                       : Job_Definition_Subtype::Incremental);
    p->use_internal_snapshot_ = mode == Incr_Internal, p->use_cbt_ = mode != Full_Offline;
    p->cbt_info_["/img/a"] = valid;
    VM_Disk d;
    ASSERT_TRUE(d.load(disk("/img/a", "file", "8", alloc_mib)));
    std::vector<Block> blocks{{1, 1}};
    Log_Capture log;
    EXPECT_TRUE(p->get_backup_blocks(d, blocks));
    EXPECT_EQ(text(blocks), want) << request;
    EXPECT_EQ(said(log), lines) << request;
  }
  // The reserve of a pool in bytes and in percent is kept strictly; none set always passes.
  const S short_of =
      "CAS storage pool 'img' available space(free=500.0 MiB, total=1000.0 MiB) "
      "is not enough for backing up VM 'w'.\n";
  const std::tuple<const char*, std::uint64_t, int, S> quotas[] = {
      {"0", 0, 0, ""},
      {"500", 500ull << 20, 0, short_of},
      {"500", 499ull << 20, 50, short_of},
      {"500", 499ull << 20, 49, ""}};
  for (const auto& [free_mib, bytes, percent, log_text] : quotas) {
    pools(free_mib);
    auto p = plan();
    p->params_.opts_.storage_reserved_bytes_ = bytes;
    p->params_.opts_.storage_reserved_percent_ = percent;
    p->vm_detail_.storages_ = {disk("/img/a", "file", "8", "1"), disk("/img/b", "file", "8", "1")};
    Log_Capture log;
    EXPECT_EQ(p->check_vm_storage_quota(), log_text.empty()) << percent;
    EXPECT_EQ(messages(log), log_text);
  }
}

// Chunks round trip into the pool and the set; a chunk that fails leaves nothing in the pool and no
// piece in the set, which is not committed.
TEST_F(Flow, Transfer) {
  auto t = transfer();
  t->set_size_ = 105000;
  ASSERT_TRUE(t->transfer_chunks());
  EXPECT_EQ(read_back("/cvk1/w/empty_0"), "");
  EXPECT_EQ(read_back("/cvk1/w/good_0"), "0+100000,200000+5000,");
  EXPECT_EQ(Hex_String_T(sb_.set_id, 16).str(),
            std::regex_replace(t->bset_uuid_, std::regex("-"), ""));
  EXPECT_TRUE(std::equal(sb_.set_id, sb_.set_id + 16, sb_.image_id) && sb_.block_size == 65536);
  EXPECT_TRUE(info_.processed_size == 105000 && info_.total_size == 105000);
  JSON_Value out = catalog(*t);
  EXPECT_EQ(out["pieces"].dump(),
            R"([{"object":"","path":"/cvk1/w/vm_config_20261124000000_full.json.zst","size":0},)"
            R"({"object":"/vms/a","path":"/cvk1/w/good_0","size":105000},)"
            R"({"object":"/vms/b","path":"/cvk1/w/empty_0","size":0}])");
  EXPECT_EQ(out["incarnation"].dump() + out["base"].dump(),
            '"' + t->bset_uuid_ + "\"\"" + t->bset_uuid_ + '"');
  EXPECT_EQ(out["storages"][0].dump(),
            R"({"extra":{"code_name":"reborn"},"pool_uuid":"p1","size":)" +
                std::to_string(t->storage_size_) + "}");
  Client_IO_Ex io;
  JSON_Value config;
  ASSERT_TRUE(io.connect("file://" + dir_.file("pool"), {}) &&
              client_io_read_json(io, out["vm_config_path"], config));
  EXPECT_EQ(config, t->vm_detail_.dump());
  // The pool's files, hidden ones included ("" for a folder).
  auto files = [&] {
    std::set<S> names;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.file("pool")))
      names.insert(e.is_regular_file() ? e.path().filename() : "");
    return names;
  };
  // Once the set went to the catalog its pieces are never removed as a failed run's.
  ASSERT_TRUE(t->save_catalog());
  t->remove_stored();
  EXPECT_EQ(files(),
            (std::set<S>{"", "empty_0", "good_0", "vm_config_20261124000000_full.json.zst"}));
  // An incremental set continues its base's chain; a set without its job's keys is refused.
  t->backup_type_ = Job_Definition_Subtype::Incremental;
  t->last_bset_uuid_ = "b0", t->last_bset_incarnation_ = "i0", t->use_cbt_ = true;
  t->snapshot_name_ = "Brimlet5-x";
  out = catalog(*t);
  EXPECT_EQ(out["incarnation"].dump() + out["base"].dump() + out["cbt_name"].dump(),
            R"("i0""b0""Brimlet5-x")");
  t->params_.catalog_.erase("agent");
  Log_Capture log0;
  EXPECT_TRUE(catalog(*t).is_null());
  EXPECT_EQ(messages(log0), "Invalid CAS VM catalog: missing string 'agent'.\n");
  const std::tuple<S, S, S> cases[] = {
      // fault, disk, error
      {"write 1", "/vms/c", "Failed to write image super block for CAS disk '/vms/c'.\n"},
      {"write 3", "/vms/c", "Failed to write to storage pool: write 3: Input/output error.\n"},
      {"commit", "/vms/c",
       "Failed to close '/cvk1/w/bad_0' on storage pool: commit: Input/output error.\n"},
      {"", "/unreadable", "Failed to read data from CAS VM 'w' on CVK '10.0.0.5'.\n"},
  };
  for (const auto& [step, disk, error] : cases) {
    t = transfer();
    std::filesystem::remove_all(dir_.file("pool"));
    fault = step;
    t->chunks_.push_back(chunk(disk, "/cvk1/w/bad_0", {{0, 3 << 20}}));
    t->params_.io_opts_.compression_ = Client_IO_Base::Compression::None;  // many writes
    Log_Capture log;
    EXPECT_FALSE(t->transfer_chunks());
    EXPECT_EQ(log.count(LM_ERROR), 1u);
    EXPECT_TRUE(log.contains(error)) << messages(log);
    EXPECT_EQ(files(), (std::set<S>{"", "empty_0", "good_0"}));
    EXPECT_EQ(catalog(*t)["pieces"].dump().find("bad_0"), S::npos);
    EXPECT_FALSE(t->save_catalog());
    EXPECT_TRUE(log.contains("Backup of CAS VM 'w' is incomplete, 2 of 3 chunk(s) stored.\n"));
    // The failed run takes back what it stored, its configuration too.
    t->remove_stored();
    EXPECT_EQ(files(), std::set<S>{""});
  }
}
}  // namespace
}  // namespace h3ccas
