// A job definition: what to run (the module's "source"), how (its "options"), and the host's own
// settings (target pool, retries, scripts).
#pragma once

#include "host/core/json.h"
#include "host/job/subtype.h"
#include "host/job/yajl_parser.h"

#include <functional>
#include <memory>
#include <string>

class Job_Definition {
 public:
  enum Type { Backup = 1, Restore = 2 };
  enum Schedule_Type { Immediate = 0, On_Demand = 7 };

  // The creator of the parser of `part` ("source" or "options") for a definition whose other keys
  // are those read so far (at least "type", and "module" when given); null when no module parses
  // it (the parse then fails naming the part).
  using Parser_Resolver =
      std::function<YAJL_Handler_Creator*(const Job_Definition& def, const char* part)>;

  // Parses the text of a definition, streaming "source" and "options" into the resolver's parsers
  // (a part seen before "type" is kept and handed over once the parse ends). False with the
  // reason in `error` (one line, no log): malformed JSON, a key of the wrong type, a missing "uid",
  // "type", "source" or "options", an unparsable part.
  bool parse(const std::string& text, const Parser_Resolver& resolver, std::string& error);
  // The definition as JSON text; the parts are written by their own records. Empty on failure.
  std::string generate() const;

  std::string uid;
  std::string name;
  std::string module;  // the module running it; empty: the only one that runs jobs
  int type = 0;
  Job_Definition_Subtype subtype = Job_Definition_Subtype::Unknown;
  std::string host_id;  // the protected entry (for CAS: the CVM entry's uuid)
  std::string agent;
  std::string target_id, target_device, target_name;  // the storage pool
  unsigned retry_count = 0;
  unsigned retry_interval = 0;  // seconds
  unsigned max_seconds_retry = 0;
  int schedule_type = Immediate;
  // Shell scripts run by /bin/sh; empty: none. The precondition decides whether a run starts.
  std::string precondition, pre_action, post_action;
  bool ignore_pre_action_failure = false;
  bool ignore_post_action_failure = false;
  bool run_post_action_always = false;
  std::shared_ptr<Job_Source> source;
  std::shared_ptr<Job_Options> options;
};

// "backup", "restore"; nullptr for any other type.
const char* job_type_name(int type);
