#include "programs/cli/inventory.h"

#include "host/core/text.h"
#include "programs/cli/table.h"

#include <cstdint>
#include <cstdlib>
#include <cwctype>
#include <iostream>
#include <string>
#include <vector>

namespace {

enum Format { TEXT, BYTES, MIB };

// One column of a listing: its title, the record's key and how the value reads.
struct Column {
  const char* title;
  const char* key;
  Format format = TEXT;
};
using Columns = std::vector<Column>;

const Columns host_columns = {{"NAME", "name"}, {"ID", "id"}, {"IP", "ip"}, {"STATUS", "status"}};
const Columns host_detail_fields = {{"Name", "name"},
                                    {"ID", "id"},
                                    {"IP", "ip"},
                                    {"Status", "status"},
                                    {"CPUs", "cpu_count"},
                                    {"Cores", "cpu_cores"},
                                    {"Memory", "memory_mbytes", MIB}};
const Columns vm_columns = {{"NAME", "name"}, {"TITLE", "title"}, {"STATUS", "status"},
                            {"OS", "os"},     {"CPUS", "cpu"},    {"MEMORY", "memory_mbytes", MIB}};
// VMs from several hosts say where they run.
const Columns vm_host_columns = {{"NAME", "name"},     {"TITLE", "title"},
                                 {"STATUS", "status"}, {"OS", "os"},
                                 {"CPUS", "cpu"},      {"MEMORY", "memory_mbytes", MIB},
                                 {"HOST", "host_name"}};
const Columns pool_columns = {{"NAME", "name"},
                              {"TYPE", "storage_type"},
                              {"TOTAL", "total_size", BYTES},
                              {"FREE", "free_size", BYTES},
                              {"ACTIVE", "is_active"},
                              {"PATH", "path"}};
const Columns volume_columns = {
    {"NAME", "name"}, {"SIZE", "total_bytes", BYTES}, {"USED BY", "used_by"}};
const Columns vswitch_columns = {
    {"NAME", "name"},       {"NIC", "physical_nic_name"}, {"NETWORK TYPES", "network_types"},
    {"ADDRESS", "address"}, {"GATEWAY", "gateway"},       {"ACTIVE", "is_active"}};
const Columns profile_columns = {{"NAME", "name"},
                                 {"VLAN", "vlan_id"},
                                 {"ACL", "acl_name"},
                                 {"NET LIMIT", "net_limit_title"},
                                 {"DESCRIPTION", "description"}};

std::string cell(const JSON_Value& record, const Column& column) {
  const JSON_Value* value = record.is_object() ? json_find(record, column.key) : nullptr;
  if (!value)
    return "";
  if (column.format != TEXT && value->is_number_unsigned()) {
    std::uint64_t n = value->get<std::uint64_t>();
    std::string out;  // binary units, one decimal: "2.0 GiB"
    return Pretty_Formatter(1).size_formatter(column.format == MIB ? n << 20 : n, out);
  }
  return cell_text(*value);
}

std::string field(const JSON_Value& record, const char* key) {
  return cell(record, {"", key});
}

// The agent's answer: as is for scripts, else as a table (for one record, a field per line).
int show(const Cli& cli, const JSON_Value& result, const Columns& columns, bool one_record) {
  if (cli.json) {
    std::cout << result.dump(2) << "\n";
    return OK;
  }
  if (one_record ? !result.is_object() : !result.is_array())
    return fail("unexpected answer from the agent: " + result.dump());
  Table table;
  if (one_record) {
    for (const auto& column : columns)
      table.add({std::string(column.title) + ":", cell(result, column)});
  } else {
    std::vector<std::string> header;
    for (const auto& column : columns)
      header.push_back(column.title);
    table.add(std::move(header));
    for (const auto& record : result) {
      std::vector<std::string> row;
      for (const auto& column : columns)
        row.push_back(cell(record, column));
      table.add(std::move(row));
    }
  }
  table.print(std::cout);
  return OK;
}

bool cvm_uuid(const std::string& key, std::string& uuid, std::string& error) {
  JSON_Value entry;
  if (!find_cvm(key, entry, error))
    return false;
  uuid = entry.value("uuid", "");
  return true;
}

bool list(const std::string& uuid, JSON_Value params, JSON_Value& result, std::string& error) {
  params["uuid"] = uuid;
  return agent_call("h3ccas.list", params, result, error);
}

// A host id as given, or the id of the one host with that name.
bool resolve_host(const std::string& uuid, const std::string& key, std::string& host_id,
                  std::string& error) {
  JSON_Value hosts;
  if (!list(uuid, {{"subtype", "HostSystem"}}, hosts, error))
    return false;
  if (!hosts.is_array()) {
    error = "unexpected answer from the agent: " + hosts.dump();
    return false;
  }
  std::vector<std::string> named;
  for (const auto& host : hosts) {
    if (field(host, "id") == key) {
      host_id = key;
      return true;
    }
    if (field(host, "name") == key)
      named.push_back(field(host, "id"));
  }
  if (named.size() == 1) {
    host_id = named[0];
    return true;
  }
  if (named.empty()) {
    error = "no host '" + key + "' on this CVM";
  } else {
    error = "several hosts are named '" + key + "' (ids";
    for (const auto& id : named)
      error += " " + id;
    error += "); give the host id";
  }
  return false;
}

// `name` in lower case, to compare names as the agent does: without regard to case.
std::wstring folded(const std::string& name) {
  std::wstring out(name.size(), L'\0');
  std::size_t n = mbstowcs(&out[0], name.c_str(), name.size());
  if (n == static_cast<std::size_t>(-1))
    return std::wstring(name.begin(), name.end());  // not text of this locale: compare bytes
  out.resize(n);
  for (auto& c : out)
    c = static_cast<wchar_t>(towlower(static_cast<wint_t>(c)));
  return out;
}

}  // namespace

