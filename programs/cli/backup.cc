#include "programs/cli/backup.h"

#include "host/catalog/server_api.h"
#include "host/core/text.h"
#include "programs/cli/table.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

namespace {

std::string size_text(std::uint64_t bytes) {
  std::string out;
  return Pretty_Formatter(1).size_formatter(bytes, out);
}

std::uint64_t bytes_of(const JSON_Value& record, const char* key) {
  auto at = record.find(key);
  return at != record.end() && at->is_number_unsigned() ? at->get<std::uint64_t>() : 0;
}

std::int64_t seconds_of(const JSON_Value& record, const char* key) {
  auto at = record.find(key);
  return at != record.end() && at->is_number_integer() ? at->get<std::int64_t>() : 0;
}

std::string duration_text(std::int64_t seconds) {
  char buf[32];
  snprintf(buf, sizeof buf, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
           static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  return buf;
}

// The VMs' history entries of a finished run by VM uuid.
const JSON_Value* history_of(const JSON_Value& status, const std::string& uuid) {
  auto result = status.find("result");
  if (result == status.end() || !result->is_object())
    return nullptr;
  auto histories = result->find("h3c-cas");
  if (histories == result->end() || !histories->is_array())
    return nullptr;
  for (const auto& h : *histories)
    if (h.is_object() && h.value("uuid", "") == uuid)
      return &h;
  return nullptr;
}

bool finished(const JSON_Value& status) {
  std::string state = status.value("state", "");
  return !status.value("running", false) &&
         (seconds_of(status, "end_time") != 0 || (state != "idle" && state != "starting"));
}

// The one host of the CVM whose id or else whose name is `key`.
bool find_host(const std::string& cvm_uuid, const std::string& key, JSON_Value& host,
               std::string& error) {
  JSON_Value hosts;
  if (!agent_call("h3ccas.list", {{"uuid", cvm_uuid}, {"subtype", "HostSystem"}}, hosts, error))
    return false;
  std::vector<const JSON_Value*> named;
  for (const auto& h : hosts) {
    if (h.value("id", "") == key) {
      host = h;
      return true;
    }
    if (h.value("name", "") == key)
      named.push_back(&h);
  }
  if (named.size() == 1) {
    host = *named[0];
    return true;
  }
  error = named.empty() ? "no host '" + key + "' on this CVM"
                        : "several hosts are named '" + key + "'; give the host id";
  return false;
}

bool find_vms(const std::string& cvm_uuid, const std::vector<std::string>& names,
              JSON_Value& entries, std::string& error) {
  JSON_Value found;
  if (!agent_call("h3ccas.list", {{"uuid", cvm_uuid}, {"subtype", "verify"}, {"vms", names}}, found,
                  error))
    return false;
  std::string missing;
  for (const auto& name : names) {
    const JSON_Value* vm = nullptr;
    // The agent matches names in any case; the definition takes the VM's own.
    for (const auto& v : found)
      if (strcasecmp(v.value("name", "").c_str(), name.c_str()) == 0)
        vm = &v;
    if (!vm) {
      missing += (missing.empty() ? "'" : ", '") + name + "'";
      continue;
    }
    entries.push_back({{"type", "VirtualMachine"},
                       {"host_id", vm->value("host_id", "")},
                       {"name", vm->value("name", "")},
                       {"title", vm->value("title", "")},
                       {"uuid", vm->value("uuid", "")}});
  }
  if (!missing.empty())
    error = "VMs not found: " + missing;
  return missing.empty();
}

bool find_pool(const std::string& key, Backup_Target& target, std::string& error) {
  JSON_Value pool;
  if (!find_row(server_api::pool_route, key, "storage pool", pool, error))
    return false;
  target.pool_uuid = pool.value("uuid", "");
  target.pool_name = pool.value("name", "");
  target.pool_io = pool.value("io_options", JSON_Value::object());
  return true;
}

bool read_options(const std::string& file, JSON_Value& options, std::string& error) {
  options = JSON_Value::object();
  if (file.empty())
    return true;
  std::ifstream in(file);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in) {
    error = "cannot read the options file '" + file + "'";
    return false;
  }
  options = JSON_Value::parse(text, nullptr, false);
  if (!options.is_object()) {
    error = "the options file '" + file + "' does not hold a JSON object";
    return false;
  }
  return true;
}

}  // namespace

