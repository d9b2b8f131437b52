#include "programs/cli/run.h"

#include "host/core/text.h"
#include "programs/cli/table.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

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

namespace {

bool finished(const JSON_Value& status) {
  std::string state = status.value("state", "");
  return !status.value("running", false) &&
         (seconds_of(status, "end_time") != 0 || (state != "idle" && state != "starting"));
}

}  // namespace

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

// The last error said of VM `name` (empty: any), by its servant or naming it: the one that ended
// its backup (earlier ones may have been got over, as a missing base is by a full backup).
std::string last_error_of(const std::vector<Log_Line>& lines, const std::string& name) {
  std::string last;
  for (const Log_Line& line : lines)
    if (line.is_error() && (name.empty() || line.program == "brimlet-servant " + name + " " ||
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
    std::string why = last_error_of(lines, name);
    // In a run of one VM, an error naming none is that VM's.
    if (why.empty() && status["vms"].size() == 1)
      why = last_error_of(lines, "");
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

int run_job(const Cli& cli, const JSON_Value& definition, const char* what, bool wait,
            std::chrono::milliseconds interval,
            const std::function<void(const JSON_Value& status)>& summary) {
  std::string error;
  JSON_Value run, status;
  if (!agent_call("job.run", {{"definition", definition.dump()}}, run, error))
    return fail(error);
  std::string run_id = run.value("run_id", "");
  if (!wait) {
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
    std::this_thread::sleep_for(interval);
  }
  if (cli.json)
    std::cout << status.dump(2) << "\n";
  else
    summary(status);
  if (status.value("succeeded", false))
    return OK;
  JSON_Value log;
  std::string text;
  if (agent_call("job.log", {{"run_id", run_id}}, log, error))
    text = log.value("text", "");
  return fail(std::string(what) + " run " + run_id + " failed: " + failure_reason(status, text));
}
