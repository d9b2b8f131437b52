// What one VM backup copies: the storage quota and base-backup checks, the byte ranges of every
// disk (allocated blocks for a full backup, changed blocks for an incremental one, the whole disk
// when CAS cannot tell) and their split into chunks that are copied in parallel.
#pragma once

#include "h3ccas/common.h"
#include "h3ccas/restful_client.h"

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace h3ccas {

// Splits `blocks` into at most `n` runs of about equal size, each a multiple of `align` bytes
// except the last; a block may be cut between two runs. `total` receives the sum of all lengths
// (added to what it holds). Empty `blocks` or `n` < 2 gives one run of everything.
std::vector<std::pair<std::vector<Block>, std::uint64_t>> split_blocks(std::vector<Block> blocks,
                                                                       std::uint64_t align, int n,
                                                                       std::uint64_t& total);

// The planning half of a VM backup. The backup flow derives from it and sets the run's choices
// (type, snapshot, CBT use) before it plans; the chunk transfer then consumes `chunks_`.
class Backup_Plan {
 public:
  // One object in the storage pool: some byte ranges of one disk.
  struct Chunk {
    std::string disk_path_;
    std::string remote_path_;       // the object's name in the storage pool
    std::vector<Block> blocks_;     // ascending disk offsets
    std::uint64_t size_ = 0;        // sum of the blocks' lengths
    std::uint64_t disk_index_ = 0;  // position of the disk among those backed up
    int index_ = 0;                 // number of the chunk within its disk
    bool is_rbd_ = false;
  };

  // `client` talks to the parameters' CVM; null: a plain client for it.
  explicit Backup_Plan(VM_Backup_Params params, std::unique_ptr<RESTful_Client> client = nullptr);
  virtual ~Backup_Plan() = default;
  Backup_Plan(const Backup_Plan&) = delete;
  Backup_Plan& operator=(const Backup_Plan&) = delete;

  bool is_full_backup() const { return backup_type_ == Job_Definition_Subtype::Full; }
  // An online backup through an overlay snapshot, with or without its changed-block tracking.
  bool use_external_snapshot() const { return !offline_backup_ && !use_internal_snapshot_; }
  bool use_external_cbt() const { return use_cbt_ && use_external_snapshot(); }

  // Every disk's CAS pool keeps the reserve of the options.
  bool check_vm_storage_quota();
  // The pool whose path prefixes `disk_path`, among the CVK's pools (listed once); null after one
  // log line.
  const CAS_Storage_Pool* find_cas_pool(const std::string& disk_path);
  // Whether the base the catalog names can carry an incremental backup; false: back up in full.
  bool check_base_backup();
  // For a full backup: last_cbt_ becomes the CBTer of the VM's newest set, which the full set
  // replaces as the base of later incremental backups ("" when none is known).
  void find_last_cbt();
  // The check on the answer of the catalog's base view.
  bool check_base_backup_i(const JSON_Value& answer);
  // The images the external snapshot froze (the disks' backing files after it).
  bool list_backing_files(std::set<std::string>& files);
  // Changed blocks since the base CBTer; false when the disk has no valid record in it.
  bool get_changed_blocks(const std::string& disk_path, std::vector<Block>& blocks);
  // What to copy of `disk`; the whole disk when CAS cannot tell.
  bool get_backup_blocks(const VM_Disk& disk, std::vector<Block>& blocks);
  // Fills `vm_disks_`, the totals and `chunks` with at most `n` chunks per disk.
  bool prepare_disks(int n, std::vector<std::shared_ptr<Chunk>>& chunks);

  VM_Backup_Params params_;
  std::unique_ptr<RESTful_Client> client_;
  std::string timestamp_;      // the run's start, "%Y%m%d%H%M%S"
  std::string snapshot_name_;  // also the name of the run's CBTer
  // The base backup: its set, the chain's full set and the CBTer it created.
  std::string last_bset_uuid_;
  std::string last_bset_incarnation_;
  std::string last_cbt_;
  std::map<std::string, bool> cbt_info_;  // disk path -> the base CBTer's record is valid
  VM_Detail vm_detail_;
  std::vector<VM_Disk> vm_disks_;
  std::vector<CAS_Storage_Pool> cas_pools_;
  std::uint64_t set_size_ = 0;     // bytes to copy
  std::uint64_t source_size_ = 0;  // the disks' sizes
  std::vector<std::shared_ptr<Chunk>> chunks_;
  std::vector<int> disk_chunks_count_;
  Job_Definition_Subtype backup_type_;
  bool offline_backup_ = false;
  bool use_internal_snapshot_ = false;
  bool use_cbt_ = false;

 private:
  bool use_whole_disk(const VM_Disk& disk, std::vector<Block>& blocks) const;
};

}  // namespace h3ccas