JSON_Value backup_options(const JSON_Value& pool_io, const JSON_Value& from_file,
                          const JSON_Value& from_flags) {
  // What the agent requires, at values that suit most CVMs; a VM without a base to build on is
  // backed up in full.
  JSON_Value options = {{"restart_vm", false},
                        {"read_buffer_size", 1048576},
                        {"cvd_sdk_log_level", "warn"},
                        {"cvd_sdk_network_timeout", 60},
                        {"compression", pool_io.value("compression", "zstd")},
                        {"enable_cbt", true},
                        {"no_cbt", "full_backup"}};
  if (pool_io.contains("compression_level"))
    options["compression_level"] = pool_io["compression_level"];
  options.update(from_file);
  options.update(from_flags);
  return options;
}

JSON_Value backup_definition(const Backup_Target& target, bool full, const JSON_Value& options,
                             const std::string& uid) {
  return {{"uid", uid},
          {"name", "backup of " + target.cvm_name},
          {"type", 1},
          {"subtype", full ? "full" : "incremental"},
          {"host_id", target.cvm_uuid},
          {"agent", target.agent},
          {"target_id", target.pool_uuid},
          {"target_name", target.pool_name},
          {"source", {{"entries", target.entries}, {"exclusion", JSON_Value::array()}}},
          {"options", options}};
}

std::string progress_line(const JSON_Value& vm, std::int64_t now) {
  std::uint64_t done = bytes_of(vm, "processed_bytes"), total = bytes_of(vm, "total_bytes");
  std::string status = vm.value("status", "");
  std::string line = vm.value("name", "") + "  " + status;
  if (status == "pending")
    return line;
  line += "  " + size_text(done) + " / " + size_text(total);
  if (total)
    line += "  " + std::to_string(done * 100 / total) + "%";
  std::int64_t start = seconds_of(vm, "start_time"), end = seconds_of(vm, "end_time");
  std::int64_t elapsed = (end ? end : now) - start;
  if (!start || elapsed <= 0)
    return line;
  double rate = static_cast<double>(done) / static_cast<double>(elapsed);
  char buf[32];
  snprintf(buf, sizeof buf, "  %.1f MB/s", rate / 1e6);
  line += buf;
  if (status == "running" && rate > 0 && total > done)
    line +=
        "  ETA " +
        duration_text(static_cast<std::int64_t>(static_cast<double>(total - done) / rate + 0.5));
  return line;
}

void Progress_View::update(const JSON_Value& status, std::int64_t now) {
  const JSON_Value vms = status.value("vms", JSON_Value::array());
  if (terminal_) {
    // Back to the first line drawn, then every VM's line anew, each cleared to its end.
    if (drawn_)
      out_ << "\r\033[" << drawn_ << "A";
    for (const auto& vm : vms)
      out_ << "\r" << progress_line(vm, now) << "\033[K\n";
    drawn_ = vms.size();
  } else {
    for (const auto& vm : vms) {
      std::string key =
          vm.value("status", "") + " " + std::to_string(bytes_of(vm, "processed_bytes"));
      std::string& seen = seen_[vm.value("uuid", "")];
      if (seen != key)
        out_ << progress_line(vm, now) << "\n";
      seen = key;
    }
  }
  out_.flush();
}

void print_summary(std::ostream& out, const JSON_Value& status, bool full) {
  if (status.value("vms", JSON_Value::array()).empty())
    return;
  Table table({"VM", "TYPE", "SOURCE", "COPIED", "STORED", "TIME", "RESULT"});
  for (const auto& vm : status.value("vms", JSON_Value::array())) {
    const JSON_Value* h = history_of(status, vm.value("uuid", ""));
    bool ok = h && h->value("succeed", false);
    std::int64_t start = seconds_of(vm, "start_time"), end = seconds_of(vm, "end_time");
    // A history entry that knows the type says whether an incremental became a full backup.
    std::string type = h && h->contains("type") ? h->value("type", "")
                       : full                   ? "full"
                                                : "incremental";
    table.add({vm.value("name", ""), type, h ? size_text(bytes_of(*h, "size")) : "",
               size_text(bytes_of(vm, "processed_bytes")),
               h ? size_text(bytes_of(*h, "storaged_size")) : "",
               start && end >= start ? duration_text(end - start) : "",
               ok ? "ok" : vm.value("status", "failed")});
  }
  table.print(out);
}

