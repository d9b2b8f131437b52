#include "programs/cli/catalog.h"

#include "host/catalog/server_api.h"
#include "host/core/text.h"
#include "host/storage/options.h"
#include "programs/cli/table.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

namespace {

// The compression a pool's objects get: its I/O options over the defaults, as the pool's
// clients read them.
std::string compression_text(const JSON_Value& io_options) {
  Client_IO_Base::Options options;
  JSON_Value effective;
  if (!(options << io_options))
    return "invalid: " + io_options.dump();
  options >> effective;
  std::string name = effective.value("compression", "");
  if (name == "none")
    return name;
  return name + " level " + std::to_string(effective.value("compression_level", 0));
}

// "--host cvk01" matches a set of that host id or host name.
bool matches(const JSON_Value& set, const std::string& want, const char* id, const char* name) {
  return want.empty() || set.value(id, "") == want || set.value(name, "") == want;
}

// The first set of the chain is the full set the row belongs to.
std::string chain_head(const JSON_Value& set) {
  const JSON_Value* chain = json_find(set, "chain");
  return chain && chain->is_array() && !chain->empty() ? cell_text(chain->front()) : "";
}

// One field of `sets show`: times and sizes readable, sizes also exact.
std::string field_text(const std::string& key, const JSON_Value& value) {
  if (key == "start_time" || key == "committed")
    return time_text(value);
  bool size = key.size() >= 4 && key.compare(key.size() - 4, 4, "size") == 0;
  if (size && value.is_number_unsigned() && value.get<std::uint64_t>() >= 1024)
    return size_text(value) + " (" + value.dump() + " bytes)";
  if (size && value.is_number_unsigned())
    return value.dump() + " bytes";
  return cell_text(value);
}

// Records as a table whose columns are their keys, in order of first appearance.
void print_records(const JSON_Value& records) {
  std::vector<std::string> keys;
  for (const auto& record : records)
    for (const auto& item : record.items())
      if (std::find(keys.begin(), keys.end(), item.key()) == keys.end())
        keys.push_back(item.key());
  Table table;
  std::vector<std::string> header;
  for (const auto& key : keys) {
    std::string title;
    for (char c : key)
      title += c == '_' ? ' ' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    header.push_back(title);
  }
  table.add(std::move(header));
  for (const auto& record : records) {
    std::vector<std::string> row;
    for (const auto& key : keys)
      row.push_back(cell_text(record.value(key, JSON_Value())));
    table.add(std::move(row));
  }
  table.print(std::cout);
}

bool is_record_list(const JSON_Value& value) {
  if (!value.is_array() || value.empty())
    return false;
  for (const auto& v : value)
    if (!v.is_object())
      return false;
  return true;
}

}  // namespace

int pool_add(const Cli& cli, const std::string& name, const std::string& url,
             const JSON_Value& io_options) {
  JSON_Value body = {{"name", name}, {"url", url}};
  if (!io_options.empty()) {
    Client_IO_Base::Options options;
    if (!(options << io_options))
      return usage_error(cli, "level " + std::to_string(io_options.value("compression_level", 0)) +
                                  " is out of range for " +
                                  io_options.value("compression", "zstd") + " compression");
    body["io_options"] = io_options;
  }
  HTTP_Request req(HTTP_Method::POST, server_api::pool_route);
  JSON_Value out;
  std::string error;
  if (!server_call(req, &body, out, error)) {
    if (out.is_object() && out.contains("uuid"))
      return fail("a storage pool named '" + name + "' is registered already, as " +
                  cell_text(out["uuid"]));
    return fail(error);
  }
  if (cli.json)
    std::cout << out.dump(2) << "\n";
  else
    std::cout << "Registered storage pool " << name << " as " << out.value("uuid", "?") << "\n";
  return OK;
}

