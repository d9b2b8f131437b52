// Storage pools and the backup catalog of the backup server.
//
// Every route needs the header "X-Access-Key" (401 without a valid one). Errors answer
// {"error": "<text>"} with 400 (bad request), 404 (unknown uuid), 409 (conflict) or 500.
//
// Storage pools
//   POST /k4/r/storage/pool
//        {"name": "lab", "url": "file:///srv/pool1", "io_options": {"compression": "zstd"}}
//        -> 201 {"uuid": "7c9e..."}; 409 {"error": ..., "uuid": "<existing>"} for a taken name.
//        "url" is file:///<absolute dir> or s3://<bucket>[/prefix]; "io_options" is optional
//        (the object form of the pool I/O options, stored as given).
//   GET  /k4/r/storage/pool
//        -> 200 {"rows": [pool, ...]} in registration order
//   GET  /k4/r/storage/pool?uuid=U
//        -> 200 pool; 404 when unknown
//        pool = {"uuid": U, "name": "lab", "url": "file:///srv/pool1",
//                "io_options": {...}, "created": 1700000000}
//        "url" is the pool's base location; a set's objects lie below "<url>/<set uri>".
//
// Catalog of area "h3ccas" (backup sets of CAS VMs)
//   POST /k4/r/catalog/h3ccas
//        body: one backup set (see below) -> 201 {"uuid": S, "created": true};
//        the same set again -> 200 {"uuid": S, "created": false}; a different set under a
//        committed uuid -> 409. 400 for a missing or mistyped key, an unknown "pool_uuid", or
//        an incremental/differential set whose "base" is not in the catalog for the same
//        "resource_uuid".
//   GET  /k4/r/catalog/h3ccas/view/base_catalog?resource_uuid=R&host_id=CVK&vm_id=VM
//        -> 200 [set, ...]: the VM's sets, newest first (all three filters required)
//   GET  /k4/r/catalog/h3ccas/view/restore?resource_uuid=R&set_uuid=S
//        -> 200 [set, ...]: the chain from its full set to S, oldest first; 404 for an unknown
//        set or a broken chain
//   GET  /k4/r/catalog/h3ccas/sets[?host_uuid=CVM][&host_id=CVK][&vm_id=VM]
//        -> 200 {"rows": [summary, ...]}, newest first; filters combine with AND
//        summary = {"uuid", "vm_id", "vm_name", "host_id", "host_name", "host_uuid",
//                   "resource_uuid", "backup_type", "start_time", "set_size", "source_size",
//                   "storage_size", "pool_uuid", "base", "incarnation",
//                   "chain": [full set uuid, ..., this set's uuid]}
//   GET  /k4/r/catalog/h3ccas/sets?uuid=S
//        -> 200 the whole set plus "chain" and "committed"; 404 when unknown
//
// A backup set (keys that must be present, with their JSON types):
//   strings: "uuid", "job_uuid", "run_uuid", "definition_id", "resource_uuid", "vm_uuid",
//            "host_id", "host_name", "host_ip", "vm_id", "vm_name", "vm_title",
//            "backup_type" ("full", "incremental" or "differential"), "incarnation", "base",
//            "cbt_name", "uri", "vm_config_path", "pool_uuid", "name", "host_uuid", "agent",
//            "instance_version"
//   integers: "start_time" (seconds since the epoch), "set_size", "source_size"
//   arrays: "vm_disks" (disk records), "pieces" ({"object", "size", "path"}),
//           "storages" ({"pool_uuid", "size", "extra"})
//   Other keys ("cpu_sockets", "cpu_cores", "memory", ...) are kept as given.
//   A full set has "base" = "incarnation" = "uuid"; a later set names its base set and shares
//   the incarnation of the chain.

#include "programs/server/catalog.h"

#include "host/core/log.h"
#include "host/core/text.h"
#include "host/storage/options.h"
#include "host/storage/pool_url.h"

#include <cstdint>
#include <ctime>
#include <exception>
#include <set>
#include <string>
#include <vector>

namespace brimlet_server {

namespace {

const char* const pool_path = "/k4/r/storage/pool";
const char* const catalog_path = "/k4/r/catalog/h3ccas";
const char* const view_prefix = "/k4/r/catalog/h3ccas/view/";
const char* const sets_path = "/k4/r/catalog/h3ccas/sets";

const std::string* query_value(const HTTP_Server_Request& req, const char* key) {
  auto it = req.query.find(key);
  return it == req.query.end() ? nullptr : &it->second;
}

// Runs `body` with exceptions turned into a 500, so that no handler lets one escape.
template <typename F>
void guarded(const HTTP_Server_Request& req, HTTP_Server_Response& resp, F body) {
  try {
    body();
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Failed to answer %s '%s': %s.\n", req.method_text.c_str(), req.path.c_str(),
             e.what()));
    resp.headers.reset();
    resp.error(500, "internal error");
  }
}