namespace {

// One line of a run's log: "date time program[pid:tid] LEVEL file:line message"; a line of
// another shape is all message.
struct Log_Line {
  std::string program, level, message;
  bool is_error() const {
    return level == "ERROR" || level == "CRITICAL" || level == "ALERT" || level == "EMERGENCY";
  }
};

std::vector<Log_Line> parse_log(const std::string& log) {
  std::vector<Log_Line> lines;
  std::istringstream in(log);
  std::string text;
  while (std::getline(in, text)) {
    Log_Line line{"", "", text};
    if (auto at = text.find("] "); at != std::string::npos) {
      std::istringstream head(text.substr(0, text.rfind('[', at)));
      std::string date, time;
      head >> date >> time;
      std::getline(head >> std::ws, line.program);
      std::string where;
      std::istringstream rest(text.substr(at + 2));
      rest >> line.level >> where;
      std::getline(rest >> std::ws, line.message);
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

// The last error said of VM `name`, by its servant or naming it: the one that ended its backup
// (earlier ones may have been got over, as a missing base is by a full backup).
std::string last_error_of(const std::vector<Log_Line>& lines, const std::string& name) {
  std::string last;
  for (const Log_Line& line : lines)
    if (line.is_error() && (line.program == "brimlet-servant " + name + " " ||
                            line.message.find("'" + name + "'") != std::string::npos))
      last = line.message;
  return last;
}

}  // namespace

std::string failure_reason(const JSON_Value& status, const std::string& log) {
  std::string state = status.value("state", "");
  if (state == "stopped" || state == "aborted")
    return "the run was stopped";
  if (state == "precondition_failed")
    return "the job's precondition failed";
  const std::vector<Log_Line> lines = parse_log(log);
  std::string failed;
  std::size_t vms = 0, failures = 0;
  for (const auto& vm : status.value("vms", JSON_Value::array())) {
    ++vms;
    const JSON_Value* h = history_of(status, vm.value("uuid", ""));
    if (h && h->value("succeed", false))
      continue;
    const std::string name = vm.value("name", "");
    const std::string why = last_error_of(lines, name);
    failed += (failures++ ? "; " : "") + name + (why.empty() ? "" : ": " + why);
  }
  if (failures)
    return std::to_string(failures) + " of " + std::to_string(vms) + " VMs failed: " + failed;
  // Failed before any VM: the last error the job logged, else its last line other than the
  // run's own end.
  std::string own = " run " + status.value("run_id", "") + " ";
  std::string last, last_error;
  for (const Log_Line& line : lines) {
    if (line.message.empty() || line.message.find(own) != std::string::npos)
      continue;
    last = line.message;
    if (line.is_error())
      last_error = line.message;
  }
  if (!last_error.empty())
    return last_error;
  return last.empty() ? "see the run's log " + status.value("log", "") : last;
}

int backup_run(const Cli& cli, const Backup_Args& args) {
  Backup_Target target;
  JSON_Value cvm, from_file;
  std::string error;
  if (!read_options(args.options_file, from_file, error) || !find_cvm(args.cvm, cvm, error))
    return fail(error);
  target.cvm_uuid = cvm.value("uuid", "");
  target.cvm_name = cvm.value("name", "");
  if (target.cvm_name.empty())
    target.cvm_name = cvm.value("host", target.cvm_uuid);
  target.agent = agent_host_id();
  if (!find_pool(args.pool, target, error))
    return fail(error);
  if (!args.host.empty()) {
    JSON_Value host;
    if (!find_host(target.cvm_uuid, args.host, host, error))
      return fail(error);
    target.entries.push_back(
        {{"type", "HostSystem"}, {"id", host.value("id", "")}, {"name", host.value("name", "")}});
  } else if (!find_vms(target.cvm_uuid, args.vms, target.entries, error)) {
    return fail(error);
  }
  JSON_Value definition = backup_definition(
      target, args.full, backup_options(target.pool_io, from_file, args.option_flags), new_uuid());
  JSON_Value run, status;
  if (!agent_call("job.run", {{"definition", definition.dump()}}, run, error))
    return fail(error);
  std::string run_id = run.value("run_id", "");
  if (!args.wait) {
    std::cout << (cli.json ? run.dump(2) : run_id) << "\n";
    return OK;
  }
  // Stopping the CLI leaves the run going: the id is what `brimlet job stop` takes.
  if (!cli.json)
    std::cout << "Started run " << run_id << "\n";
  Progress_View view(std::cout, !cli.json && isatty(STDOUT_FILENO));
  for (;;) {
    if (!agent_call("job.status", {{"run_id", run_id}}, status, error))
      return fail(error);
    if (!cli.json)
      view.update(status, std::time(nullptr));
    if (finished(status))
      break;
    std::this_thread::sleep_for(args.interval);
  }
  if (cli.json)
    std::cout << status.dump(2) << "\n";
  else
    print_summary(std::cout, status, args.full);
  if (status.value("succeeded", false))
    return OK;
  JSON_Value log;
  std::string text;
  if (agent_call("job.log", {{"run_id", run_id}}, log, error))
    text = log.value("text", "");
  return fail("backup run " + run_id + " failed: " + failure_reason(status, text));
}
