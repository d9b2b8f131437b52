#include "host/job/subtype.h"

#include <cstring>

namespace {

const struct {
  const char* name;
  Job_Definition_Subtype subtype;
} s_subtypes[] = {
    {"full", Job_Definition_Subtype::Full},
    {"incremental", Job_Definition_Subtype::Incremental},
    {"differential", Job_Definition_Subtype::Differential},
};

}  // namespace

Job_Definition_Subtype job_def_subtype_from_string(const char* text, std::size_t length) {
  if (!text)
    return Job_Definition_Subtype::Unknown;
  for (const auto& e : s_subtypes)
    if (std::strlen(e.name) == length && std::memcmp(e.name, text, length) == 0)
      return e.subtype;
  return Job_Definition_Subtype::Unknown;
}

const char* job_def_subtype_to_string(Job_Definition_Subtype subtype) {
  for (const auto& e : s_subtypes)
    if (e.subtype == subtype)
      return e.name;
  return "unknown";
}
