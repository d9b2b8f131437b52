#include "host/job/runs.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/text.h"
#include "host/core/unique_fd.h"
#include "host/module/module.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>

namespace {

// A job uid names a folder of its own: one plain path component.
bool valid_uid(const std::string& uid) {
  return !uid.empty() && uid.size() <= 63 && uid[0] != '.' &&
         std::all_of(uid.begin(), uid.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
         });
}

// The run's log file.
class Run_Log {
 public:
  bool open(const std::string& path) {
    fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
    if (!fd_)
      LOG_MSG((LM_ERROR, "Failed to open job log '%s': %m.\n", path.c_str()));
    return static_cast<bool>(fd_);
  }
  void write(const std::string& line) {
    std::string text = line;
    if (text.empty() || text.back() != '\n')
      text += '\n';
    std::lock_guard<std::mutex> lock(mutex_);
    if (::write(fd_.get(), text.data(), text.size()) < 0) {
      // Nothing to do: the agent's own log still has the line.
    }
  }

 private:
  std::mutex mutex_;
  Unique_Fd fd_;
};

}  // namespace

struct Job_Runs::Run : Job_Event_Handler {
  std::string run_id, log_path;
  std::shared_ptr<Job_Creator> creator;  // keeps the module loaded while the job lives
  std::shared_ptr<Job> job;
  std::shared_ptr<Run_Log> log;
  mutable std::mutex mutex;
  std::vector<VM_Job_Progress> vms;

  void handle_start_job(Job& j) override {
    LOG_MSG((LM_INFO, "Job '%s' (%s) run %s started.\n", j.definition().name.c_str(),
             j.definition().uid.c_str(), run_id.c_str()));
  }
  void handle_success(Job& j) override { ended(j, "succeeded"); }
  void handle_canceled(Job& j) override { ended(j, "was stopped"); }
  void handle_failure(Job& j) override { ended(j, "failed"); }
  bool handle_vm_progress(const std::vector<VM_Job_Progress>& progress, int, bool) override {
    std::lock_guard<std::mutex> lock(mutex);
    vms = progress;
    return true;
  }
  void ended(Job& j, const char* how) {
    LOG_MSG((LM_INFO, "Job '%s' (%s) run %s %s.\n", j.definition().name.c_str(),
             j.definition().uid.c_str(), run_id.c_str(), how));
  }

  JSON_Value to_json(bool full) const {
    const Job_Definition& def = job->definition();
    const char* type = job_type_name(def.type);
    bool running = job->is_running();
    JSON_Value out = {{"run_id", run_id},
                      {"job_uid", def.uid},
                      {"name", def.name},
                      {"type", type ? type : "unknown"},
                      {"state", job_state_name(job->state())},
                      {"running", running},
                      {"succeeded", !running && job->succeeded()},
                      {"start_time", job->start_time()},
                      {"end_time", job->end_time()},
                      {"log", log_path}};
    if (!full)
      return out;
    JSON_Value list = JSON_Value::array();
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& vm : vms)
      list.push_back({{"uuid", vm.uuid},
                      {"name", vm.name},
                      {"status", vm.status},
                      {"total_bytes", vm.total_bytes},
                      {"processed_bytes", vm.processed_bytes},
                      {"virtual_disks", vm.virtual_disk_count},
                      {"processed_virtual_disks", vm.processed_virtual_disk_count},
                      {"start_time", vm.start_time},
                      {"end_time", vm.end_time}});
    out["vms"] = std::move(list);
    out["result"] = job->result();
    return out;
  }
};

std::string job_run_log_path(const std::string& job_uid, const std::string& run_id) {
  return brimlet_paths::log_dir() + "/jobs/" + job_uid + "/" + run_id + ".log";
}

bool Job_Module::load(Module& module, Job_Module& out) {
  const JSON_Value* jobs = json_find(module.manifest(), "jobs");
  if (!jobs)
    return false;
  out = Job_Module{};
  out.name = module.name();
  try {
    std::string creator;
    json_extract(json_object(*jobs), "creator", creator);
    if (!(out.creator = module.make<Job_Creator>(creator)))
      return false;
    for (int type : {Job_Definition::Backup, Job_Definition::Restore}) {
      JSON_Value parts;
      if (!json_extract_object(*jobs, job_type_name(type), parts, false))
        continue;
      for (const char* part : {"source", "options"}) {
        std::string suffix;
        json_extract(parts, part, suffix);
        auto parser = module.make<YAJL_Handler_Creator>(suffix);
        if (!parser)
          return false;
        out.parsers[type][part] = parser;
      }
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid 'jobs' in the manifest of module '%s': %s.\n",
             module.name().c_str(), e.what()));
    return false;
  }
  return true;
}

