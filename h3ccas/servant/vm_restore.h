// One VM's restore inside a servant: the chain of backup sets from the catalog, the VM's saved
// configuration, a new VM with its disks on CAS, and every disk's data written back through libcvd
// from the image objects of the chain, several disks at a time. The same reading of the chain,
// with nothing written anywhere, verifies that every object of a set is intact.
#pragma once

#include "h3ccas/common.h"
#include "h3ccas/job/progress_reporter.h"
#include "h3ccas/restful_client.h"
#include "host/http/client.h"
#include "host/job/activity.h"
#include "host/storage/image.h"
#include "models/task/thread_task_scheduler.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace h3ccas {

class VM_Restore {
 public:
  // Where one pool's backup data lies and how to read it.
  struct Storage_Pool {
    std::string url;  // "<pool base>/<set uri>"
    Client_IO_Base::Options io_opts_;
  };

  // A volume this restore created on CAS; deleted again when the restore fails.
  struct Volume {
    std::string name_;
    std::string pool_name_;
  };

  // One disk to restore: the image objects that rebuild it and where it goes.
  struct Disk_Restore_Param {
    struct Piece {
      const Storage_Pool* pool_ = nullptr;  // owned by the VM_Restore
      std::string remote_path_;             // the object's name in that pool
      std::uint64_t source_size_ = 0;       // bytes of disk data it holds
      std::string set_uuid_;                // the backup set the catalog files it under
      bool base_ = false;                   // of the chain's full set
    };

    std::vector<Piece> pieces_;  // the chain's sets oldest first, each set's pieces as listed
    std::string target_path_;
    std::uint64_t source_size_ = 0;  // sum of the pieces' sizes
    VM_Disk src_disk_;               // as the chosen (last) set records it
    std::string cas_pool_name_;
    std::string cas_pool_path_;
    std::string cas_pool_type_;
    Provisioning_Mode provisioning_mode_ = UNKNOWN;
    // The target held data before this restore (a volume it did not create): every range the
    // full set does not cover is zeroed, so that no stale byte survives where the VM had none.
    bool zero_holes_ = false;
  };
  using Disk_Plans = std::vector<std::shared_ptr<Disk_Restore_Param>>;

  // An image object that could not be read whole and verified.
  struct Bad_Object {
    std::string object;
    std::string error;  // the line logged for it
  };

  // `client` talks to the parameters' CVM; null: a plain client for it.
  explicit VM_Restore(VM_Restore_Params params, std::unique_ptr<RESTful_Client> client = nullptr);
  VM_Restore(const VM_Restore&) = delete;
  VM_Restore& operator=(const VM_Restore&) = delete;

  // The whole restore. `result` receives "code" (0: restored), and on success "vm_id" (the new
  // VM), "storage_size", "set_size" and "source_size"; on a failure for a bad image object,
  // "bad_objects" as verify gives them.
  bool restore(JSON_Value& result);
  // Reads every object of the chain ending in the chosen set, as an original restore would, and
  // writes nothing anywhere. `result` receives "code", "vm_id" (the source VM), the sizes and
  // "bad_objects": [{"object", "error"}, ...]; true when every object is intact.
  bool verify(JSON_Value& result);
  // The job was stopped: its activity record says so.
  bool is_canceled() const;

  // The steps, each false after one log line.
  bool init();
  bool get_catalogs(JSON_Value& catalogs);
  // The sets must form one chain: a full set, then incremental sets each based on the one
  // before, ending in the chosen set.
  bool check_chain(const JSON_Value& catalogs) const;
  bool get_src_vm_detail(const JSON_Value& catalogs, VM_Detail& detail);
  bool delete_existing_vm();
  bool create_vm(const VM_Detail& detail);
  bool prepare_disks(const JSON_Value& catalogs, Disk_Plans& disks);
  std::string get_pool_uuid(const JSON_Value& storages) const;
  bool get_pool(const std::string& uuid, const std::string& uri, Storage_Pool*& pool);
  bool create_disks(Disk_Plans& disks);
  // An existing block volume is written over, so never one that a VM uses: a copy of a VM
  // restored into the pool of its own volumes would otherwise overwrite the VM's disks.
  bool check_volume_unused_i(const Disk_Restore_Param& disk);
  // A new file volume for `disk`; taken names are retried with "_0" .. "_9" appended to the
  // target path, which then names the volume created.
  bool create_volume(Disk_Restore_Param& disk);
  bool restore_disks(const Disk_Plans& disks);
  // One disk's work on a worker thread; false after one log line.
  bool restore_disk_i(const Disk_Restore_Param& disk) const;
  bool verify_disk_i(const Disk_Restore_Param& disk) const;

  VM_Restore_Params params_;
  Job_Activity_Handle job_act_;
  std::unordered_map<std::string, Storage_Pool> pools_;  // by pool uuid
  std::unique_ptr<RESTful_Client> client_;
  Upstream_JSON_RESTful_Client upstream_;
  std::string target_vm_id_;
  std::uint64_t source_size_ = 0;
  std::uint64_t set_size_ = 0;
  mutable std::atomic<std::uint64_t> storage_size_{0};
  mutable std::atomic<std::uint64_t> succeeded_disk_{0};
  VM_Progress_Info_Handle progress_;
  std::vector<Volume> created_volumes_;

 private:
  using Disk_Task = std::function<bool(const Disk_Restore_Param&)>;
  // Runs `task` over the plans on parallel_disks_per_vm_ threads, one task per target at a time,
  // counting each disk processed and each success; true when every plan succeeded.
  bool run_disks_i(const Disk_Plans& disks, const char* name, const Disk_Task& task);
  // Reads the pieces of `disk` in order and hands every verified block to `sink`; `base_done`
  // runs once the full set's pieces are through. A bad piece is added to bad_objects_ and ends
  // the reading, unless `every_piece`: then the reading goes on, and empty pieces are read too.
  bool read_disk_i(const Disk_Restore_Param& disk, const Image_Reader::Block_Callback& sink,
                   const std::function<bool()>& base_done, bool every_piece) const;
  // Bad: the object is missing, damaged, of another set or not the catalog's piece (logged);
  // Stopped: the sink stopped the reading or the job was stopped.
  enum class Piece_Read { Ok, Bad, Stopped };
  // Reads one piece through `io` (connected to the piece's pool) into `sink`.
  Piece_Read read_piece_i(const Disk_Restore_Param::Piece& piece, Client_IO_Ex& io,
                          const Image_Reader::Block_Callback& sink) const;
  // bad_objects_ as [{"object", "error"}, ...].
  JSON_Value bad_objects_json_i() const;
  // Runs at the end of restore and verify: the outcome into the progress and activity records.
  void finish_i(bool ok);
  void remove_residuals_i();
  // What this restore made on CAS is kept in a file while the restore runs, so that the job's
  // next attempt removes it when this servant dies: write_file_atomic's false after one log line.
  bool record_made_i() const;
  void remove_left_by_dead_attempt_i();
  std::size_t buffer_size() const;

  std::string made_path_;
  mutable std::mutex mutex_;
  mutable std::vector<Bad_Object> bad_objects_;  // under mutex_
};

}  // namespace h3ccas