// False with a 400 answer when the body is not a JSON object.
bool parse_object(const HTTP_Server_Request& req, HTTP_Server_Response& resp, JSON_Value& out) {
  out = JSON_Value::parse(req.body, nullptr, false);
  if (out.is_object())
    return true;
  resp.error(400, "a JSON object body is expected");
  return false;
}

JSON_Value row_to_pool(const Statement& st) {
  JSON_Value io = JSON_Value::parse(st.text(3), nullptr, false);
  return {{"uuid", st.text(0)},
          {"name", st.text(1)},
          {"url", st.text(2)},
          {"io_options", io.is_object() ? io : JSON_Value::object()},
          {"created", st.integer(4)}};
}

// The keys a backup set must carry, by JSON type.
const char* const set_strings[] = {
    "uuid",      "job_uuid", "run_uuid",        "definition_id", "resource_uuid",
    "vm_uuid",   "host_id",  "host_name",       "host_ip",       "vm_id",
    "vm_name",   "vm_title", "backup_type",     "incarnation",   "base",
    "cbt_name",  "uri",      "vm_config_path",  "pool_uuid",     "name",
    "host_uuid", "agent",    "instance_version"};
const char* const set_integers[] = {"start_time", "set_size", "source_size"};
const char* const set_arrays[] = {"vm_disks", "pieces", "storages"};

// Throws JSON_Error naming the first offending key.
void check_set(const JSON_Value& set) {
  for (const char* k : set_strings) {
    std::string v;
    json_extract(set, k, v);
  }
  for (const char* k : set_integers) {
    std::int64_t v = 0;
    json_extract(set, k, v);
    if (v < 0)
      json_throw_type(k, "non-negative integer");
  }
  for (const char* k : set_arrays) {
    JSON_Value v;
    json_extract_array(set, k, v);
  }
  if (set["uuid"].get<std::string>().empty())
    json_throw_type("uuid", "non-empty string");
  const std::string type = set["backup_type"].get<std::string>();
  if (type != "full" && type != "incremental" && type != "differential")
    json_throw_type("backup_type", "\"full\", \"incremental\" or \"differential\"");
  const std::string& uuid = set["uuid"].get_ref<const std::string&>();
  bool own_base = set["base"] == uuid && set["incarnation"] == uuid;
  if (type == "full" && !own_base)
    throw JSON_Error("a full set is its own 'base' and 'incarnation'");
  if (type != "full" && set["base"] == uuid)
    throw JSON_Error("an " + type + " set needs another set as its 'base'");
}

std::int64_t storage_size(const JSON_Value& set) {
  std::int64_t total = 0;
  for (const auto& s : set.value("storages", JSON_Value::array()))
    if (s.is_object() && s.contains("size") && s["size"].is_number_integer())
      total += s["size"].get<std::int64_t>();
  return total;
}

// One stored set: its body and the columns the chain walks by.
struct Stored_Set {
  std::string uuid;
  std::string base;
  JSON_Value body;
  std::int64_t committed = 0;
};

// Result of looking a set up: found, absent, or a database failure (logged).
enum class Lookup { Found, Absent, Failed };

Lookup find_set(Connection& conn, const std::string& uuid, Stored_Set& out) {
  auto st = conn.prepare("SELECT uuid, base, body, committed FROM backup_set WHERE uuid = ?");
  if (!st.bind(1, uuid).next())
    return st.ok() ? Lookup::Absent : Lookup::Failed;
  out.uuid = st.text(0);
  out.base = st.text(1);
  out.body = JSON_Value::parse(st.text(2), nullptr, false);
  out.committed = st.integer(3);
  if (!out.body.is_object()) {
    LOG_MSG((LM_ERROR, "Backup set '%s' has a damaged body.\n", uuid.c_str()));
    return Lookup::Failed;
  }
  return Lookup::Found;
}

