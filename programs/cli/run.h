// What the commands that run a job on the agent share: the lookups they make first and the run
// itself watched until it ends (live progress per VM, then a summary and one failure line).
#pragma once

#include "programs/cli/cli.h"
#include "programs/cli/table.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>

// An unsigned number (bytes) or an integer (seconds) of a record; 0 when absent or of another
// type.
std::uint64_t bytes_of(const JSON_Value& record, const char* key);
std::int64_t seconds_of(const JSON_Value& record, const char* key);
// h:mm:ss
std::string duration_text(std::int64_t seconds);
// The job result's entry of VM `uuid` in a finished run's status; null when there is none.
const JSON_Value* history_of(const JSON_Value& status, const std::string& uuid);

// The one host of the CVM whose id or else whose name is `key`.
bool find_host(const std::string& cvm_uuid, const std::string& key, JSON_Value& host,
               std::string& error);
// The JSON object in `file` (none: an empty object).
bool read_options(const std::string& file, JSON_Value& options, std::string& error);

// One VM of a job.status answer as a progress line at `now` (seconds since the epoch).
std::string progress_line(const JSON_Value& vm, std::int64_t now);

// Progress of a run's VMs: redrawn in place on a terminal, otherwise one line whenever a VM's
// state or byte count changes.
class Progress_View {
 public:
  Progress_View(std::ostream& out, bool terminal) : out_(out), terminal_(terminal) {}
  void update(const JSON_Value& status, std::int64_t now);

 private:
  std::ostream& out_;
  bool terminal_;
  std::size_t drawn_ = 0;                    // lines on screen (terminal)
  std::map<std::string, std::string> seen_;  // VM uuid -> its last state and bytes
};

// Why a finished run failed, in one line; `log` is the run's log text.
std::string failure_reason(const JSON_Value& status, const std::string& log);

// Runs `definition` on the agent. Without `wait` prints the run's id; otherwise shows the VMs'
// progress every `interval`, then `summary` of the final status (the status itself with --json),
// and fails with "<what> run <id> failed: <reason>" unless the run succeeded.
int run_job(const Cli& cli, const JSON_Value& definition, const char* what, bool wait,
            std::chrono::milliseconds interval,
            const std::function<void(const JSON_Value& status)>& summary);
