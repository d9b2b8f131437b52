#include "programs/cli/backup.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <tuple>

namespace {
JSON_Value json(const char* text) {
  return JSON_Value::parse(text);
}

TEST(Backup_Command, Options_Precedence) {
  const char* defaults = R"({"restart_vm":false,"read_buffer_size":1048576,
      "cvd_sdk_log_level":"warn","cvd_sdk_network_timeout":60,"compression":"zstd",
      "enable_cbt":true,"no_cbt":"full_backup"})";
  EXPECT_EQ(backup_options(json("{}"), json("{}"), json("{}")), json(defaults));
  // Each source wins over the one before: defaults, the pool, the file, the flags.
  JSON_Value expected = json(defaults);
  expected.update(json(R"({"restart_vm":true,"compression":"lz4","compression_level":5,
                           "parallel_vms":8})"));
  EXPECT_EQ(backup_options(json(R"({"compression":"lz4","compression_level":1})"),
                           json(R"({"compression_level":5,"parallel_vms":4,"restart_vm":true})"),
                           json(R"({"parallel_vms":8})")),
            expected);
}

TEST(Backup_Command, Definition) {
  const JSON_Value entries = json(R"([{"type":"HostSystem","id":"3","name":"cvk3"}])");
  Backup_Target target{"c-1", "lab", "a-1", "p-1", "nas", JSON_Value::object(), entries};
  JSON_Value options = {{"compression", "zstd"}};
  EXPECT_EQ(backup_definition(target, true, options, "u-1"), json(R"({
      "uid":"u-1","name":"backup of lab","type":1,"subtype":"full","host_id":"c-1",
      "agent":"a-1","target_id":"p-1","target_name":"nas",
      "source":{"entries":[{"type":"HostSystem","id":"3","name":"cvk3"}],"exclusion":[]},
      "options":{"compression":"zstd"}})"));
  EXPECT_EQ(backup_definition(target, false, options, "u-1")["subtype"], "incremental");
}

TEST(Backup_Command, Progress_Line) {
  const std::pair<const char*, const char*> rows[] = {
      // the VM, its line
      {R"({"name":"web","status":"pending"})", "web  pending"},
      {R"({"name":"web","status":"running","processed_bytes":52428800,
           "total_bytes":209715200,"start_time":990,"end_time":0})",
       "web  running  50.0 MiB / 200.0 MiB  25%  5.2 MB/s  ETA 0:00:30"},
      // A finished VM: its rate over its own time, no ETA.
      {R"({"name":"db","status":"completed","processed_bytes":104857600,
           "total_bytes":104857600,"start_time":900,"end_time":950})",
       "db  completed  100.0 MiB / 100.0 MiB  100%  2.1 MB/s"},
      {R"({"name":"y","status":"running","processed_bytes":1,"total_bytes":7200001,
           "start_time":999})",
       "y  running  1 B / 6.9 MiB  0%  0.0 MB/s  ETA 2000:00:00"},
  };
  for (const auto& [vm, line] : rows)
    EXPECT_EQ(progress_line(json(vm), 1000), line);
}

TEST(Backup_Command, Progress_View) {
  JSON_Value first = json(R"({"vms":[
      {"uuid":"1","name":"a","status":"running","processed_bytes":0,"total_bytes":0},
      {"uuid":"2","name":"b","status":"pending"}]})");
  JSON_Value second = first;
  second["vms"][1]["status"] = "running", second["vms"][1]["processed_bytes"] = 0;
  std::ostringstream log, screen;
  Progress_View lines(log, false), tty(screen, true);
  for (const auto* status : {&first, &first, &second}) {
    lines.update(*status, 0);
    tty.update(*status, 0);
  }
  // One line per change; a terminal redraws all lines in place.
  EXPECT_EQ(log.str(), "a  running  0 B / 0 B\nb  pending\nb  running  0 B / 0 B\n");
  std::string draw = "\ra  running  0 B / 0 B\033[K\n\rb  pending\033[K\n";
  EXPECT_EQ(screen.str(), draw + "\r\033[2A" + draw + "\r\033[2A" +
                              "\ra  running  0 B / 0 B\033[K\n\rb  running  0 B / 0 B\033[K\n");
}