int inventory_ls(const Cli& cli, const std::vector<std::string>& words) {
  struct Kind {
    const char* word;
    const char* subtype;
    bool host, pool, one_record;
    const Columns& columns;
  };
  static const Kind kinds[] = {
      {"", "HostSystem", false, false, false, host_columns},
      {"host", "HostSystemDetail", true, false, true, host_detail_fields},
      {"vms", "VirtualMachine", true, false, false, vm_columns},
      {"pools", "StoragePool", true, false, false, pool_columns},
      {"volumes", "StorageVolume", true, true, false, volume_columns},
      {"vswitches", "VirtualSwitch", true, false, false, vswitch_columns},
      {"profiles", "PortProfile", false, false, false, profile_columns},
  };
  if (words.empty())
    return usage_error(cli, "'ls' needs a CVM uuid or name");
  std::size_t next = 1;
  auto take = [&] { return next < words.size() ? words[next++] : std::string(); };
  std::string cvm = words[0], what = take();
  const Kind* kind = nullptr;
  for (const auto& k : kinds)
    if (what == k.word)
      kind = &k;
  if (!kind)
    return usage_error(cli, "unknown listing 'ls CVM " + what + "'");
  std::string host = kind->host ? take() : "", pool = kind->pool ? take() : "";
  if ((kind->host && host.empty()) || (kind->pool && pool.empty()))
    return usage_error(cli, "'ls CVM " + what + "' needs " + (kind->pool ? "HOST POOL" : "HOST"));
  if (next < words.size())
    return usage_error(cli, "unexpected argument '" + words[next] + "'");

  std::string uuid, error;
  if (!cvm_uuid(cvm, uuid, error))
    return fail(error);
  JSON_Value params = {{"subtype", kind->subtype}};
  if (kind->host) {
    std::string host_id;
    if (!resolve_host(uuid, host, host_id, error))
      return fail(error);
    params["host_id"] = host_id;
  }
  if (kind->pool)
    params["pool_name"] = pool;
  JSON_Value result;
  if (!list(uuid, params, result, error))
    return fail(error);
  return show(cli, result, kind->columns, kind->one_record);
}

int inventory_search(const Cli& cli, const std::string& cvm, const std::string& kind,
                     const std::string& text, bool by_ip) {
  bool hosts = kind == "hosts";
  if (by_ip && !hosts)
    return usage_error(cli, "--ip applies to host searches only");

  std::string uuid, error;
  if (!cvm_uuid(cvm, uuid, error))
    return fail(error);
  JSON_Value params = {
      {"subtype", "search"}, {"type", hosts ? "HostSystem" : "VirtualMachine"}, {"search", text}};
  if (by_ip)
    params["search_type"] = "ip";
  JSON_Value result;
  if (!list(uuid, params, result, error))
    return fail(error);
  return show(cli, result, hosts ? host_columns : vm_host_columns, false);
}

int inventory_verify(const Cli& cli, const std::string& cvm,
                     const std::vector<std::string>& names) {
  std::string uuid, error;
  if (!cvm_uuid(cvm, uuid, error))
    return fail(error);
  JSON_Value result;
  if (!list(uuid, {{"subtype", "verify"}, {"vms", names}}, result, error))
    return fail(error);
  if (!result.is_array())
    return fail("unexpected answer from the agent: " + result.dump());
  show(cli, result, vm_host_columns, false);

  std::string missing;
  for (const auto& name : names) {
    bool found = false;
    for (const auto& vm : result)
      found = found || folded(field(vm, "name")) == folded(name);
    if (!found)
      missing += (missing.empty() ? "'" : ", '") + name + "'";
  }
  return missing.empty() ? OK : fail("VMs not found: " + missing);
}
