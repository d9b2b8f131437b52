#include "h3ccas/servant/chunk_transfer.h"

#include "h3ccas/servant/cvd_connection.h"
#include "h3ccas/servant/cvd_loader.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "host/job/subtype.h"
#include "host/storage/client_io.h"
#include "host/storage/image.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace h3ccas {

void image_set_id(const std::string& uuid, std::uint8_t out[16]) {
  std::fill(out, out + 16, 0);
  int digits = 0;
  for (char c : uuid) {
    if (c == '-' || !std::isxdigit(static_cast<unsigned char>(c)) || digits == 32)
      continue;
    int v = std::isdigit(static_cast<unsigned char>(c))
                ? c - '0'
                : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    out[digits / 2] = static_cast<std::uint8_t>(out[digits / 2] | v << (digits % 2 ? 0 : 4));
    ++digits;
  }
}

namespace {

// Removes a chunk's object unless the chunk got through: neither a partial object nor one whose
// commit failed may stay under a name the catalog could come to point at.
class Piece_Remover {
 public:
  explicit Piece_Remover(Client_IO_Ex& io) : io_(io) {}
  ~Piece_Remover() {
    if (armed_ && !io_.remove(io_.path()))
      LOG_MSG((LM_WARNING, "Failed to remove residual backup piece '%s': %s\n", io_.path().c_str(),
               io_.error().c_str()));
  }
  Piece_Remover(const Piece_Remover&) = delete;
  Piece_Remover& operator=(const Piece_Remover&) = delete;
  void disarm() { armed_ = false; }

 private:
  Client_IO_Ex& io_;
  bool armed_ = true;
};

const char* suffix_of(const Client_IO_Base::Options& opts) {
  return compression_value_to_suffix(static_cast<int>(opts.compression_));
}

}  // namespace

Backup_Transfer::Backup_Transfer(VM_Backup_Params params, std::unique_ptr<RESTful_Client> client)
    : Backup_Plan(std::move(params), std::move(client)),
      bset_uuid_(new_uuid()),
      start_time_(std::time(nullptr)) {}

bool Backup_Transfer::backup_disks() {
  if (!prepare_disks(params_.opts_.parallel_workers_per_disk_, chunks_))
    return false;
  return transfer_chunks();
}

bool Backup_Transfer::transfer_chunks() {
  storage_size_ = 0;
  succeeded_chunk_ = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stored_.clear();
  }
  if (progress_) {
    progress_->total_size = set_size_;
    progress_->total_virtual_disk = static_cast<std::int32_t>(vm_disks_.size());
  }
  Thread_Task_Scheduler<Chunk> scheduler;
  if (!scheduler.register_stop_callback([this] { return is_canceled(); }) ||
      !scheduler.enable_owner_limit(static_cast<unsigned>(params_.opts_.parallel_disks_per_vm_)))
    return false;
  for (const auto& chunk : chunks_) {
    if (!scheduler.enqueue_task(chunk, chunk ? chunk->disk_path_.c_str() : nullptr, 1,
                                "backup_CAS_disk"))
      return false;
  }
  const int chunks = static_cast<int>(chunks_.size());
  const int threads = std::min(chunks, std::max(params_.opts_.parallel_disks_per_vm_,
                                                params_.opts_.parallel_workers_per_disk_));
  LOG_MSG((LM_INFO,
           "Activating %d thread(s) to backup the VM, disk(s) count = %d, chunk(s) count = %d.\n",
           threads, static_cast<int>(vm_disks_.size()), chunks));
  if (!scheduler.activate(
          threads, [this](const std::shared_ptr<Chunk>& chunk) { return backup_chunk_i(chunk); }))
    return false;
  scheduler.wait();
  // A stopped job keeps no set, even one whose chunks all got through.
  if (is_canceled()) {
    LOG_MSG((LM_WARNING, "Backup of CAS VM '%s' stopped.\n", params_.vm_name_.c_str()));
    return false;
  }
  return succeeded_chunk_ == chunks;
}

bool Backup_Transfer::open_client_io(const Chunk& chunk, Client_IO_Ex& io) const {
  if (!io.connect(params_.pool_url_, params_.io_opts_)) {
    LOG_MSG((LM_ERROR, "Failed to connect to storage pool '%s': %s\n", params_.pool_url_.c_str(),
             io.error().c_str()));
    return false;
  }
  if (!io.open(chunk.remote_path_, Client_IO_Ex::Write, 0, 0)) {
    LOG_MSG((LM_ERROR, "Failed to open '%s' on storage pool: %s\n", chunk.remote_path_.c_str(),
             io.error().c_str()));
    return false;
  }
  return true;
}

