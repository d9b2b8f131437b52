#include "h3ccas/job/executor_base.h"

#include "h3ccas/job/progress_reporter.h"
#include "h3ccas/servant/utils.h"
#include "host/core/log.h"
#include "host/servant/task_scheduler.h"
#include "host/storage/codec.h"

#include <unistd.h>

#include <ctime>

namespace h3ccas {

Job_Mutex::Guard make_job_guard(Job& job, const std::string& key) {
  return Job_Mutex::acquire(key, job, job_guard_retry_period, [&key] {
    LOG_MSG((LM_INFO, "Waiting for other jobs of this CAS(%s) to be completed.\n", key.c_str()));
  });
}

bool check_opt(const Job_Definition& def, const std::string& value, const char* option,
               bool valid) {
  if (!valid)
    LOG_MSG((LM_ERROR, "Invalid value '%s' of option '%s' of CAS job(uuid=%s, name=%s).\n",
             value.c_str(), option, def.uid.c_str(), def.name.c_str()));
  return valid;
}

bool check_range(const Job_Definition& def, std::int64_t value, const char* option,
                 std::int64_t low, std::int64_t high) {
  return check_opt(def, std::to_string(value), option, low <= value && value <= high);
}

bool check_buffer_size(const Job_Definition& def, int size, const char* option) {
  return check_opt(def, std::to_string(size), option,
                   65536 <= size && size <= 8388608 && size % 4096 == 0);
}

bool check_cvd_sdk_log_level(const Job_Definition& def, const std::string& level) {
  return check_opt(def, level, "cvd_sdk_log_level",
                   level == "debug" || level == "info" || level == "warn" || level == "error");
}

bool check_compression_level(const Job_Definition& def, int method, int level) {
  const Codec_Info* codec = codec_info(method);
  const bool valid = codec == nullptr || codec->max_level == 0 || level == 0 ||
                     (codec->min_level <= level && level <= codec->max_level);
  return check_opt(def, std::to_string(level), "compression_level", valid);
}

bool VM_Results::add(const std::string& vm_id, VM_History history) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!histories_.histories_.emplace(vm_id, std::move(history)).second) {
    LOG_MSG((LM_ERROR, "VM '%s' is listed twice in the job.\n", vm_id.c_str()));
    return false;
  }
  return true;
}

bool VM_Results::record(const std::string& vm_id, bool succeeded, std::uint64_t storage_size,
                        std::uint64_t source_size, std::uint64_t set_size) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = histories_.histories_.find(vm_id);
    if (it == histories_.histories_.end()) {
      LOG_MSG((LM_ERROR, "A result for VM '%s', which is not in the job.\n", vm_id.c_str()));
      return false;
    }
    VM_History& h = it->second;
    h.succeeded = succeeded;
    if (!succeeded)
      return true;
    h.storage_size = storage_size;
    h.source_size = source_size;
    h.set_size = set_size;
  }
  storage_size_ += storage_size;
  source_size_ += source_size;
  set_size_ += set_size;
  ++succeeded_;
  return true;
}

void VM_Results::record_fields(const std::string& vm_id, const JSON_Value& fields) {
  std::lock_guard<std::mutex> lock(mutex_);
  fields_[vm_id].update(fields);
}

JSON_Value VM_Results::eject() {
  std::lock_guard<std::mutex> lock(mutex_);
  JSON_Value out = histories_.eject();
  for (auto& entry : out) {
    auto fields = fields_.find(entry.value("uuid", ""));
    if (fields != fields_.end())
      entry.update(fields->second);
  }
  fields_.clear();
  return out;
}

int fold_servant_result(VM_Results& results, const std::string& vm_id,
                        const std::shared_ptr<JSON_RPC_Object>& response, const char* action,
                        bool canceled, bool retry_lost) {
  JSON_Value result;
  // No response: the servant ended, hung or was stopped, which the scheduler has said.
  if (!response || !get_servant_result(response, result)) {
    results.record(vm_id, false, 0, 0, 0);
    return retry_lost && !canceled ? 2 : 1;
  }
  std::uint64_t storage_size = 0, source_size = 0, set_size = 0;
  try {
    int code = 0;
    json_extract(result, "code", code);
    JSON_Value bad = JSON_Value::array();
    json_extract_array(result, "bad_objects", bad, false);
    const bool damaged = !bad.empty();
    if (damaged)
      results.record_fields(vm_id, {{"bad_objects", std::move(bad)}});
    // A backup says which it made: an incremental one may have become a full one.
    std::string type;
    if (json_extract(result, "backup_type", type, false))
      results.record_fields(vm_id, {{"type", type}});
    if (code != 0) {
      results.record(vm_id, false, 0, 0, 0);
      // Damaged objects read the same on another try.
      return canceled || damaged ? 1 : 2;
    }
    std::string id;
    json_extract(result, "storage_size", storage_size);
    json_extract(result, "source_size", source_size);
    json_extract(result, "set_size", set_size);
    json_extract(result, "vm_id", id);
  } catch (const JSON_Error&) {
    LOG_MSG((LM_ERROR, "Unrecognized CAS VM %s response: %s.\n", action, result.dump().c_str()));
    results.record(vm_id, false, 0, 0, 0);
    return 1;
  }
  results.record(vm_id, true, storage_size, source_size, set_size);
  return 0;
}

