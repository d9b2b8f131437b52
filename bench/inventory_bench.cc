// Inventory listing time on a large CAS installation: cas-sim plays a CVM with a generated world
// (50 hosts, 10,000 VMs), brimlet-agent answers "h3ccas.list" through the CAS module. Times the
// verification of every VM name and a VM search that every VM matches, both with the CVM giving
// one list of all VMs and with it refusing that list (so the module asks host by host), then the
// VM list of each host in turn; prints a table and writes the numbers as JSON.
//
//   inventory_bench [--runs N] [--world FILE] [--out FILE]
#include "bench/results.h"
#include "host/core/paths.h"
#include "host/core/text.h"
#include "tests/integration/stack.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

struct Options {
  int runs = 5;
  std::string world = std::string(BRIMLET_SOURCE_DIR) + "/sim/cas/worlds/large.json";
  std::string out = std::string(BRIMLET_SOURCE_DIR) + "/bench/results/inventory.json";
};

struct Result {
  std::string operation;
  std::vector<double> ms;  // one per run
  std::size_t vms = 0;     // VMs answered per run
  long peak_rss_kib = 0;   // the agent's high-water mark after these runs
};

void report(const std::string& what) {
  fprintf(stderr, "inventory_bench: %s\n", what.c_str());
}

// VmHWM of a process in KiB; -1 when unreadable.
long peak_rss_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmHWM:", 0) == 0)
      return std::stol(line.substr(6));
  return -1;
}

// The VM search text: every generated VM is named "vmNNNNN".
const char search_text[] = "VM";