// The chain from its full set to `uuid`, oldest first. Absent when a link is missing or loops.
Lookup find_chain(Connection& conn, const std::string& uuid, std::vector<Stored_Set>& chain) {
  chain.clear();
  std::set<std::string> seen;
  std::string next = uuid;
  for (;;) {
    if (!seen.insert(next).second) {
      LOG_MSG((LM_WARNING, "The chain of backup set '%s' loops at '%s'.\n", uuid.c_str(),
               next.c_str()));
      return Lookup::Absent;
    }
    Stored_Set s;
    Lookup l = find_set(conn, next, s);
    if (l != Lookup::Found)
      return l;
    next = s.base;
    bool full = s.base == s.uuid;
    chain.insert(chain.begin(), std::move(s));
    if (full)
      return Lookup::Found;
  }
}

JSON_Value chain_uuids(const std::vector<Stored_Set>& chain) {
  JSON_Value out = JSON_Value::array();
  for (const auto& s : chain)
    out.push_back(s.uuid);
  return out;
}

JSON_Value summary(const JSON_Value& set, JSON_Value chain) {
  JSON_Value out = JSON_Value::object();
  for (const char* k :
       {"uuid", "vm_id", "vm_name", "host_id", "host_name", "host_uuid", "resource_uuid",
        "backup_type", "start_time", "set_size", "source_size", "pool_uuid", "base", "incarnation"})
    out[k] = set.value(k, JSON_Value());
  out["storage_size"] = storage_size(set);
  out["chain"] = std::move(chain);
  return out;
}

}  // namespace

void Storage_Pools::add_routes(HTTP_Server& server) {
  server.route(
      HTTP_Method::UNKNOWN, pool_path,
      [this](const HTTP_Server_Request& req, HTTP_Server_Response& resp) { handle(req, resp); });
}

void Storage_Pools::handle(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  guarded(req, resp, [&] {
    Caller caller;
    if (!keys_.authenticate(req, resp, caller))
      return;
    switch (req.method) {
      case HTTP_Method::GET:
        return get_i(req, resp);
      case HTTP_Method::POST:
        return register_i(req, resp);
      default:
        resp.error(405, "method not allowed");
        resp.headers.put("Allow", "GET, POST");
    }
  });
}

void Storage_Pools::register_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  JSON_Value body;
  if (!parse_object(req, resp, body))
    return;
  std::string name, url;
  JSON_Value io = JSON_Value::object();
  try {
    for (const auto& item : body.items())
      if (item.key() != "name" && item.key() != "url" && item.key() != "io_options")
        throw JSON_Error("unknown key '" + item.key() + "'");
    json_extract(body, "name", name);
    if (name.empty())
      json_throw_type("name", "non-empty string");
    json_extract(body, "url", url);
    std::string folder, url_error;
    if (!validate_pool_url(url, folder, url_error))
      throw JSON_Error(url_error);
    json_extract_object(body, "io_options", io, false);
  } catch (const JSON_Error& e) {
    return resp.error(400, e.what());
  }
  Client_IO_Base::Options opts;
  if (!(opts << io))
    return resp.error(400, "invalid 'io_options'");

  auto conn = db_.acquire();
  if (!conn)
    return resp.error(500, "database unavailable");
  Transaction tx(*conn);
  if (!tx.ok())
    return resp.error(500, "database failure");
  {
    auto st = conn->prepare("SELECT uuid FROM pool WHERE name = ?");
    if (st.bind(1, name).next())
      return resp.json(
          {{"error", "a storage pool of this name exists already"}, {"uuid", st.text(0)}}, 409);
    if (!st.ok())
      return resp.error(500, "database failure");
  }
  std::string uuid = new_uuid();
  auto st = conn->prepare(
      "INSERT INTO pool (uuid, name, url, io_options, created) VALUES (?, ?, ?, ?, ?)");
  st.bind(1, uuid).bind(2, name).bind(3, url).bind(4, io.dump());
  st.bind(5, static_cast<std::int64_t>(std::time(nullptr)));
  if (!st.run() || !tx.commit())
    return resp.error(500, "database failure");
  LOG_MSG((LM_INFO, "Registered storage pool '%s' ('%s' at '%s').\n", uuid.c_str(), name.c_str(),
           url.c_str()));
  resp.json({{"uuid", uuid}}, 201);
}

