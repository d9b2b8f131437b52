#include "h3ccas/job/executor_base.h"

#include "host/core/log.h"
#include "host/storage/codec.h"

namespace h3ccas {

Job_Mutex::Guard make_job_guard(Job& job, const std::string& key) {
  return Job_Mutex::acquire(key, job, job_guard_retry_period, [&key] {
    LOG_MSG((LM_INFO, "Waiting for other jobs of this CAS(%s) to be completed.\n", key.c_str()));
  });
}

bool check_opt(const Job_Definition& def, const std::string& value, const char* option,
               bool valid) {
  if (!valid)
    LOG_MSG((LM_ERROR, "Invalid value '%s' of option '%s' of CAS job(uuid=%s, name=%s).\n",
             value.c_str(), option, def.uid.c_str(), def.name.c_str()));
  return valid;
}

bool check_range(const Job_Definition& def, std::int64_t value, const char* option,
                 std::int64_t low, std::int64_t high) {
  return check_opt(def, std::to_string(value), option, low <= value && value <= high);
}

bool check_buffer_size(const Job_Definition& def, int size, const char* option) {
  return check_opt(def, std::to_string(size), option,
                   65536 <= size && size <= 8388608 && size % 4096 == 0);
}

bool check_cvd_sdk_log_level(const Job_Definition& def, const std::string& level) {
  return check_opt(def, level, "cvd_sdk_log_level",
                   level == "debug" || level == "info" || level == "warn" || level == "error");
}

bool check_compression_level(const Job_Definition& def, int method, int level) {
  const Codec_Info* codec = codec_info(method);
  const bool valid = codec == nullptr || codec->max_level == 0 || level == 0 ||
                     (codec->min_level <= level && level <= codec->max_level);
  return check_opt(def, std::to_string(level), "compression_level", valid);
}

bool VM_Results::add(const std::string& vm_id, VM_History history) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!histories_.histories_.emplace(vm_id, std::move(history)).second) {
    LOG_MSG((LM_ERROR, "VM '%s' is listed twice in the job.\n", vm_id.c_str()));
    return false;
  }
  return true;
}

bool VM_Results::record(const std::string& vm_id, bool succeeded, std::uint64_t storage_size,
                        std::uint64_t source_size, std::uint64_t set_size) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = histories_.histories_.find(vm_id);
    if (it == histories_.histories_.end()) {
      LOG_MSG((LM_ERROR, "A result for VM '%s', which is not in the job.\n", vm_id.c_str()));
      return false;
    }
    VM_History& h = it->second;
    h.succeeded = succeeded;
    if (!succeeded)
      return true;
    h.storage_size = storage_size;
    h.source_size = source_size;
    h.set_size = set_size;
  }
  storage_size_ += storage_size;
  source_size_ += source_size;
  set_size_ += set_size;
  ++succeeded_;
  return true;
}

JSON_Value VM_Results::eject() {
  std::lock_guard<std::mutex> lock(mutex_);
  return histories_.eject();
}

}  // namespace h3ccas
