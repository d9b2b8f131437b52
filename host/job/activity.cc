#include "host/job/activity.h"

#include "host/core/log.h"

#include <cstring>

void Job_Activity::reset() {
  *this = Job_Activity{};
}

bool Job_Activity::set_text(char (&field)[id_capacity], const std::string& text) {
  if (text.size() >= id_capacity) {
    LOG_MSG((LM_ERROR, "Text '%s' is longer than %d bytes.\n", text.c_str(),
             static_cast<int>(id_capacity - 1)));
    return false;
  }
  std::memcpy(field, text.c_str(), text.size() + 1);
  return true;
}

std::string Job_Activity::text(const char (&field)[id_capacity]) {
  return std::string(field, strnlen(field, id_capacity));
}

bool open_job_activity(Job_Activity_Handle& handle, const std::string& job_uid, bool create) {
  return handle.open(job_uid.c_str(), "activity", create, true, 0750);
}
