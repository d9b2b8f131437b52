#include "programs/cli/jobs.h"

#include "host/core/paths.h"
#include "host/core/text.h"
#include "programs/cli/table.h"

#include <cstdint>
#include <ctime>
#include <iostream>
#include <iterator>

namespace {

// One agent call printed as JSON (--json) or by `print`.
template <class Print>
int call(const Cli& cli, const char* method, const JSON_Value& params, Print print) {
  JSON_Value result;
  std::string error;
  if (!agent_call(method, params, result, error))
    return fail(error);
  if (cli.json)
    std::cout << result.dump(2) << "\n";
  else
    print(result);
  return OK;
}

}  // namespace

int job_run(const Cli& cli, const std::string& file) {
  std::string text;
  if (file == "-")
    text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  else if (!read_file(file, text))
    return fail("cannot read the job definition '" + file + "'");
  return call(cli, "job.run", {{"definition", text}}, [](const JSON_Value& r) {
    std::cout << "Started run " << r.value("run_id", "") << " of job " << r.value("job_uid", "")
              << "\n";
  });
}

int job_list(const Cli& cli) {
  return call(cli, "job.list", JSON_Value::object(), [](const JSON_Value& r) {
    Table table({"RUN", "JOB", "NAME", "TYPE", "STATE", "STARTED", "ENDED"});
    for (const auto& run : r.value("runs", JSON_Value::array()))
      table.add({run.value("run_id", ""), run.value("job_uid", ""), run.value("name", ""),
                 run.value("type", ""), run.value("state", ""), time_text(run["start_time"]),
                 time_text(run["end_time"])});
    table.print(std::cout);
  });
}

int job_status(const Cli& cli, const std::string& run_id) {
  return call(cli, "job.status", {{"run_id", run_id}}, [](const JSON_Value& r) {
    std::cout << "Run " << r.value("run_id", "") << " of job '" << r.value("name", "") << "' ("
              << r.value("job_uid", "") << "): " << r.value("state", "") << "\n";
    Table table({"VM", "STATUS", "DONE", "TOTAL", "DISKS"});
    for (const auto& vm : r.value("vms", JSON_Value::array()))
      table.add({vm.value("name", ""), vm.value("status", ""), size_text(vm["processed_bytes"]),
                 size_text(vm["total_bytes"]),
                 std::to_string(vm.value("processed_virtual_disks", 0)) + "/" +
                     std::to_string(vm.value("virtual_disks", 0))});
    table.print(std::cout);
  });
}

int job_stop(const Cli& cli, const std::string& run_id) {
  return call(cli, "job.stop", {{"run_id", run_id}},
              [&](const JSON_Value&) { std::cout << "Stopping run " << run_id << "\n"; });
}

int job_log(const Cli& cli, const std::string& run_id) {
  return call(cli, "job.log", {{"run_id", run_id}},
              [](const JSON_Value& r) { std::cout << r.value("text", ""); });
}