bool Backup_Transfer::init_image_writer(const Chunk& chunk, Image_Block_Writer& writer) const {
  if (!writer.init(image_block_size, 512, 1, 0)) {
    LOG_MSG(
        (LM_ERROR, "Failed to init image writer for CAS disk '%s'.\n", chunk.disk_path_.c_str()));
    return false;
  }
  std::uint8_t id[16];
  image_set_id(bset_uuid_, id);
  if (!writer.write_superblock(id, id)) {
    LOG_MSG((LM_ERROR, "Failed to write image super block for CAS disk '%s'.\n",
             chunk.disk_path_.c_str()));
    return false;
  }
  for (const Block& block : chunk.blocks_) {
    if (!writer.add_block(block.offset_, block.length_))
      return false;
  }
  return true;
}

Task_Base::Error Backup_Transfer::backup_chunk_i(const std::shared_ptr<Chunk>& chunk) const {
  if (chunk.get() == nullptr) {
    LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, chunk.get() is NULL:\n%?\n"));
    return Task_Base::Failed;
  }
  Client_IO_Ex io;
  if (!open_client_io(*chunk, io))
    return Task_Base::Failed;
  Piece_Remover remover(io);
  LOG_MSG((LM_DEBUG, "Backing up chunk %d of disk '%s' on CAS VM '%s', source size = %s.\n",
           chunk->index_, chunk->disk_path_.c_str(), params_.vm_name_.c_str(),
           size_to_str(chunk->size_).c_str()));
  Image_Block_Writer writer(&io);
  if (!init_image_writer(*chunk, writer))
    return Task_Base::Failed;
  // An empty chunk still becomes a whole image, one without blocks, so a restore reads every
  // piece the same way; it needs no disk connection.
  CVD_Connection conn;
  CVD_Disk_Handle disk;
  std::vector<std::uint8_t> buffer;
  if (chunk->size_ > 0) {
    const std::string& addr =
        params_.cvd_target_addr_.empty() ? params_.host_ip_ : params_.cvd_target_addr_;
    if (!conn.connect(params_.cvm_, addr, params_.vm_name_))
      return Task_Base::Failed;
    const bool with_snapshot = !offline_backup_ && use_internal_snapshot_;
    const char* snapshot = with_snapshot ? snapshot_name_.c_str() : nullptr;
    disk = conn.open(unify_path(chunk->disk_path_, chunk->is_rbd_, snapshot),
                     chunk->is_rbd_ ? nullptr : snapshot, CVD_OPEN_READ);
    if (!disk) {
      LOG_MSG((LM_ERROR, "Failed to open disk '%s' of VM on CVK '%s', snapshot = '%s'.\n",
               chunk->disk_path_.c_str(), params_.host_ip_.c_str(), snapshot ? snapshot : ""));
      return Task_Base::Failed;
    }
    if (!CHECK_TRUE(params_.opts_.read_buffer_size_ > 0))
      return Task_Base::Failed;
    buffer.resize(static_cast<std::size_t>(params_.opts_.read_buffer_size_));
  }
  bool read_failed = false;
  auto read = [&](std::uint64_t offset, std::size_t wanted, const void*& data) -> ssize_t {
    if (is_canceled())
      return -1;
    const std::size_t length = std::min(wanted, buffer.size());
    std::int64_t got = cvd_disk_read(disk.get(), offset, length, buffer.data());
    if (got != static_cast<std::int64_t>(length)) {
      read_failed = true;
      LOG_MSG((LM_ERROR, "Failed to read data from CAS VM '%s' on CVK '%s'.\n",
               params_.vm_name_.c_str(), params_.host_ip_.c_str()));
      return -1;
    }
    data = buffer.data();
    return static_cast<ssize_t>(length);
  };
  auto progress = [this](std::uint64_t bytes) {
    if (progress_)
      progress_->add_processed_size(bytes);
  };
  if (!writer.write_blocks(read, progress)) {
    // A failed read has said why; a stopped job is not a storage fault.
    if (!read_failed && !is_canceled())
      LOG_MSG((LM_ERROR, "Failed to write to storage pool: %s.\n", io.error().c_str()));
    return Task_Base::Failed;
  }
  // The object exists only once committed: a chunk whose close failed has no data to restore.
  if (!io.close()) {
    LOG_MSG((LM_ERROR, "Failed to close '%s' on storage pool: %s.\n", chunk->remote_path_.c_str(),
             io.error().c_str()));
    return Task_Base::Failed;
  }
  storage_size_ += io.storage_size();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stored_.insert(chunk->remote_path_);
  }
  ++succeeded_chunk_;
  remover.disarm();
  return Task_Base::Succeeded;
}

bool Backup_Transfer::is_stored(const Chunk& chunk) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stored_.count(chunk.remote_path_) != 0;
}

void Backup_Transfer::remove_stored() const {
  std::set<std::string> stored;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stored.swap(stored_);
  }
  if (stored.empty())
    return;
  Client_IO_Ex io;
  if (!io.connect(params_.pool_url_, params_.io_opts_)) {
    LOG_MSG((LM_WARNING,
             "Failed to connect to storage pool '%s' to remove %d residual piece(s): %s\n",
             params_.pool_url_.c_str(), static_cast<int>(stored.size()), io.error().c_str()));
    return;
  }
  for (const std::string& path : stored)
    if (!io.remove(path))
      LOG_MSG((LM_WARNING, "Failed to remove residual backup piece '%s': %s\n", path.c_str(),
               io.error().c_str()));
}

