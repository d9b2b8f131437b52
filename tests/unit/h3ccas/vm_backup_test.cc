#include "h3ccas/servant/vm_backup.h"
#include "h3ccas/servant/cvd_loader.h"
#include "h3ccas/servant/exec_handler.h"
#include "host/core/text.h"
#include "host/http/server.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/h3ccas/support.h"

namespace h3ccas {
namespace {

using S = std::string;
using P = Digest_Peer;
const S snap = "/cas/casrs/vm/snapshot/7", ok = R"({"errorCode":"0"})",
        name = "Brimlet5_full_20261124000000";

// Each look at a stopping VM runs `on_pause` instead of waiting.
struct Test_Backup : VM_Backup {
  using VM_Backup::VM_Backup;
  void pause(unsigned) override { on_pause(); }
  std::function<void()> on_pause = [] {};
};

// VM "w" (id 7, one qcow2 disk /img/a) of job "j1" into a file pool; the CVM's answers succeed.
class Flow : public Cas_Peer {
 protected:
  void SetUp() override {
    Cas_Peer::SetUp();
    ASSERT_TRUE(loader_.init() && open_job_activity(act_, "j1", true));
    ASSERT_TRUE(progress_.open("j1", "7", true, true, 0750));
    ASSERT_TRUE(Job_Activity::set_text(act_->run_id, "run1"));
    catalog_.route(HTTP_Method::POST, "/k4/r/catalog/h3ccas",
                   [&](const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
                     committed_ = json(req.body);
                     resp.json(JSON_Value::object());
                   });
    ASSERT_TRUE(catalog_.start(HTTP_Server::Options()));
    reset();
  }
  // Default answers, nothing committed, requests counted from now.
  void reset() {
    committed_ = nullptr, from_ = peer_.seen().accepted.size();
    tree(R"({"name":"user1","snapshotMode":"1"})");
    detail("running", "qcow2");
    peer_.set("GET /cas/casrs/vm/7/capabilities",
              P::json(R"({"supportSnapshot":"true","supportCbt":"true"})"));
    peer_.set("GET /cas/casrs/storage/pool",
              P::json(R"({"storagePool":{"name":"img","type":"dir","path":"/img",)"
                      R"("totalSize":"1000","status":"1","freeSize":"500"}})"));
    peer_.set("GET /cas/casrs/vm/disk/dataBlock",
              P::json(R"({"dataBlockInfo":[{"offset":"0","length":"70000"}]})"));
    for (S path :
         {"DELETE " + snap + "/Brimlet5_x", "DELETE " + snap + "/" + name,
          S("POST /cas/casrs/vm/snapshot"), S("PUT /cas/casrs/vm/stop/7"),
          S("POST /cas/casrs/vm/disk/changedBlockTracker"),
          S("DELETE /cas/casrs/vm/disk/changedBlockTracker"), S("PUT /cas/casrs/vm/start/7")})
      peer_.set(path, P::json(ok));
  }
  void tree(const S& root) { peer_.set("GET " + snap, P::json(R"({"snapshot":)" + root + "}")); }
  void detail(const S& status, const S& format) {
    peer_.set("GET /cas/casrs/vm/detail/7",
              P::json(R"({"status":")" + status +
                      R"(","basic":{},"cpu":{"cpuSockets":"1",)"
                      R"("cpuCores":"1"},"memory":{"size":"1024"},"storage":{"device":"disk",)"
                      R"("deviceName":"vda","fileType":"file","path":"/img/a","format":")" +
                      format +
                      R"(","targetBus":"virtio","size":"1","allocation":"1","cacheType":)"
                      R"("none","mode":"1"}})"));
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
  // The run's answer and the CVM requests that changed something, "METHOD path" each.
  S run(Test_Backup& b, Log_Capture& log, bool expect) {
    JSON_Value result;
    EXPECT_EQ(b.backup(result), expect) << messages(log);
    EXPECT_EQ(progress_->state, expect ? 2 : 3);
    EXPECT_EQ(result["code"], expect ? 0 : 1);
    EXPECT_EQ(result["vm_id"], "7");
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
  CVD_Loader loader_;
  Job_Activity_Handle act_;
  VM_Progress_Info_Handle progress_;
  HTTP_Server catalog_;
  JSON_Value committed_;
  std::size_t from_ = 0;
};

// Whole runs: a residual "Brimlet5" snapshot goes first, the run's snapshot goes on every exit,
// a local raw disk is copied with the VM stopped and started again.
TEST_F(Flow, Runs) {
  const S old = "DELETE " + snap + "/Brimlet5_old\n", mine = "DELETE " + snap + "/" + name + "\n",
          create = "POST /cas/casrs/vm/snapshot\n",
          cbt = " /cas/casrs/vm/disk/changedBlockTracker\n",
          residual = R"({"name":"Brimlet5_old","snapshotMode":"1","snapshots":{"snapshot":[{)"
                     R"("name":"user1","snapshotMode":"1","snapshots":{"snapshot":{"name":)"
                     R"("Brimlet5_x","snapshotMode":"1"}}}]}})";
  struct Case {
    S tree, format;
    // 1: creating the snapshot fails, 2: deleting the residual one, 3: no restart, 4: an
    // incremental run skipped for want of CBT, 5: with CBT after base "c0", 6: 5 and 1
    int fault;
    bool ok;
    S changes, line;
  } const cases[] = {
      {residual, "qcow2", 0, true, old + "DELETE " + snap + "/Brimlet5_x\n" + create + mine,
       "Snapshot 'Brimlet5_x' deleted.\n"},
      {"", "qcow2", 1, false, create + mine, "Failed to create snapshot for CAS VM 'w'.\n"},
      {residual, "qcow2", 2, false, old, "Failed to delete snapshot 'Brimlet5_old'.\n"},
      {"", "raw", 3, false, "", "The disk format of CAS VM 'w' does NOT support online backup.\n"},
      {"", "raw", 4, true, "",
       "CAS VM 'w' does NOT support CBT, incremetnal backup skip for it.\n"},
      {"", "qcow2", 5, true, "POST" + cbt + create + mine + "DELETE" + cbt,
       "Deleting CBTer 'c0' for CAS VM 'w'.\n"},
      {"", "qcow2", 6, false, "POST" + cbt + create + mine + "DELETE" + cbt,
       "Deleting CBTer '" + name + "' for CAS VM 'w'.\n"},
      {"", "raw", 0, true, "PUT /cas/casrs/vm/stop/7\nPUT /cas/casrs/vm/start/7\n", ""},
  };
  for (const Case& c : cases) {
    reset();
    if (!c.tree.empty())
      tree(c.tree);
    detail("running", c.format);
    peer_.set("DELETE " + snap + "/Brimlet5_old", P::json(ok, c.fault == 2 ? 500 : 200));
    if (c.fault == 1 || c.fault == 6)
      peer_.set("POST /cas/casrs/vm/snapshot", P::json("", 500));
    auto b = backup();
    b->params_.opts_.restart_vm_ = c.fault != 3, b->params_.opts_.enable_cbt_ = c.fault >= 5;
    b->last_cbt_ = c.fault >= 5 ? "c0" : "";
    b->on_pause = [&] { detail("shutOff", c.format); };
    if (c.fault == 4) {
      peer_.set("GET /cas/casrs/vm/7/capabilities", P::json(R"({"supportSnapshot":"false",)"
                                                            R"("supportCbt":"false"})"));
      b->backup_type_ = Job_Definition_Subtype::Incremental,
      b->params_.opts_.no_cbt_ = No_CBT_Opts::Skip;
    }
    Log_Capture log;
    EXPECT_EQ(run(*b, log, c.ok), c.changes) << c.line;
    EXPECT_TRUE(log.contains(c.line)) << messages(log);
    EXPECT_EQ(b->offline_backup_, c.format == "raw");
    EXPECT_EQ(committed_["pieces"].size(), c.ok && c.fault != 4 ? 2u : 0u);
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
  EXPECT_EQ(result, json(R"({"code":0,"set_size":70000,"source_size":1048576,"vm_id":"7"})"));
  // A job being stopped shows in its activity record.
  auto b = backup();
  act_->state = Job_Activity::cancelled;
  EXPECT_TRUE(b->init() && b->is_canceled());
}

// How the VM's capabilities, its last snapshot and the job's policy choose the way of the run.
TEST_F(Flow, Decisions) {
  const S both = R"("supportSnapshot":"true","supportCbt":"true")",
          ext = R"("supportSnapshot":"true","supportCbt":"false","supportExternalSnapshot":)"
                R"("true","supportExternalSnapshotFastBackup":"true")",
          none = R"("supportSnapshot":"false","supportCbt":"false")",
          no_cbt = "CAS VM 'w' does NOT support CBT, ";
  using T = Job_Definition_Subtype;
  using N = No_CBT_Opts;
  struct Case {
    S caps, mode, status;
    T type;
    N policy;
    bool ok;
    S flags, line;  // offline, internal, CBT, skipped, full; the last line logged
  } const cases[] = {
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
  for (const Case& c : cases) {
    reset();
    peer_.set("GET /cas/casrs/vm/7/capabilities", P::json("{" + c.caps + "}"));
    tree(R"({"name":")" + S(c.mode.empty() ? "" : "user1") + R"(","snapshotMode":")" + c.mode +
         R"("})");
    detail(c.status, "qcow2");
    auto b = backup();
    b->backup_type_ = c.type, b->params_.opts_.no_cbt_ = c.policy;
    ASSERT_TRUE(b->client_->get_vm_detail("7", b->vm_detail_));
    Log_Capture log;
    EXPECT_EQ(b->check_vm_capabilities(), c.ok) << c.flags;
    S flags;
    for (bool f : {b->offline_backup_, b->use_internal_snapshot_, b->use_cbt_, b->skip_backup_,
                   b->is_full_backup()})
      flags += f ? "1" : "0";
    EXPECT_EQ(flags, c.flags) << c.line;
    S last = messages(log);
    last = last.substr(last.rfind('\n', last.size() - 2) + 1);
    EXPECT_EQ(c.line.empty() ? "" : last, c.line);
  }
}

}  // namespace
}  // namespace h3ccas