namespace {

// Removes the libcvd configuration file however the run ends.
struct File_Remover {
  std::string path;
  ~File_Remover() {
    if (!path.empty())
      ::unlink(path.c_str());
  }
};

}  // namespace

bool run_servants(Job& job, Job_Event_Handler& handler, VM_Results& results,
                  std::vector<VM_Task>& tasks, const Servant_Run& run,
                  const VM_Result_Handler& handle) {
  Job_Activity* act = job.activity().get();
  if (!act)
    return check_failed(__FILE__, __LINE__, "act_.get() is NULL");
  auto canceled = [&job] { return job.state() == JOB_STOPPED; };
  // Stopped while resolving: no servant starts.
  if (canceled())
    return false;
  Progress_Reporter progress(handler, *act);
  Servant_Task_Scheduler scheduler("h3ccas.exec");
  if (!scheduler.register_stop_callback(canceled) ||
      !scheduler.enable_owner_limit(run.parallel_vms_per_host) ||
      !scheduler.enable_retry(run.retry_count, run.retry_interval))
    return false;
  File_Remover conf;
  if (!create_cvd_sdk_conf(run.cvd_sdk_network_timeout, run.cvd_sdk_log_level, conf.path))
    return false;

  // Every VM is known to the results and to the progress before the first servant starts, so
  // that result handlers only ever update entries that exist.
  std::unordered_map<std::string, std::string> names;  // VM id -> name, the servants' labels
  for (const VM_Task& task : tasks) {
    const bool refused = task.request.is_null();
    if (!results.add(task.vm_id, task.history) ||
        !progress.add_vm(task.vm_id, task.vm_name, refused ? "failed" : ""))
      return false;
    names[task.vm_id] = task.vm_name;
  }
  if (!progress.activate(job.definition().uid))
    return false;

  const Job_Log_Callback& log = job.log_callback();
  auto vm_of = [&run](const Servant_Task& task) { return task.params.value(run.id_key, ""); };
  auto setup = [&conf, &log, &names, &vm_of](Servant& servant, const Servant_Task& task) {
    auto name = names.find(vm_of(task));
    const std::string label = name != names.end() ? name->second : "CAS";
    return init_servant(servant, label.c_str(), log, conf.path);
  };
  auto on_result = [&handle, &vm_of](const Servant_Task& task,
                                     std::shared_ptr<JSON_RPC_Response> response) {
    return handle(vm_of(task), response);
  };
  if (!scheduler.activate(run.parallel_vms, setup, on_result))
    return false;
  for (VM_Task& task : tasks)
    if (!task.request.is_null() &&
        !scheduler.enqueue_task(std::move(task.request), task.owner,
                                task.label.empty() ? nullptr : task.label.c_str()))
      return false;

  // Progress goes out every 10 seconds; the end of the servants or a stop is seen sooner.
  auto next_push = std::chrono::steady_clock::now();
  while (scheduler.is_running() && !canceled()) {
    if (std::chrono::steady_clock::now() >= next_push) {
      progress.push_update();
      next_push += std::chrono::seconds(10);
    }
    job.wait_state_event(std::chrono::milliseconds(100));
  }
  scheduler.wait();
  progress.flush();

  const int succeeded = results.succeeded(), total = static_cast<int>(tasks.size());
  LOG_MSG((LM_INFO, "CAS VM %s result (succeeded/total): %d/%d.\n", run.action, succeeded, total));
  act->stored_size = results.storage_size();
  act->set_size = results.set_size();
  act->source_size = results.source_size();
  act->last_run_time = std::time(nullptr);
  job.set_result("h3c-cas", results.eject());
  return succeeded == total;
}

}  // namespace h3ccas
