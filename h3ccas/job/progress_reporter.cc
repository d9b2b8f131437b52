#include "h3ccas/job/progress_reporter.h"

#include "host/core/log.h"

#include <ctime>

namespace h3ccas {

namespace {

void set_state(VM_Job_Progress& entry, std::int32_t state) {
  entry.state = state;
  entry.status = vm_job_state_name(state);
}

}  // namespace

Progress_Reporter::Progress_Reporter(Job_Event_Handler& handler, const Job_Activity& activity)
    : handler_(handler), activity_(activity) {}

bool Progress_Reporter::add_vm(const std::string& uuid, const std::string& name,
                               const std::string& status) {
  std::lock_guard<std::mutex> lock(mutex_);
  // The wrappers point into entries_, which must not move once they exist.
  if (activated_)
    return check_failed(__FILE__, __LINE__, "activated_ is true");
  VM_Job_Progress entry;
  entry.uuid = uuid;
  entry.name = name;
  if (!status.empty()) {
    entry.status = status;
    entry.state = vm_job_state_from_name(status);
  }
  entries_.push_back(std::move(entry));
  return true;
}

bool Progress_Reporter::activate(const std::string& job_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (activated_)
    return check_failed(__FILE__, __LINE__, "activated_ is true");
  activated_ = true;
  wrapper_.reserve(entries_.size());
  for (auto& entry : entries_) {
    wrapper_.push_back({&entry, VM_Progress_Info_Handle()});
    VM_Progress_Wrapper& w = wrapper_.back();
    if (!w.handle.open(job_id.c_str(), entry.uuid.c_str(), true, true, 0750))
      return false;
    if (w.handle.get() == nullptr)
      return check_failed(__FILE__, __LINE__, "w.handle.get() is NULL");
    w.handle->state = VM_Progress_Info::pending;
  }
  return true;
}

bool Progress_Reporter::push_update_i(bool final) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::int64_t now = std::time(nullptr);
  for (auto& w : wrapper_) {
    const VM_Progress_Info* info = w.handle.get();
    if (info == nullptr)
      continue;
    VM_Job_Progress& entry = *w.entry;
    // The servant writes while we read: take each field once.
    entry.total_bytes = VM_Progress_Info::load(info->total_size);
    entry.processed_bytes = VM_Progress_Info::load(info->processed_size);
    entry.virtual_disk_count = VM_Progress_Info::load(info->total_virtual_disk);
    entry.processed_virtual_disk_count = VM_Progress_Info::load(info->processed_virtual_disk);
    entry.start_time = VM_Progress_Info::load(info->start_time);
    const std::int32_t state = VM_Progress_Info::load(info->state);

    if (final) {
      set_state(entry, state == VM_Progress_Info::completed ? VM_Job_Progress::completed
                                                            : VM_Job_Progress::failed);
      if (entry.start_time != 0)
        entry.end_time = now;
      continue;
    }
    switch (state) {
      case VM_Progress_Info::running:
        set_state(entry, VM_Job_Progress::running);
        break;
      case VM_Progress_Info::completed:
        set_state(entry, VM_Job_Progress::completed);
        entry.end_time = now;
        w.handle.close();  // its numbers are final
        break;
      case VM_Progress_Info::failed:
        set_state(entry, VM_Job_Progress::failed);
        entry.end_time = now;
        break;
      default:
        break;
    }
  }
  return handler_.handle_vm_progress(entries_, activity_.state, final);
}

}  // namespace h3ccas
