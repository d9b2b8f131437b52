// The copying half of a VM backup: every planned chunk read from its disk through libcvd and
// written as one image object into the storage pool, several at a time; then the VM's
// configuration beside the data and the backup set in the backup server's catalog.
#pragma once

#include "h3ccas/job/progress_reporter.h"
#include "h3ccas/servant/backup_plan.h"
#include "host/catalog/catalog.h"
#include "models/task/thread_task_scheduler.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <string>

class Client_IO_Ex;
class Image_Block_Writer;

namespace h3ccas {

// The 16 bytes naming backup set `uuid` in the superblocks of its image objects: the uuid's
// hexadecimal digits (hyphens skipped), zeros where the text is not hexadecimal.
void image_set_id(const std::string& uuid, std::uint8_t out[16]);

// The backup flow derives from it, sets the run's identity (set uuid, job and run, progress
// record) and calls backup_disks, then save_catalog when that succeeded.
class Backup_Transfer : public Backup_Plan {
 public:
  // Block size of the image objects.
  static constexpr std::uint32_t image_block_size = 65536;

  explicit Backup_Transfer(VM_Backup_Params params,
                           std::unique_ptr<RESTful_Client> client = nullptr);

  // Whether the job is being stopped; the scheduler then drops the chunks still waiting.
  virtual bool is_canceled() const { return false; }

  // Plans the chunks (prepare_disks) and runs them; true when every chunk was stored.
  bool backup_disks();
  // Runs the chunks of `chunks_` (counters reset first) on parallel_disks_per_vm /
  // parallel_workers_per_disk workers, at most parallel_disks_per_vm at once per disk; true when
  // every chunk was stored and the job is not being stopped.
  bool transfer_chunks();
  // The task body: one chunk into its object. Failed leaves nothing under the object's name.
  Task_Base::Error backup_chunk_i(const std::shared_ptr<Chunk>& chunk) const;
  // Connects `io` to the job's pool and opens the chunk's object for writing.
  bool open_client_io(const Chunk& chunk, Client_IO_Ex& io) const;
  // Initialises `writer` and announces the chunk's blocks.
  bool init_image_writer(const Chunk& chunk, Image_Block_Writer& writer) const;
  // Stores the VM's configuration; `path` is its object's name, set even on failure.
  bool save_vm_config(std::string& path) const;
  // The backup set of this run; only chunks that were stored become its pieces.
  bool fill_catalog(H3C_CAS_Backup_Set& set) const;
  // Commits the set; refused unless every chunk was stored.
  bool save_catalog() const;

  // Whether backup_chunk_i stored the chunk.
  bool is_stored(const Chunk& chunk) const;
  // Removes the objects this run stored, unless their set went to the catalog: a failed run
  // leaves nothing that no set would ever point at.
  void remove_stored() const;

  std::string bset_uuid_;  // the backup set's id
  std::time_t start_time_;
  std::string job_uuid_;
  std::string run_uuid_;
  VM_Progress_Info* progress_ = nullptr;  // this VM's progress record; null: not reported
  mutable std::atomic<std::uint64_t> storage_size_{0};  // bytes the pool holds for all chunks
  mutable std::atomic<int> succeeded_chunk_{0};

 private:
  mutable std::mutex mutex_;
  mutable std::set<std::string> stored_;  // object names, under mutex_
};

}  // namespace h3ccas