bool Backup_Transfer::save_vm_config(std::string& path) const {
  path = string_sprintf("/%s/%s/vm_config_%s_%s.json%s", filenamify(params_.host_name_).c_str(),
                        filenamify(params_.vm_name_).c_str(), timestamp_.c_str(),
                        job_def_subtype_to_string(backup_type_), suffix_of(params_.io_opts_));
  Client_IO_Ex io;
  if (!io.connect(params_.pool_url_, params_.io_opts_)) {
    LOG_MSG((LM_ERROR, "Failed to connect to storage pool '%s': %s\n", params_.pool_url_.c_str(),
             io.error().c_str()));
    return false;
  }
  if (!client_io_write_json(io, path, vm_detail_.dump())) {
    LOG_MSG((LM_ERROR, "Failed to save config of CAS VM '%s' to storage pool: %s\n",
             params_.vm_name_.c_str(), io.error().c_str()));
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  stored_.insert(path);
  return true;
}

bool Backup_Transfer::fill_catalog(H3C_CAS_Backup_Set& set) const {
  set.host_id_ = params_.host_id_;
  set.host_name_ = params_.host_name_;
  set.host_ip_ = params_.host_ip_;
  set.vm_id_ = params_.vm_id_;
  set.vm_title_ = params_.vm_title_;
  set.vm_name_ = params_.vm_name_;
  if (use_cbt_)
    set.cbt_name_ = snapshot_name_;
  for (const VM_Disk& disk : vm_disks_)
    set.vm_disks_.push_back(disk.dump());
  unsigned memory = 0;
  if (!save_vm_config(set.vm_config_path_) ||
      !vm_detail_.dump_cpu_mem(set.cpu_sockets_, set.cpu_cores_, memory))
    return false;
  set.memory_ = memory;
  std::string* const fields[] = {&set.name_, &set.host_uuid_, &set.agent_, &set.instance_version_,
                                 &set.pool_uuid_};
  const char* const keys[] = {"name", "host_uuid", "agent", "instance_version", "pool_uuid"};
  for (std::size_t i = 0; i < 5; ++i) {
    const JSON_Value* value =
        params_.catalog_.is_object() ? json_find(params_.catalog_, keys[i]) : nullptr;
    if (!value || !value->is_string()) {
      LOG_MSG((LM_ERROR, "Invalid CAS VM catalog: %s.\n",
               (std::string("missing string '") + keys[i] + "'").c_str()));
      return false;
    }
    *fields[i] = value->get<std::string>();
  }
  set.uuid_ = bset_uuid_;
  set.job_uuid_ = job_uuid_;
  set.run_uuid_ = run_uuid_;
  set.start_time_ = start_time_;
  set.definition_id_ = params_.def_id_;
  set.resource_uuid_ = params_.resource_uuid_;
  set.vm_uuid_ = params_.vm_uuid_;
  set.backup_type_ = job_def_subtype_to_string(backup_type_);
  const bool full = is_full_backup();
  set.incarnation_ = full ? bset_uuid_ : last_bset_incarnation_;
  set.base_ = full ? bset_uuid_ : last_bset_uuid_;
  set.set_size_ = set_size_;
  set.source_size_ = source_size_;
  set.add_piece(set.vm_config_path_, 0);
  for (const auto& chunk : chunks_) {
    if (chunk && is_stored(*chunk))
      set.add_piece(chunk->remote_path_, chunk->size_, chunk->disk_path_);
  }
  set.add_storage(set.pool_uuid_, storage_size_, JSON_Value{{"code_name", "reborn"}});
  return true;
}

bool Backup_Transfer::save_catalog() const {
  // A set missing a piece would restore a disk with holes; its stored chunks stay uncatalogued.
  if (succeeded_chunk_ != static_cast<int>(chunks_.size())) {
    LOG_MSG((LM_ERROR, "Backup of CAS VM '%s' is incomplete, %d of %d chunk(s) stored.\n",
             params_.vm_name_.c_str(), succeeded_chunk_.load(), static_cast<int>(chunks_.size())));
    return false;
  }
  H3C_CAS_Backup_Set set;
  if (!fill_catalog(set))
    return false;
  {
    // A commit that fails may still have reached the catalog: from here on the pieces are the
    // set's, never removed as residual.
    std::lock_guard<std::mutex> lock(mutex_);
    stored_.clear();
  }
  RESTful_Catalog_Operator catalog(params_.backupd_host_, params_.backupd_port_,
                                   params_.backupd_ssl_, params_.access_key_, -1,
                                   params_.retry_seconds_);
  if (!catalog.commit(set)) {
    LOG_MSG((LM_ERROR, "Failed to commit catalog for CAS VM '%s'.\n", params_.vm_name_.c_str()));
    return false;
  }
  return true;
}

}  // namespace h3ccas
