// The agent's jobs: the modules that run them, and every run started since the agent started,
// with its per-VM progress, its result and its log file
// ("<root>/var/log/brimlet5/jobs/<job uid>/<run id>.log").
#pragma once

#include "host/core/json.h"
#include "host/job/job.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class Module;

// What one module gives for jobs. Its manifest names the factories in a "jobs" section:
//   "jobs": {"creator": "H3CCAS_Job_Creator",
//            "backup": {"source": "H3CCAS_Backup_Source_Parser_Creator",
//                       "options": "H3CCAS_Backup_Options_Parser_Creator"},
//            "restore": {...}}
struct Job_Module {
  std::string name;
  std::shared_ptr<Job_Creator> creator;
  // By job type, then part ("source", "options").
  std::map<int, std::map<std::string, std::shared_ptr<YAJL_Handler_Creator>>> parsers;

  // False when the manifest has no "jobs" section; false after one log line when it is malformed
  // or a factory it names fails.
  static bool load(Module& module, Job_Module& out);
};

class Job_Runs {
 public:
  Job_Runs() = default;
  Job_Runs(const Job_Runs&) = delete;
  Job_Runs& operator=(const Job_Runs&) = delete;
  // Stops every run and waits for them.
  ~Job_Runs();

  void add_module(Job_Module module);

  // Parses a definition and starts a run of it: {"run_id", "job_uid"}. False with a one-line
  // reason: the definition is invalid, no module runs it, a run of the same job is going on, the
  // run cannot start.
  bool run(const std::string& definition, JSON_Value& out, std::string& error);
  // {"run_id", "job_uid", "name", "type", "state", "running", "succeeded", "start_time",
  //  "end_time", "log", "vms": [{"uuid", "name", "status", "total_bytes", "processed_bytes",
  //  "virtual_disks", "processed_virtual_disks", "start_time", "end_time"}], "result"}
  bool status(const std::string& run_id, JSON_Value& out, std::string& error) const;
  // Asks the run to stop (it ends cancelled). False when there is no such run or it has ended.
  bool stop(const std::string& run_id, std::string& error);
  // The status of every run, oldest first, without "vms" and "result".
  JSON_Value list() const;
  // The run's log text from byte `offset`: {"text", "next_offset"}.
  bool log(const std::string& run_id, std::uint64_t offset, JSON_Value& out,
           std::string& error) const;
  // Waits until the run has ended.
  bool wait(const std::string& run_id) const;

 private:
  struct Run;
  std::shared_ptr<Run> find(const std::string& run_id, std::string& error) const;
  YAJL_Handler_Creator* resolve(const Job_Definition& def, const char* part) const;
  const Job_Module* module_of(const Job_Definition& def) const;

  mutable std::mutex mutex_;
  std::vector<Job_Module> modules_;
  std::vector<std::shared_ptr<Run>> runs_;
};

// "<root>/var/log/brimlet5/jobs/<job uid>/<run id>.log"
std::string job_run_log_path(const std::string& job_uid, const std::string& run_id);