bool contains_ignoring_case(std::string text, std::string piece) {
  for (std::string* s : {&text, &piece})
    std::transform(s->begin(), s->end(), s->begin(),
                   [](unsigned char c) { return std::tolower(c); });
  return text.find(piece) != std::string::npos;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The records of one "h3ccas.list" call; false (reported) on a JSON-RPC error.
bool list(const Stack& stack, const std::string& uuid, JSON_Value params, JSON_Value& records) {
  params["uuid"] = uuid;
  JSON_Value answer = stack.agent_call("h3ccas.list", params);
  if (!answer.is_object() || !answer.contains("result") || !answer["result"].is_array()) {
    report("h3ccas.list " + params.dump() + " failed: " + answer.dump());
    return false;
  }
  records = std::move(answer["result"]);
  return true;
}

// Runs `once` (which answers the VMs it saw, or -1 on failure) `runs` times after a warm-up;
// every run must see `expected_vms`.
bool measure(const Stack& stack, const std::string& operation, int runs, std::size_t expected_vms,
             const std::function<long()>& once, std::vector<Result>& results) {
  Result r;
  r.operation = operation;
  for (int i = -1; i < runs; ++i) {
    auto start = std::chrono::steady_clock::now();
    long vms = once();
    std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    if (vms < 0)
      return false;
    if (static_cast<std::size_t>(vms) != expected_vms) {
      report(operation + " answered " + std::to_string(vms) + " VMs, expected " +
             std::to_string(expected_vms));
      return false;
    }
    if (i >= 0)
      r.ms.push_back(took.count());
  }
  r.vms = expected_vms;
  r.peak_rss_kib = peak_rss_kib(stack.agent_pid());
  results.push_back(std::move(r));
  return true;
}

void print_table(const std::vector<Result>& results, std::size_t hosts, std::size_t vms, int runs) {
  printf("Inventory listing: %zu hosts, %zu VMs, %d runs each after a warm-up\n", hosts, vms, runs);
  printf("%-28s %10s %10s %10s %12s %16s\n", "operation", "median ms", "min ms", "max ms", "VMs/s",
         "agent peak RSS");
  for (const auto& r : results) {
    double med = median(r.ms);
    printf("%-28s %10.1f %10.1f %10.1f %12.0f %12.1f MiB\n", r.operation.c_str(), med,
           *std::min_element(r.ms.begin(), r.ms.end()), *std::max_element(r.ms.begin(), r.ms.end()),
           r.vms / (med / 1000.0), r.peak_rss_kib / 1024.0);
  }
}

JSON_Value to_json(const std::vector<Result>& results, const Options& opts, std::size_t hosts,
                   std::size_t vms) {
  JSON_Value out = {{"benchmark", "inventory"}, {"world", opts.world},
                    {"hosts", hosts},           {"vms", vms},
                    {"runs", opts.runs},        {"results", JSON_Value::array()}};
  for (const auto& r : results) {
    double med = median(r.ms);
    out["results"].push_back({{"operation", r.operation},
                              {"median_ms", med},
                              {"min_ms", *std::min_element(r.ms.begin(), r.ms.end())},
                              {"max_ms", *std::max_element(r.ms.begin(), r.ms.end())},
                              {"runs_ms", r.ms},
                              {"vms_per_second", r.vms / (med / 1000.0)},
                              {"agent_peak_rss_kib", r.peak_rss_kib}});
  }
  return out;
}

// The credentials of the world's first administrator (group 1).
bool administrator(const std::string& world_file, std::string& user, std::string& password) {
  std::string text;
  JSON_Value world;
  if (!read_file(world_file, text) ||
      (world = JSON_Value::parse(text, nullptr, false)).is_discarded() || !world.is_object()) {
    report("cannot read the world file '" + world_file + "'");
    return false;
  }
  for (const auto& op : world.value("operators", JSON_Value::array()))
    if (op.is_object() && op.value("group_id", 0) == 1) {
      user = op.value("login_name", "");
      password = op.value("password", "");
      return true;
    }
  report("no administrator (group_id 1) among the operators of '" + world_file + "'");
  return false;
}

int run(const Options& opts) {
  std::string user, password;
  if (!administrator(opts.world, user, password))
    return 1;
  Stack stack(report);
  std::uint16_t port = stack.start_sim("sim", opts.world);
  if (port == 0 || !stack.start_server_and_agent())
    return 1;
  std::string uuid = stack.add_cvm("large", port, user, password);
  if (uuid.empty())
    return 1;

  // What the world holds, as the agent reports it host by host.
  JSON_Value hosts, names = JSON_Value::array();
  if (!list(stack, uuid, {{"subtype", "HostSystem"}}, hosts))
    return 1;
  std::size_t search_hits = 0;
  for (const auto& host : hosts) {
    JSON_Value vms;
    if (!list(stack, uuid, {{"subtype", "VirtualMachine"}, {"host_id", host.value("id", "")}}, vms))
      return 1;
    for (const auto& vm : vms) {
      names.push_back(vm.value("name", ""));
      search_hits += contains_ignoring_case(vm.value("name", ""), search_text) ||
                     contains_ignoring_case(vm.value("title", ""), search_text);
    }
  }

  std::vector<Result> results;
  auto count = [&](JSON_Value params) -> long {
    JSON_Value records;
    return list(stack, uuid, std::move(params), records) ? static_cast<long>(records.size()) : -1;
  };
  auto verify = [&] { return count({{"subtype", "verify"}, {"vms", names}}); };
  auto search = [&] {
    return count({{"subtype", "search"}, {"type", "VirtualMachine"}, {"search", search_text}});
  };
  auto each_host = [&] {
    long total = 0;
    for (const auto& host : hosts) {
      long n = count({{"subtype", "VirtualMachine"}, {"host_id", host.value("id", "")}});
      if (n < 0)
        return -1L;
      total += n;
    }
    return total;
  };
  // A large CVM refuses the unfiltered VM list (409): all VMs are then asked for host by host.
  auto refuse_vm_list = [&](bool refuse) {
    return !stack.sim_control("sim", "PUT", "/sim/knobs", {{"vm_list_conflict", refuse}}).is_null();
  };
  bool ok =
      refuse_vm_list(false) &&
      measure(stack, "verify, one VM list", opts.runs, names.size(), verify, results) &&
      measure(stack, "search, one VM list", opts.runs, search_hits, search, results) &&
      refuse_vm_list(true) &&
      measure(stack, "verify, host by host (409)", opts.runs, names.size(), verify, results) &&
      measure(stack, "search, host by host (409)", opts.runs, search_hits, search, results) &&
      measure(stack, "VirtualMachine of each host", opts.runs, names.size(), each_host, results);
  if (!ok)
    return 1;

  print_table(results, hosts.size(), names.size(), opts.runs);
  return write_results(opts.out, to_json(results, opts, hosts.size(), names.size())) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options opts;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (i + 1 >= argc || (arg != "--runs" && arg != "--world" && arg != "--out")) {
      fprintf(stderr, "usage: inventory_bench [--runs N] [--world FILE] [--out FILE]\n");
      return 2;
    }
    std::string value = argv[++i];
    if (arg == "--runs") {
      const char* stop = nullptr;
      opts.runs = natoi<int>(value.data(), value.data() + value.size(), &stop);
      if (errno || stop != value.data() + value.size() || opts.runs < 1) {
        fprintf(stderr, "inventory_bench: --runs needs a positive number\n");
        return 2;
      }
    } else if (arg == "--world") {
      opts.world = value;
    } else {
      opts.out = value;
    }
  }
  return run(opts);
}
