// Subtypes of a job definition and their names, as job definitions and servant parameters
// carry them.
#pragma once

#include <cstddef>

enum class Job_Definition_Subtype { Unknown = 0, Full = 1, Incremental = 2, Differential = 3 };

// "full", "incremental", "differential"; the text need not end in NUL. Any other text, in any
// other case, is Unknown.
Job_Definition_Subtype job_def_subtype_from_string(const char* text, std::size_t length);
// The name of `subtype`; "unknown" for Unknown and for values outside the enumeration.
const char* job_def_subtype_to_string(Job_Definition_Subtype subtype);