const char* const finished_run = R"({"run_id":"r7","state":"stopped","running":false,
    "succeeded":false,"log":"/var/log/r7.log","vms":[
    {"uuid":"1","name":"web","status":"completed","processed_bytes":1048576,
     "start_time":100,"end_time":3825},
    {"uuid":"2","name":"db","status":"failed","processed_bytes":0,"start_time":100,"end_time":0}],
    "result":{"h3c-cas":[{"uuid":"1","size":10737418240,"set_size":1048576,
     "storaged_size":524288,"succeed":true},{"uuid":"2","succeed":false}]}})";

TEST(Backup_Command, SummaryAndFailureReason) {
  std::ostringstream out;
  print_summary(out, json(finished_run), false);
  EXPECT_EQ(out.str(),
            "VM   TYPE         SOURCE    COPIED   STORED     TIME     RESULT\n"
            "web  incremental  10.0 GiB  1.0 MiB  512.0 KiB  1:02:05  ok\n"
            "db   incremental  0 B       0 B      0 B                 failed\n");
  JSON_Value run = json(finished_run);
  EXPECT_EQ(failure_reason(run, ""), "the run was stopped");
  run["state"] = "aborted";
  EXPECT_EQ(failure_reason(run, ""), "the run was stopped");
  run["state"] = "idle";
  EXPECT_EQ(failure_reason(run, ""), "1 of 2 VMs failed: db");
  // A failed VM's reason: the last error its servant said, or one naming it.
  const std::string day = "2026-01-02 03:04:05.006 ";
  for (std::string program : {"brimlet-servant db [7:8] ", "brimlet-agent [1:2] "}) {
    std::string log = day + program + "ERROR a.cc:1 Lost 'db'.\n" + day + program +
                      "ERROR a.cc:2 Then 'db'.\n" + day + program + "WARNING a.cc:3 Slow 'db'.\n" +
                      day + "brimlet-servant web [3:4] ERROR a.cc:4 No.\n";
    EXPECT_EQ(failure_reason(run, log), "1 of 2 VMs failed: db: Then 'db'.");
  }
  run["vms"] = JSON_Value::array();
  // Before any VM: the job's last error, else its last line, never the run's own end.
  const char* prefix = "2026-01-02 03:04:05.006 brimlet-agent [1:2] ";
  const std::pair<std::string, std::string> rows[] = {
      // the run's log, the reason
      {std::string(prefix) + "ERROR a.cc:1 Bad pool.\n" + prefix + "WARNING a.cc:2 Late.\n",
       "Bad pool."},
      {"x\nAll VMs are excluded from backup.\nJob 'b' (u) run r7 failed.\n",
       "All VMs are excluded from backup."},
      {"Job 'b' (u) run r7 failed.\n", "see the run's log /var/log/r7.log"},
  };
  for (const auto& [log, reason] : rows)
    EXPECT_EQ(failure_reason(run, log), reason);
}

TEST(Backup_Command, Usage_Errors) {
  const std::pair<const char*, std::string> rows[] = {
      {"c1 --pool p", "give either --host HOST or VM names"},
      {"c1 --pool p --host h vm1", "give either --host HOST or VM names"},
      {"c1 --pool p --full --incremental vm1", "--full excludes --incremental"},
      {"c1 --pool p --parallel-vms 1.5 vm1", "--parallel-vms: '1.5' is not a whole number"},
  };
  for (const auto& [line, message] : rows) {
    std::vector<std::string> argv = {bin_path("brimlet"), "backup"};
    std::istringstream words(line);
    argv.insert(argv.end(), std::istream_iterator<std::string>(words), {});
    Run_Result r = run_program(argv);
    EXPECT_EQ(std::tuple(r.exit_code, r.err),
              std::tuple(2, "brimlet: " + message + "\nRun 'brimlet backup --help' for usage.\n"));
  }
}
}  // namespace
