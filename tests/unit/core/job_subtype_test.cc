#include "host/job/subtype.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(Job_Subtype, NamesBothWays) {
  const std::pair<const char*, Job_Definition_Subtype> names[] = {
      {"full", Job_Definition_Subtype::Full},
      {"incremental", Job_Definition_Subtype::Incremental},
      {"differential", Job_Definition_Subtype::Differential},
  };
  for (const auto& [name, subtype] : names) {
    EXPECT_EQ(job_def_subtype_from_string(name, std::strlen(name)), subtype) << name;
    EXPECT_STREQ(job_def_subtype_to_string(subtype), name);
  }
  EXPECT_STREQ(job_def_subtype_to_string(Job_Definition_Subtype::Unknown), "unknown");
  EXPECT_STREQ(job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(42)), "unknown");
}

TEST(Job_Subtype, OnlyTheExactTextWithinItsLengthCounts) {
  // The length bounds the text: a prefix of a longer buffer is read, no NUL needed.
  EXPECT_EQ(job_def_subtype_from_string("fullness", 4), Job_Definition_Subtype::Full);
  EXPECT_EQ(job_def_subtype_from_string("incremental", 4), Job_Definition_Subtype::Unknown);
  const char* unknown[] = {"Full", "FULL", "full ", "unknown", "", "differentia"};
  for (const char* text : unknown)
    EXPECT_EQ(job_def_subtype_from_string(text, std::strlen(text)), Job_Definition_Subtype::Unknown)
        << "'" << text << "'";
  EXPECT_EQ(job_def_subtype_from_string(nullptr, 0), Job_Definition_Subtype::Unknown);
}

}  // namespace
