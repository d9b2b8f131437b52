#include "h3ccas/servant/backup_plan.h"

#include "host/catalog/catalog.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "host/storage/client_io.h"

namespace h3ccas {

namespace {

// CVM's allocation figure and its block map disagree by up to this much on a complete map.
const std::uint64_t allocation_slack = 104857600;

// The member `key` of a device entry when it is a string; empty otherwise.
std::string device_text(const JSON_Value& entry, const char* key) {
  const JSON_Value* value = entry.is_object() ? json_find(entry, key) : nullptr;
  return value && value->is_string() ? value->get<std::string>() : std::string();
}

std::string dump_json(const JSON_Value& value) {
  return value.dump(-1, ' ', false, JSON_Value::error_handler_t::replace);
}

}  // namespace

std::vector<std::pair<std::vector<Block>, std::uint64_t>> split_blocks(std::vector<Block> blocks,
                                                                       std::uint64_t align, int n,
                                                                       std::uint64_t& total) {
  std::uint64_t sum = 0;
  for (const Block& block : blocks)
    sum += block.length_;
  total += sum;
  std::vector<std::pair<std::vector<Block>, std::uint64_t>> chunks;
  if (blocks.empty() || n < 2 || sum == 0) {
    chunks.emplace_back(std::move(blocks), sum);
    return chunks;
  }
  // Rounded up to whole sectors, so no chunk but the last ends inside one; a plan smaller than a
  // sector per chunk still fills its first chunk.
  std::uint64_t per = align ? (sum / n + align - 1) / align * align : sum / n;
  if (per == 0)
    per = align ? align : 1;
  std::size_t next = 0;
  for (int i = 0; i < n && next < blocks.size(); ++i) {
    // per × n covers the sum, so the last chunk only ever takes what is left.
    const bool last = i == n - 1;
    auto& chunk = chunks.emplace_back();
    while (next < blocks.size() && (last || chunk.second < per)) {
      Block& block = blocks[next];
      const std::uint64_t room = per - chunk.second;
      if (last || block.length_ <= room) {
        chunk.first.push_back(block);
        chunk.second += block.length_;
        ++next;
      } else {
        chunk.first.push_back(Block{block.offset_, room});
        chunk.second += room;
        block.offset_ += room;
        block.length_ -= room;
      }
    }
  }
  return chunks;
}

Backup_Plan::Backup_Plan(VM_Backup_Params params, std::unique_ptr<RESTful_Client> client)
    : params_(std::move(params)),
      client_(client ? std::move(client) : std::make_unique<RESTful_Client>(params_.cvm_)),
      backup_type_(params_.backup_type_) {}

const CAS_Storage_Pool* Backup_Plan::find_cas_pool(const std::string& disk_path) {
  if (cas_pools_.empty() && !client_->list_storage_pool(params_.host_id_, cas_pools_)) {
    cas_pools_.clear();
    LOG_MSG(
        (LM_ERROR, "Failed to get storage pools of CAS CVK '%s'.\n", params_.host_name_.c_str()));
    return nullptr;
  }
  for (const CAS_Storage_Pool& pool : cas_pools_) {
    if (disk_path.compare(0, pool.path_.size(), pool.path_) == 0)
      return &pool;
  }
  LOG_MSG((LM_ERROR, "Failed to get CAS storage pool of disk '%s' of VM '%s'.\n", disk_path.c_str(),
           params_.vm_name_.c_str()));
  return nullptr;
}

bool Backup_Plan::check_vm_storage_quota() {
  const VM_Backup_Params::Options& opts = params_.opts_;
  for (const JSON_Value& entry : vm_detail_.storages_) {
    const std::string path = device_text(entry, "path");
    if (device_text(entry, "device") != "disk" || path.empty())
      continue;
    const CAS_Storage_Pool* pool = find_cas_pool(path);
    if (!pool)
      return false;
    const bool bytes_kept =
        opts.storage_reserved_bytes_ == 0 || pool->free_bytes_ > opts.storage_reserved_bytes_;
    const bool percent_kept =
        opts.storage_reserved_percent_ < 1 ||
        pool->free_bytes_ * 100 >
            static_cast<std::uint64_t>(opts.storage_reserved_percent_) * pool->total_bytes_;
    if (!bytes_kept || !percent_kept) {
      LOG_MSG((LM_ERROR,
               "CAS storage pool '%s' available space(free=%s, total=%s) is not enough for "
               "backing up VM '%s'.\n",
               pool->name_.c_str(), size_to_str(pool->free_bytes_).c_str(),
               size_to_str(pool->total_bytes_).c_str(), params_.vm_name_.c_str()));
      return false;
    }
  }
  return true;
}

namespace {

// The catalog's base view for the VM of `params`: its sets, newest first; null on failure.
JSON_Value get_base_catalog(const VM_Backup_Params& params) {
  RESTful_Catalog_Operator catalog(params.backupd_host_, params.backupd_port_, params.backupd_ssl_,
                                   params.access_key_, -1, params.retry_seconds_);
  const JSON_Value filter = {{"resource_uuid", params.resource_uuid_},
                             {"host_id", params.host_id_},
                             {"vm_id", params.vm_id_}};
  JSON_Value answer;
  if (!catalog.get_view("h3ccas", "base_catalog", filter, answer))
    answer = nullptr;
  return answer;
}

}  // namespace

bool Backup_Plan::check_base_backup() {
  // A failed view is reported by the check, as an answer without a base.
  return check_base_backup_i(get_base_catalog(params_));
}

void Backup_Plan::find_last_cbt() {
  const JSON_Value answer = get_base_catalog(params_);
  if (answer.is_array() && !answer.empty() && answer.front().is_object())
    last_cbt_ = answer.front().value("cbt_name", "");
}

bool Backup_Plan::check_base_backup_i(const JSON_Value& answer) {
  if (!answer.is_array() || answer.empty()) {
    LOG_MSG((LM_ERROR, "Failed to retrieve base catalogs for CAS VM '%s' on CVK '%s'.\n",
             params_.vm_name_.c_str(), params_.host_name_.c_str()));
    return false;
  }
  std::string pool_uuid;
  try {
    const JSON_Value& base = answer.front();
    if (!base.is_object())
      throw JSON_Error("base catalog is not an object");
    json_extract(base, "pool_uuid", pool_uuid);
    json_extract(base, "incarnation", last_bset_incarnation_);
    json_extract(base, "uuid", last_bset_uuid_);
    json_extract(base, "cbt_name", last_cbt_);
  } catch (const std::exception&) {
    LOG_MSG((LM_ERROR, "Unrecognized response from CAS base_catalog view: %s.\n",
             dump_json(answer).c_str()));
    return false;
  }
  // A chain cannot continue in another pool than the one holding its base.
  const JSON_Value* job_pool =
      params_.catalog_.is_object() ? json_find(params_.catalog_, "pool_uuid") : nullptr;
  if (!job_pool || !job_pool->is_string() || job_pool->get<std::string>() != pool_uuid) {
    LOG_MSG((LM_WARNING, "Storage pool for CAS VM '%s' changed.\n", params_.vm_name_.c_str()));
    return false;
  }
  if (last_cbt_.empty()) {
    LOG_MSG((LM_INFO, "CBTer has not been created in the last backup.\n"));
    return false;
  }
  if (!client_->get_CBTer(params_.vm_name_, last_cbt_, cbt_info_)) {
    LOG_MSG((LM_ERROR, "Failed to get info of last CBTer '%s' of CAS VM '%s'.\n", last_cbt_.c_str(),
             params_.vm_name_.c_str()));
    return false;
  }
  bool valid = !cbt_info_.empty();
  for (const auto& image : cbt_info_)
    valid = valid && image.second;
  if (!valid) {
    LOG_MSG((LM_ERROR, "CBTer '%s' of last backup of CAS VM '%s' is invalid.\n", last_cbt_.c_str(),
             params_.vm_name_.c_str()));
    return false;
  }
  return true;
}

bool Backup_Plan::list_backing_files(std::set<std::string>& files) {
  files.clear();
  VM_Detail detail;
  if (!client_->get_vm_detail(params_.vm_id_, detail))
    return false;
  for (const JSON_Value& entry : detail.storages_) {
    std::string backing = device_text(entry, "backingFile");
    if (device_text(entry, "device") == "disk" && !backing.empty())
      files.insert(std::move(backing));
  }
  return true;
}

bool Backup_Plan::get_changed_blocks(const std::string& disk_path, std::vector<Block>& blocks) {
  auto image = cbt_info_.find(disk_path);
  if (image == cbt_info_.end() || !image->second)
    return false;
  return client_->get_changed_blocks(params_.vm_id_, disk_path, last_cbt_,
                                     use_external_cbt() ? snapshot_name_ : std::string(), blocks);
}

bool Backup_Plan::use_whole_disk(const VM_Disk& disk, std::vector<Block>& blocks) const {
  blocks.assign(1, Block{0, disk.total_bytes_});
  LOG_MSG((LM_INFO,
           "Unable to get allocated or changed blocks of disk '%s' (format=%s, type=%s), backup "
           "the whole disk.\n",
           disk.path_.c_str(), disk.format_.c_str(), disk.file_type_.c_str()));
  return true;
}

bool Backup_Plan::get_backup_blocks(const VM_Disk& disk, std::vector<Block>& blocks) {
  blocks.clear();
  // CAS keeps no block map of RBD images.
  if (disk.pool_type_ == "rbd")
    return use_whole_disk(disk, blocks);
  if (!is_full_backup()) {
    if (!get_changed_blocks(disk.path_, blocks))
      return use_whole_disk(disk, blocks);
  } else {
    const bool frozen = use_internal_snapshot_ || use_external_cbt();
    if (!client_->get_disk_blocks(params_.host_id_, params_.vm_id_, disk.path_,
                                  frozen ? snapshot_name_ : std::string(), blocks))
      return use_whole_disk(disk, blocks);
    if (blocks.empty() && disk.alloc_bytes_ != 0)
      return use_whole_disk(disk, blocks);
    std::uint64_t sum = 0;
    for (const Block& block : blocks)
      sum += block.length_;
    if (sum + allocation_slack < disk.alloc_bytes_) {
      LOG_MSG((LM_INFO,
               "Incomplete allocated blocks detected, disk '%s', used size = %s, allocated blocks "
               "got %s.\n",
               disk.path_.c_str(), size_to_str(disk.alloc_bytes_).c_str(),
               size_to_str(sum).c_str()));
      return use_whole_disk(disk, blocks);
    }
  }
  if (blocks.empty())
    LOG_MSG((LM_WARNING,
             "Allocated or changed blocks of disk '%s' is empty, backup skipped for it.\n",
             disk.path_.c_str()));
  return true;
}

bool Backup_Plan::prepare_disks(int n, std::vector<std::shared_ptr<Chunk>>& chunks) {
  std::set<std::string> backing_files;
  if (use_external_snapshot() && !list_backing_files(backing_files))
    return false;
  const std::string host = filenamify(params_.host_name_);
  const std::string vm = filenamify(params_.vm_name_);
  const char* type = job_def_subtype_to_string(backup_type_);
  const char* suffix = compression_value_to_suffix(static_cast<int>(params_.io_opts_.compression_));
  for (const JSON_Value& entry : vm_detail_.storages_) {
    if (device_text(entry, "device") != "disk")
      continue;
    VM_Disk disk;
    if (!disk.load(entry))
      return false;
    if (use_external_snapshot() && backing_files.count(disk.path_) == 0) {
      LOG_MSG((LM_WARNING,
               "Skip backing up disk '%s', because it is not included in the snapshot.\n",
               disk.path_.c_str()));
      continue;
    }
    const CAS_Storage_Pool* pool = find_cas_pool(disk.path_);
    if (!pool)
      return false;
    disk.pool_name_ = pool->name_;
    disk.pool_path_ = pool->path_;
    disk.pool_type_ = pool->type_;
    std::vector<Block> blocks;
    if (!get_backup_blocks(disk, blocks))
      return false;
    std::uint64_t total = 0;
    auto parts = split_blocks(std::move(blocks), 512, n, total);
    const std::string disk_name = filenamify(disk.path_);
    for (std::size_t i = 0; i < parts.size(); ++i) {
      auto chunk = std::make_shared<Chunk>();
      chunk->disk_path_ = disk.path_;
      chunk->index_ = static_cast<int>(i);
      chunk->remote_path_ =
          string_sprintf("/%s/%s/%s_%s_%s_%d%s", host.c_str(), vm.c_str(), disk_name.c_str(),
                         timestamp_.c_str(), type, chunk->index_, suffix);
      chunk->blocks_ = std::move(parts[i].first);
      chunk->size_ = parts[i].second;
      chunk->disk_index_ = vm_disks_.size();
      chunk->is_rbd_ = disk.pool_type_ == "rbd";
      chunks.push_back(std::move(chunk));
    }
    set_size_ += total;
    source_size_ += disk.total_bytes_;
    disk_chunks_count_.push_back(static_cast<int>(parts.size()));
    LOG_MSG((LM_INFO,
             "Disk added to back up, path='%s', type=%s, format=%s, mode=%s, backup size=%Q, used "
             "size=%Q, total size=%Q.\n",
             disk.path_.c_str(), disk.file_type_.c_str(), disk.format_.c_str(),
             provision_mode_to_str(disk.provisioning_mode_), static_cast<ACE_UINT64>(total),
             static_cast<ACE_UINT64>(disk.alloc_bytes_),
             static_cast<ACE_UINT64>(disk.total_bytes_)));
    vm_disks_.push_back(std::move(disk));
  }
  if (vm_disks_.empty()) {
    LOG_MSG((LM_ERROR, "All disks do not support backing up.\n"));
    return false;
  }
  return true;
}

}  // namespace h3ccas