int pool_list(const Cli& cli) {
  HTTP_Request req(HTTP_Method::GET, server_api::pool_route);
  JSON_Value out;
  std::string error;
  if (!server_call(req, nullptr, out, error))
    return fail(error);
  JSON_Value rows = out.value("rows", JSON_Value::array());
  if (cli.json) {
    std::cout << rows.dump(2) << "\n";
    return OK;
  }
  Table table({"NAME", "UUID", "URL", "COMPRESSION"});
  for (const auto& r : rows)
    table.add({r.value("name", ""), r.value("uuid", ""), r.value("url", ""),
               compression_text(r.value("io_options", JSON_Value::object()))});
  table.print(std::cout);
  return OK;
}

int sets_list(const Cli& cli, const std::string& cvm, const std::string& host,
              const std::string& vm) {
  std::string error;
  std::string cvm_uuid = cvm;
  bool registered = true;
  if (!cvm.empty()) {
    JSON_Value entry;
    registered = find_cvm(cvm, entry, error);
    if (registered)
      cvm_uuid = entry.value("uuid", "");
    // A CVM removed from the registry keeps its sets: its uuid still finds them.
  }
  HTTP_Request req(HTTP_Method::GET, server_api::h3ccas_sets_route);
  if (!cvm_uuid.empty())
    HTTP_Query_String_Builder(req.query()).append("host_uuid", cvm_uuid);
  JSON_Value out;
  std::string call_error;
  if (!server_call(req, nullptr, out, call_error))
    return fail(call_error);
  // The server filters by ids only; people name hosts and VMs either way.
  JSON_Value rows = JSON_Value::array();
  for (const auto& set : out.value("rows", JSON_Value::array()))
    if (matches(set, host, "host_id", "host_name") && matches(set, vm, "vm_id", "vm_name"))
      rows.push_back(set);
  if (!registered && out.value("rows", JSON_Value::array()).empty())
    return fail(error);
  if (cli.json) {
    std::cout << rows.dump(2) << "\n";
    return OK;
  }
  Table table({"UUID", "TIME", "TYPE", "VM", "HOST", "SIZE", "FULL SET"});
  for (const auto& r : rows)
    table.add({r.value("uuid", ""), time_text(r.value("start_time", JSON_Value())),
               r.value("backup_type", ""), r.value("vm_name", ""), r.value("host_name", ""),
               size_text(r.value("set_size", JSON_Value())), chain_head(r)});
  table.print(std::cout);
  return OK;
}

int sets_show(const Cli& cli, const std::string& uuid) {
  HTTP_Request req(HTTP_Method::GET, server_api::h3ccas_sets_route);
  HTTP_Query_String_Builder(req.query()).append("uuid", uuid);
  JSON_Value set;
  std::string error;
  if (!server_call(req, nullptr, set, error))
    return fail(error);
  if (cli.json) {
    std::cout << set.dump(2) << "\n";
    return OK;
  }
  if (!set.is_object())
    return fail("unexpected answer from the backup server: " + set.dump());
  // Who and what first, then the rest by name; lists of records (disks first) get tables of
  // their own.
  static const char* const lead[] = {
      "uuid",  "backup_type", "start_time",  "vm_name",  "vm_id",  "host_name", "host_id",
      "chain", "set_size",    "source_size", "vm_disks", "pieces", "storages"};
  std::vector<std::string> order(std::begin(lead), std::end(lead));
  for (const auto& item : set.items())
    if (std::find(order.begin(), order.end(), item.key()) == order.end())
      order.push_back(item.key());
  Table fields;
  std::vector<std::string> sections;
  for (const auto& key : order) {
    const JSON_Value* value = json_find(set, key.c_str());
    if (!value)
      continue;
    if (is_record_list(*value))
      sections.push_back(key);
    else
      fields.add({key + ":", field_text(key, *value)});
  }
  fields.print(std::cout);
  for (const auto& key : sections) {
    std::cout << "\n" << key << ":\n";
    print_records(set[key]);
  }
  return OK;
}
