#include "host/job/event_handler.h"

#include <iterator>

namespace {
const char* const state_names[] = {"pending", "running", "completed", "failed"};
}

const char* vm_job_state_name(std::int32_t state) {
  if (state < 0 || state >= static_cast<std::int32_t>(std::size(state_names)))
    return nullptr;
  return state_names[state];
}

std::int32_t vm_job_state_from_name(const std::string& name) {
  for (std::int32_t state = 0; vm_job_state_name(state) != nullptr; ++state) {
    if (name == vm_job_state_name(state))
      return state;
  }
  return VM_Job_Progress::pending;
}