Job_Runs::~Job_Runs() {
  std::vector<std::shared_ptr<Run>> runs;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    runs = runs_;
  }
  for (auto& r : runs)
    r->job->stop();
  for (auto& r : runs) {
    r->job->wait();
    r->job->set_event_handler(nullptr);  // the run and its job hold each other
  }
}

void Job_Runs::add_module(Job_Module module) {
  std::lock_guard<std::mutex> lock(mutex_);
  modules_.push_back(std::move(module));
}

const Job_Module* Job_Runs::module_of(const Job_Definition& def) const {
  if (def.module.empty())
    return modules_.size() == 1 ? &modules_[0] : nullptr;
  for (const auto& m : modules_)
    if (m.name == def.module)
      return &m;
  return nullptr;
}

YAJL_Handler_Creator* Job_Runs::resolve(const Job_Definition& def, const char* part) const {
  const Job_Module* m = module_of(def);
  if (!m)
    return nullptr;
  auto type = m->parsers.find(def.type);
  if (type == m->parsers.end())
    return nullptr;
  auto p = type->second.find(part);
  return p == type->second.end() ? nullptr : p->second.get();
}

bool Job_Runs::run(const std::string& definition, JSON_Value& out, std::string& error) {
  auto def = std::make_shared<Job_Definition>();
  std::lock_guard<std::mutex> lock(mutex_);
  if (!def->parse(
          definition,
          [this](const Job_Definition& d, const char* part) { return resolve(d, part); }, error)) {
    error = "invalid job definition: " + error;
    return false;
  }
  if (!valid_uid(def->uid)) {
    error = "invalid job uid '" + def->uid + "': letters, digits, '-', '_' and '.' only";
    return false;
  }
  const Job_Module* module = module_of(*def);
  for (const auto& r : runs_)
    if (r->job->definition().uid == def->uid && r->job->is_running()) {
      error = "job '" + def->uid + "' is running already (run " + r->run_id + ")";
      return false;
    }
  auto run = std::make_shared<Run>();
  run->run_id = new_uuid();
  run->creator = module->creator;
  run->job = module->creator->create(def);
  if (!run->job) {
    error = std::string("module '") + module->name + "' made no job for this definition";
    return false;
  }
  run->log_path = job_run_log_path(def->uid, run->run_id);
  run->log = std::make_shared<Run_Log>();
  if (!make_dirs(run->log_path.substr(0, run->log_path.rfind('/')), 0750) ||
      !run->log->open(run->log_path)) {
    error = "cannot open the run's log '" + run->log_path + "'";
    return false;
  }
  run->job->set_event_handler(run);
  run->job->set_log_callback([log = run->log](const std::string& line) { log->write(line); });
  run->job->set_run_id(run->run_id);
  runs_.push_back(run);
  if (run->job->start() != 0) {
    runs_.pop_back();
    error = "the job could not start (see the agent's log)";
    return false;
  }
  out = {{"run_id", run->run_id}, {"job_uid", def->uid}};
  return true;
}

std::shared_ptr<Job_Runs::Run> Job_Runs::find(const std::string& run_id, std::string& error) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& r : runs_)
    if (r->run_id == run_id)
      return r;
  error = "no run '" + run_id + "'";
  return nullptr;
}

bool Job_Runs::status(const std::string& run_id, JSON_Value& out, std::string& error) const {
  auto run = find(run_id, error);
  if (!run)
    return false;
  out = run->to_json(true);
  return true;
}

bool Job_Runs::stop(const std::string& run_id, std::string& error) {
  auto run = find(run_id, error);
  if (!run)
    return false;
  if (run->job->stop() != 0) {
    error = "run '" + run_id + "' has ended";
    return false;
  }
  LOG_MSG((LM_INFO, "Stop requested for run %s of job '%s'.\n", run_id.c_str(),
           run->job->definition().uid.c_str()));
  return true;
}

JSON_Value Job_Runs::list() const {
  std::lock_guard<std::mutex> lock(mutex_);
  JSON_Value out = JSON_Value::array();
  for (const auto& r : runs_)
    out.push_back(r->to_json(false));
  return out;
}

bool Job_Runs::log(const std::string& run_id, std::uint64_t offset, JSON_Value& out,
                   std::string& error) const {
  auto run = find(run_id, error);
  if (!run)
    return false;
  std::string text;
  if (!read_file(run->log_path, text)) {
    error = "cannot read the run's log '" + run->log_path + "'";
    return false;
  }
  std::uint64_t from = std::min<std::uint64_t>(offset, text.size());
  out = {{"text", text.substr(from)}, {"next_offset", text.size()}};
  return true;
}

bool Job_Runs::wait(const std::string& run_id) const {
  std::string error;
  auto run = find(run_id, error);
  if (run)
    run->job->wait();
  return run != nullptr;
}