void Storage_Pools::get_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  const std::string* uuid = query_value(req, "uuid");
  auto conn = db_.acquire();
  if (!conn)
    return resp.error(500, "database unavailable");
  if (uuid) {
    auto st = conn->prepare("SELECT uuid, name, url, io_options, created FROM pool WHERE uuid = ?");
    if (st.bind(1, *uuid).next())
      return resp.json(row_to_pool(st));
    if (!st.ok())
      return resp.error(500, "database failure");
    return resp.error(404, "no storage pool '" + *uuid + "'");
  }
  JSON_Value rows = JSON_Value::array();
  auto st = conn->prepare("SELECT uuid, name, url, io_options, created FROM pool ORDER BY rowid");
  while (st.next())
    rows.push_back(row_to_pool(st));
  if (!st.ok())
    return resp.error(500, "database failure");
  resp.json({{"rows", std::move(rows)}});
}

void Catalog::add_routes(HTTP_Server& server) {
  auto h = [this](const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
    handle(req, resp);
  };
  server.route(HTTP_Method::UNKNOWN, catalog_path, h);
  server.route(HTTP_Method::UNKNOWN, sets_path, h);
  server.route_prefix(HTTP_Method::UNKNOWN, view_prefix, h);
}

void Catalog::handle(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  guarded(req, resp, [&] {
    Caller caller;
    if (!keys_.authenticate(req, resp, caller))
      return;
    bool commit = req.path == catalog_path;
    HTTP_Method allowed = commit ? HTTP_Method::POST : HTTP_Method::GET;
    if (req.method != allowed) {
      resp.error(405, "method not allowed");
      resp.headers.put("Allow", commit ? "POST" : "GET");
      return;
    }
    if (commit)
      return commit_i(req, resp);
    if (req.path == sets_path)
      return sets_i(req, resp);
    std::string view = req.path.substr(std::string(view_prefix).size());
    if (view == "base_catalog")
      return base_catalog_i(req, resp);
    if (view == "restore")
      return restore_i(req, resp);
    resp.error(404, "no view '" + view + "'");
  });
}

void Catalog::commit_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  JSON_Value set;
  if (!parse_object(req, resp, set))
    return;
  try {
    check_set(set);
  } catch (const JSON_Error& e) {
    return resp.error(400, e.what());
  }
  const std::string uuid = set["uuid"].get<std::string>();
  const std::string resource = set["resource_uuid"].get<std::string>();

  auto conn = db_.acquire();
  if (!conn)
    return resp.error(500, "database unavailable");
  Transaction tx(*conn);
  if (!tx.ok())
    return resp.error(500, "database failure");

  Stored_Set existing;
  Lookup l = find_set(*conn, uuid, existing);
  if (l == Lookup::Failed)
    return resp.error(500, "database failure");
  if (l == Lookup::Found) {
    // A retried commit whose first answer was lost must succeed without a second entry.
    if (existing.body == set)
      return resp.json({{"uuid", uuid}, {"created", false}});
    return resp.error(409, "backup set '" + uuid + "' was committed with other content");
  }
  {
    auto st = conn->prepare("SELECT 1 FROM pool WHERE uuid = ?");
    if (!st.bind(1, set["pool_uuid"].get<std::string>()).next())
      return st.ok() ? resp.error(400, "unknown storage pool '" +
                                           set["pool_uuid"].get<std::string>() + "'")
                     : resp.error(500, "database failure");
  }
  const std::string base = set["base"].get<std::string>();
  if (base != uuid) {
    Stored_Set b;
    l = find_set(*conn, base, b);
    if (l == Lookup::Failed)
      return resp.error(500, "database failure");
    if (l == Lookup::Absent || b.body.value("resource_uuid", "") != resource)
      return resp.error(400, "base set '" + base + "' is not in the catalog");
    if (b.body.value("incarnation", "") != set["incarnation"])
      return resp.error(400, "'incarnation' differs from that of base set '" + base + "'");
  }
  auto st = conn->prepare(
      "INSERT INTO backup_set (uuid, resource_uuid, host_uuid, host_id, vm_id, base, start_time,"
      " pool_uuid, body, committed) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  st.bind(1, uuid).bind(2, resource).bind(3, set["host_uuid"].get<std::string>());
  st.bind(4, set["host_id"].get<std::string>()).bind(5, set["vm_id"].get<std::string>());
  st.bind(6, base).bind(7, set["start_time"].get<std::int64_t>());
  st.bind(8, set["pool_uuid"].get<std::string>()).bind(9, set.dump());
  st.bind(10, static_cast<std::int64_t>(std::time(nullptr)));
  if (!st.run() || !tx.commit())
    return resp.error(500, "database failure");
  LOG_MSG((LM_INFO, "Committed %s backup set '%s' of VM '%s' on '%s'.\n",
           set["backup_type"].get<std::string>().c_str(), uuid.c_str(),
           set["vm_name"].get<std::string>().c_str(), set["host_name"].get<std::string>().c_str()));
  resp.json({{"uuid", uuid}, {"created", true}}, 201);
}

