#include "h3ccas/servant/backup_plan.h"
#include "host/core/text.h"
#include "host/http/server.h"
#include "tests/unit/h3ccas/support.h"

#include <regex>

namespace h3ccas {
namespace {

using S = std::string;
using P = Digest_Peer;

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
  struct Case {
    std::vector<Block> blocks;
    std::uint64_t align;
    int n;
    S chunks;  // "blocks=size|..."
  } const cases[] = {
      {{{0, 1000}, {4096, 3000}}, 512, 2, "0+1000,4096+1048=2048|5144+1952=1952"},
      {{{0, 1000}, {4096, 3000}}, 512, 1, "0+1000,4096+3000=4000"},
      {{}, 512, 4, "=0"},
      {{{0, 1000}}, 512, 3, "0+512=512|512+488=488"},  // 333 rounds up to 512
      {{{0, 1024}}, 1024, 4, "0+1024=1024"},           // the blocks run out first
      {{{0, 3}}, 512, 4, "0+3=3"},                     // less than a byte per chunk
      {{{0, 100}, {200, 100}}, 1, 2, "0+100=100|200+100=100"},
  };
  for (const Case& c : cases) {
    std::uint64_t total = 7, sum = 7;
    S got;
    for (const auto& chunk : split_blocks(c.blocks, c.align, c.n, total)) {
      got += (got.empty() ? "" : "|") + text(chunk.first) + "=" + std::to_string(chunk.second);
      sum += chunk.second;
    }
    EXPECT_EQ(got, c.chunks);
    EXPECT_EQ(total, sum);
  }
}

class Plan : public Cas_Peer {
 protected:
  // VM "w" (id 7) on CVK "cvk1" (id 1), in a job writing to pool "p1"; no reserve.
  std::unique_ptr<Backup_Plan> plan(Job_Definition_Subtype type = Job_Definition_Subtype::Full) {
    VM_Backup_Params p;
    p.host_id_ = "1", p.host_name_ = "cvk1", p.vm_id_ = "7", p.vm_name_ = "w";
    p.catalog_ = {{"pool_uuid", "p1"}}, p.backup_type_ = type;
    p.opts_.storage_reserved_bytes_ = 0, p.opts_.storage_reserved_percent_ = 0;
    p.access_key_ = "key", p.resource_uuid_ = "r";
    auto out = std::make_unique<Backup_Plan>(std::move(p), std::make_unique<Test_Client>(cvm()));
    out->timestamp_ = "20261124", out->snapshot_name_ = "snap", out->last_cbt_ = "c";
    out->use_internal_snapshot_ = out->use_cbt_ = true;
    return out;
  }
  static JSON_Value disk(const S& path, const S& type, const S& mib, const S& alloc_mib) {
    return {{"device", "disk"}, {"deviceName", "vda"},     {"fileType", type},
            {"path", path},     {"format", "raw"},         {"targetBus", "virtio"},
            {"size", mib},      {"allocation", alloc_mib}, {"cacheType", "none"},
            {"mode", "1"}};
  }
  void pools(const char* free_mib) {
    peer_.set("GET /cas/casrs/storage/pool",
              P::json(string_sprintf(R"({"storagePool":[{"name":"img","type":"dir","path":"/img",)"
                                     R"("totalSize":"1000","status":"1","freeSize":"%s"},{"name":)"
                                     R"("ceph","type":"rbd","path":"ceph","totalSize":"1",)"
                                     R"("freeSize":"1","status":"1"}]})",
                                     free_mib)));
  }
};

// Each way a base is refused, with its one line; an accepted base fills the chain members. The
// view is asked for this VM of this resource with the job's access key.
TEST_F(Plan, BaseCheck) {
  HTTP_Server catalog;
  S view, asked;
  catalog.route(HTTP_Method::GET, "/k4/r/catalog/h3ccas/view/base_catalog",
                [&](const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
                  asked = *req.headers.get("X-Access-Key");
                  for (const auto& item : req.query)
                    asked += " " + item.first + "=" + item.second;
                  resp.json(json(view));
                });
  ASSERT_TRUE(catalog.start(HTTP_Server::Options()));
  const auto base = [](const S& pool, const S& cbt) {
    return R"([{"pool_uuid":")" + pool + R"(","incarnation":"i","uuid":"u")" + cbt + "}]";
  };
  const S no_base = "Failed to retrieve base catalogs for CAS VM 'w' on CVK 'cvk1'.\n",
          invalid = "CBTer 'c' of last backup of CAS VM 'w' is invalid.\n",
          good = R"(,"cbt_name":"c")";
  struct Case {
    S answer, images, log;
  } const cases[] = {
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
  for (const Case& c : cases) {
    auto p = plan(Job_Definition_Subtype::Incremental);
    p->params_.backupd_host_ = "127.0.0.1", p->params_.backupd_port_ = catalog.port();
    peer_.set("GET /cas/casrs/vm/disk/changedBlockTracker",
              P::json(c.images == "500" ? "" : R"({"dirtyBitmapInfo":)" + c.images + "}",
                      c.images == "500" ? 500 : 200));
    view = c.answer;
    Log_Capture log;
    EXPECT_EQ(p->check_base_backup(), c.log.empty()) << c.answer;
    EXPECT_EQ(said(log), c.log);
    EXPECT_EQ(asked, "key host_id=1 resource_uuid=r vm_id=7");
    if (c.log.empty()) {
      EXPECT_EQ(
          p->last_bset_uuid_ + p->last_bset_incarnation_ + std::to_string(p->cbt_info_.size()),
          "ui1");
    }
  }
}

// A file disk from its allocated blocks in the snapshot, an RBD disk whole, two chunks each; then
// behind an overlay snapshot only the images it froze.
TEST_F(Plan, PrepareDisks) {
  pools("500");
  peer_.set("GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fimg%2Fa&snapshot=snap&vmId=7",
            P::json(R"({"dataBlockInfo":[{"offset":"0","length":"1048576"},)"
                    R"({"offset":"4194304","length":"512"}]})"));
  auto p = plan();
  p->vm_detail_.storages_ = {disk("/img/a", "file", "8", "1"),
                             {{"device", "cdrom"}},
                             disk("ceph/img", "network", "2", "2")};
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
  p = plan();
  p->use_internal_snapshot_ = false;
  p->vm_detail_.storages_ = {disk("/img/a", "file", "8", "1"),
                             disk("ceph/img", "network", "2", "2")};
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
}

// Which blocks each kind of backup asks CVM for, and when it copies the whole disk instead.
TEST_F(Plan, BackupBlocks) {
  const S data = "GET /cas/casrs/vm/disk/dataBlock?hostId=1&image=%2Fimg%2Fa&vmId=7",
          changed = "GET /cas/casrs/vm/disk/changedBlock?name=c&snapshotName=",
          some = R"({"dataBlockInfo":[{"offset":"512","length":"1024"}]})",
          none = R"({"dataBlockInfo":[]})",
          whole =
              "Unable to get allocated or changed blocks of disk '/img/a' (format=raw, "
              "type=file), backup the whole disk.\n";
  enum Mode { Full_Offline, Incr_Internal, Incr_External };
  struct Case {
    Mode mode;
    S request, answer, alloc_mib;
    bool valid;  // the base CBTer's record of the disk
    S blocks, log;
  } const cases[] = {
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
  for (const Case& c : cases) {
    peer_.set(c.request, P::json(c.answer));
    auto p = plan(c.mode == Full_Offline ? Job_Definition_Subtype::Full
                                         : Job_Definition_Subtype::Incremental);
    p->use_internal_snapshot_ = c.mode == Incr_Internal;
    p->use_cbt_ = c.mode != Full_Offline;
    p->cbt_info_["/img/a"] = c.valid;
    VM_Disk d;
    ASSERT_TRUE(d.load(disk("/img/a", "file", "8", c.alloc_mib)));
    std::vector<Block> blocks{{1, 1}};
    Log_Capture log;
    EXPECT_TRUE(p->get_backup_blocks(d, blocks));
    EXPECT_EQ(text(blocks), c.blocks) << c.request;
    EXPECT_EQ(said(log), c.log) << c.request;
  }
}

// The reserve of a pool in bytes and in percent is kept strictly; none set always passes.
TEST_F(Plan, StorageQuota) {
  const S short_of =
      "CAS storage pool 'img' available space(free=500.0 MiB, total=1000.0 MiB) "
      "is not enough for backing up VM 'w'.\n";
  struct Case {
    const char* free_mib;
    std::uint64_t bytes;
    int percent;
    S log;
  } const cases[] = {{"0", 0, 0, ""},
                     {"500", 500ull << 20, 0, short_of},
                     {"500", 499ull << 20, 50, short_of},
                     {"500", 499ull << 20, 49, ""}};
  for (const Case& c : cases) {
    pools(c.free_mib);
    auto p = plan();
    p->params_.opts_.storage_reserved_bytes_ = c.bytes;
    p->params_.opts_.storage_reserved_percent_ = c.percent;
    p->vm_detail_.storages_ = {disk("/img/a", "file", "8", "1"), disk("/img/b", "file", "8", "1")};
    Log_Capture log;
    EXPECT_EQ(p->check_vm_storage_quota(), c.log.empty()) << c.percent;
    EXPECT_EQ(messages(log), c.log);
  }
}

}  // namespace
}  // namespace h3ccas
