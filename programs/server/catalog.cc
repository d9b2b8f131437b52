// Storage pools and the backup catalog of the backup server (see host/catalog/server_api.h).

#include "programs/server/catalog.h"

#include "host/catalog/server_api.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "host/storage/options.h"
#include "host/storage/pool_url.h"
#include "programs/server/handler.h"

#include <cstdint>
#include <ctime>
#include <set>
#include <string>
#include <vector>

namespace brimlet_server {

namespace {

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
  add_route(server, keys_, server_api::pool_route, false,
            {{HTTP_Method::GET, any_role, nullptr, member(this, &Storage_Pools::get_i)},
             {HTTP_Method::POST, admin_role, "registering storage pools",
              member(this, &Storage_Pools::register_i)}});
}

void Storage_Pools::register_i(const HTTP_Server_Request& req, const Caller&,
                               HTTP_Server_Response& resp) {
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

  Request_DB db(db_, resp, Request_DB::transaction);
  if (!db)
    return;
  {
    auto st = db->prepare("SELECT uuid FROM pool WHERE name = ?");
    if (st.bind(1, name).next())
      return resp.json(
          {{"error", "a storage pool of this name exists already"}, {"uuid", st.text(0)}}, 409);
    if (!st.ok())
      return db.fail();
  }
  std::string uuid = new_uuid();
  auto st =
      db->prepare("INSERT INTO pool (uuid, name, url, io_options, created) VALUES (?, ?, ?, ?, ?)");
  st.bind(1, uuid).bind(2, name).bind(3, url).bind(4, io.dump());
  st.bind(5, static_cast<std::int64_t>(std::time(nullptr)));
  if (!st.run() || !db.commit())
    return db.fail();
  LOG_MSG((LM_INFO, "Registered storage pool '%s' ('%s' at '%s').\n", uuid.c_str(), name.c_str(),
           url.c_str()));
  resp.json({{"uuid", uuid}}, 201);
}

void Storage_Pools::get_i(const HTTP_Server_Request& req, const Caller&,
                          HTTP_Server_Response& resp) {
  Request_DB db(db_, resp, Request_DB::autocommit);
  if (!db)
    return;
  if (const std::string* uuid = query_param(req, "uuid")) {
    auto st = db->prepare("SELECT uuid, name, url, io_options, created FROM pool WHERE uuid = ?");
    if (st.bind(1, *uuid).next())
      return resp.json(row_to_pool(st));
    if (!st.ok())
      return db.fail();
    return resp.error(404, "no storage pool '" + *uuid + "'");
  }
  JSON_Value rows = JSON_Value::array();
  auto st = db->prepare("SELECT uuid, name, url, io_options, created FROM pool ORDER BY rowid");
  while (st.next())
    rows.push_back(row_to_pool(st));
  if (!st.ok())
    return db.fail();
  resp.json({{"rows", std::move(rows)}});
}

void Catalog::add_routes(HTTP_Server& server) {
  add_route(server, keys_, server_api::h3ccas_catalog_route, false,
            {{HTTP_Method::POST, agent_role, "committing backup sets",
              member(this, &Catalog::commit_i)}});
  add_route(server, keys_, server_api::h3ccas_sets_route, false,
            {{HTTP_Method::GET, any_role, nullptr, member(this, &Catalog::sets_i)}});
  add_route(server, keys_, server_api::h3ccas_view_route, true,
            {{HTTP_Method::GET, any_role, nullptr, member(this, &Catalog::view_i)}});
}

void Catalog::view_i(const HTTP_Server_Request& req, const Caller&, HTTP_Server_Response& resp) {
  std::string view = req.path.substr(sizeof server_api::h3ccas_view_route - 1);
  if (view == "base_catalog")
    return base_catalog_i(req, resp);
  if (view == "restore")
    return restore_i(req, resp);
  resp.error(404, "no view '" + view + "'");
}

void Catalog::commit_i(const HTTP_Server_Request& req, const Caller&, HTTP_Server_Response& resp) {
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

  Request_DB db(db_, resp, Request_DB::transaction);
  if (!db)
    return;
  Stored_Set existing;
  Lookup l = find_set(*db, uuid, existing);
  if (l == Lookup::Failed)
    return db.fail();
  if (l == Lookup::Found) {
    // A retried commit whose first answer was lost must succeed without a second entry.
    if (existing.body == set)
      return resp.json({{"uuid", uuid}, {"created", false}});
    return resp.error(409, "backup set '" + uuid + "' was committed with other content");
  }
  const std::string pool = set["pool_uuid"].get<std::string>();
  {
    auto st = db->prepare("SELECT 1 FROM pool WHERE uuid = ?");
    if (!st.bind(1, pool).next())
      return st.ok() ? resp.error(400, "unknown storage pool '" + pool + "'") : db.fail();
  }
  const std::string base = set["base"].get<std::string>();
  if (base != uuid) {
    Stored_Set b;
    l = find_set(*db, base, b);
    if (l == Lookup::Failed)
      return db.fail();
    if (l == Lookup::Absent || b.body.value("resource_uuid", "") != resource)
      return resp.error(400, "base set '" + base + "' is not in the catalog");
    if (b.body.value("incarnation", "") != set["incarnation"])
      return resp.error(400, "'incarnation' differs from that of base set '" + base + "'");
  }
  auto st = db->prepare(
      "INSERT INTO backup_set (uuid, resource_uuid, host_uuid, host_id, vm_id, base, start_time,"
      " pool_uuid, body, committed) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  st.bind(1, uuid).bind(2, resource).bind(3, set["host_uuid"].get<std::string>());
  st.bind(4, set["host_id"].get<std::string>()).bind(5, set["vm_id"].get<std::string>());
  st.bind(6, base).bind(7, set["start_time"].get<std::int64_t>());
  st.bind(8, pool).bind(9, set.dump());
  st.bind(10, static_cast<std::int64_t>(std::time(nullptr)));
  if (!st.run() || !db.commit())
    return db.fail();
  LOG_MSG((LM_INFO, "Committed %s backup set '%s' of VM '%s' on '%s'.\n",
           set["backup_type"].get<std::string>().c_str(), uuid.c_str(),
           set["vm_name"].get<std::string>().c_str(), set["host_name"].get<std::string>().c_str()));
  resp.json({{"uuid", uuid}, {"created", true}}, 201);
}

void Catalog::base_catalog_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  if (!require_query(req, {"resource_uuid", "host_id", "vm_id"}, resp))
    return;
  Request_DB db(db_, resp, Request_DB::autocommit);
  if (!db)
    return;
  auto st = db->prepare(
      "SELECT body FROM backup_set WHERE resource_uuid = ? AND host_id = ? AND vm_id = ?"
      " ORDER BY start_time DESC, rowid DESC");
  st.bind(1, *query_param(req, "resource_uuid"));
  st.bind(2, *query_param(req, "host_id")).bind(3, *query_param(req, "vm_id"));
  JSON_Value sets = JSON_Value::array();
  while (st.next())
    sets.push_back(JSON_Value::parse(st.text(0)));
  if (!st.ok())
    return db.fail();
  resp.json(sets);
}

void Catalog::restore_i(const HTTP_Server_Request& req, HTTP_Server_Response& resp) {
  if (!require_query(req, {"resource_uuid", "set_uuid"}, resp))
    return;
  const std::string& uuid = *query_param(req, "set_uuid");
  Request_DB db(db_, resp, Request_DB::autocommit);
  if (!db)
    return;
  std::vector<Stored_Set> chain;
  Lookup l = find_chain(*db, uuid, chain);
  if (l == Lookup::Failed)
    return db.fail();
  if (l == Lookup::Absent ||
      chain.back().body.value("resource_uuid", "") != *query_param(req, "resource_uuid"))
    return resp.error(404, "no complete chain for backup set '" + uuid + "'");
  JSON_Value sets = JSON_Value::array();
  for (auto& s : chain)
    sets.push_back(std::move(s.body));
  resp.json(sets);
}

void Catalog::sets_i(const HTTP_Server_Request& req, const Caller&, HTTP_Server_Response& resp) {
  Request_DB db(db_, resp, Request_DB::autocommit);
  if (!db)
    return;
  if (const std::string* uuid = query_param(req, "uuid")) {
    std::vector<Stored_Set> chain;
    Lookup l = find_chain(*db, *uuid, chain);
    if (l == Lookup::Failed)
      return db.fail();
    Stored_Set one;
    if (l == Lookup::Absent) {
      // A set whose chain is broken is still shown, with the chain cut where it breaks.
      l = find_set(*db, *uuid, one);
      if (l == Lookup::Failed)
        return db.fail();
      if (l == Lookup::Absent)
        return resp.error(404, "no backup set '" + *uuid + "'");
      chain = {one};
    }
    JSON_Value set = chain.back().body;
    set["chain"] = chain_uuids(chain);
    set["committed"] = chain.back().committed;
    return resp.json(set);
  }
  std::vector<std::pair<std::string, JSON_Value>> found;
  {
    auto st = db->prepare(
        "SELECT uuid, body FROM backup_set WHERE (?1 IS NULL OR host_uuid = ?1)"
        " AND (?2 IS NULL OR host_id = ?2) AND (?3 IS NULL OR vm_id = ?3)"
        " ORDER BY start_time DESC, rowid DESC");
    int index = 0;
    for (const char* key : {"host_uuid", "host_id", "vm_id"}) {
      const std::string* v = query_param(req, key);
      if (v)
        st.bind(++index, *v);
      else
        st.bind_null(++index);
    }
    while (st.next())
      found.emplace_back(st.text(0), JSON_Value::parse(st.text(1)));
    if (!st.ok())
      return db.fail();
  }
  JSON_Value rows = JSON_Value::array();
  for (auto& f : found) {
    std::vector<Stored_Set> chain;
    Lookup l = find_chain(*db, f.first, chain);
    if (l == Lookup::Failed)
      return db.fail();
    rows.push_back(
        summary(f.second, l == Lookup::Found ? chain_uuids(chain) : JSON_Value::array({f.first})));
  }
  resp.json({{"rows", std::move(rows)}});
}

}  // namespace brimlet_server