void Catalog::base_catalog_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  const std::string* resource = query_value(req, "resource_uuid");
  const std::string* host = query_value(req, "host_id");
  const std::string* vm = query_value(req, "vm_id");
  if (!resource || !host || !vm)
    return resp.error(400, "'resource_uuid', 'host_id' and 'vm_id' are required");
  auto conn = db_.acquire();
  if (!conn)
    return resp.error(500, "database unavailable");
  auto st = conn->prepare(
      "SELECT body FROM backup_set WHERE resource_uuid = ? AND host_id = ? AND vm_id = ?"
      " ORDER BY start_time DESC, rowid DESC");
  st.bind(1, *resource).bind(2, *host).bind(3, *vm);
  JSON_Value sets = JSON_Value::array();
  while (st.next())
    sets.push_back(JSON_Value::parse(st.text(0)));
  if (!st.ok())
    return resp.error(500, "database failure");
  resp.json(sets);
}

void Catalog::restore_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  const std::string* resource = query_value(req, "resource_uuid");
  const std::string* uuid = query_value(req, "set_uuid");
  if (!resource || !uuid)
    return resp.error(400, "'resource_uuid' and 'set_uuid' are required");
  auto conn = db_.acquire();
  if (!conn)
    return resp.error(500, "database unavailable");
  std::vector<Stored_Set> chain;
  Lookup l = find_chain(*conn, *uuid, chain);
  if (l == Lookup::Failed)
    return resp.error(500, "database failure");
  if (l == Lookup::Absent || chain.back().body.value("resource_uuid", "") != *resource)
    return resp.error(404, "no complete chain for backup set '" + *uuid + "'");
  JSON_Value sets = JSON_Value::array();
  for (auto& s : chain)
    sets.push_back(std::move(s.body));
  resp.json(sets);
}

void Catalog::sets_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  auto conn = db_.acquire();
  if (!conn)
    return resp.error(500, "database unavailable");
  if (const std::string* uuid = query_value(req, "uuid")) {
    std::vector<Stored_Set> chain;
    Lookup l = find_chain(*conn, *uuid, chain);
    if (l == Lookup::Failed)
      return resp.error(500, "database failure");
    Stored_Set one;
    if (l == Lookup::Absent) {
      // A set whose chain is broken is still shown, with the chain cut where it breaks.
      l = find_set(*conn, *uuid, one);
      if (l != Lookup::Found)
        return l == Lookup::Absent ? resp.error(404, "no backup set '" + *uuid + "'")
                                   : resp.error(500, "database failure");
      chain = {one};
    }
    JSON_Value set = chain.back().body;
    set["chain"] = chain_uuids(chain);
    set["committed"] = chain.back().committed;
    return resp.json(set);
  }
  auto bind_filter = [&](Statement& st, int index, const char* key) {
    const std::string* v = query_value(req, key);
    if (v)
      st.bind(index, *v);
    else
      st.bind_null(index);
  };
  std::vector<std::pair<std::string, JSON_Value>> found;
  {
    auto st = conn->prepare(
        "SELECT uuid, body FROM backup_set WHERE (?1 IS NULL OR host_uuid = ?1)"
        " AND (?2 IS NULL OR host_id = ?2) AND (?3 IS NULL OR vm_id = ?3)"
        " ORDER BY start_time DESC, rowid DESC");
    bind_filter(st, 1, "host_uuid");
    bind_filter(st, 2, "host_id");
    bind_filter(st, 3, "vm_id");
    while (st.next())
      found.emplace_back(st.text(0), JSON_Value::parse(st.text(1)));
    if (!st.ok())
      return resp.error(500, "database failure");
  }
  JSON_Value rows = JSON_Value::array();
  for (auto& f : found) {
    std::vector<Stored_Set> chain;
    Lookup l = find_chain(*conn, f.first, chain);
    if (l == Lookup::Failed)
      return resp.error(500, "database failure");
    rows.push_back(
        summary(f.second, l == Lookup::Found ? chain_uuids(chain) : JSON_Value::array({f.first})));
  }
  resp.json({{"rows", std::move(rows)}});
}

}  // namespace brimlet_server
