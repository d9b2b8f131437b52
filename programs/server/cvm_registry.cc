#include "programs/server/cvm_registry.h"

#include "host/catalog/server_api.h"
#include "host/core/crypto.h"
#include "host/core/log.h"
#include "host/core/text.h"
#include "programs/server/handler.h"

#include <cstdint>
#include <ctime>

namespace brimlet_server {

namespace {

#define SELECT_CVM \
  "SELECT uuid, name, host, port, ssl, username, extended_attrs, created, password FROM cvm "
const char* const select_all = SELECT_CVM "ORDER BY rowid";
const char* const select_one = SELECT_CVM "WHERE uuid = ?";
#undef SELECT_CVM
enum Column { UUID, NAME, HOST, PORT, SSL, USERNAME, EXTENDED_ATTRS, CREATED, PASSWORD };

struct New_Entry {
  std::string name;
  std::string host;
  std::int64_t port = 0;
  bool ssl = false;
  std::string username;
  Secure_String password;
  JSON_Value extended_attrs = JSON_Value::object();
};

// Throws JSON_Error naming the offending key.
void load_entry(const JSON_Value& body, New_Entry& e) {
  static const char* const known[] = {"name",     "host",     "port",          "ssl",
                                      "username", "password", "extended_attrs"};
  for (const auto& item : json_object(body).items()) {
    bool found = false;
    for (const char* k : known)
      found = found || item.key() == k;
    if (!found)
      throw JSON_Error("unknown key '" + item.key() + "'");
  }
  json_extract(body, "name", e.name, false);
  json_extract(body, "host", e.host);
  if (e.host.empty())
    json_throw_type("host", "non-empty string");
  json_extract(body, "port", e.port);
  if (e.port < 1 || e.port > 65535)
    json_throw_type("port", "integer in 1..65535");
  json_extract(body, "ssl", e.ssl);
  json_extract(body, "username", e.username);
  if (e.username.empty())
    json_throw_type("username", "non-empty string");
  json_extract(body, "password", e.password);
  json_extract_object(body, "extended_attrs", e.extended_attrs, false);
}

JSON_Value row_to_entry(const Statement& st) {
  JSON_Value attrs = JSON_Value::parse(st.text(EXTENDED_ATTRS), nullptr, false);
  if (!attrs.is_object()) {
    LOG_MSG((LM_WARNING, "CVM entry '%s' has damaged extended attributes: answered as empty.\n",
             st.text(UUID).c_str()));
    attrs = JSON_Value::object();
  }
  return {{"uuid", st.text(UUID)},
          {"name", st.text(NAME)},
          {"host", st.text(HOST)},
          {"port", st.integer(PORT)},
          {"ssl", st.integer(SSL) != 0},
          {"username", st.text(USERNAME)},
          {"extended_attrs", std::move(attrs)},
          {"created", st.integer(CREATED)}};
}

}  // namespace

void CVM_Registry::add_routes(HTTP_Server& server) {
  add_route(server, keys_, server_api::cvm_route, false,
            {{HTTP_Method::GET, any_role, nullptr, member(this, &CVM_Registry::get_i)},
             {HTTP_Method::POST, admin_role, "registering CVM entries",
              member(this, &CVM_Registry::create_i)},
             {HTTP_Method::DELETE, admin_role, "removing CVM entries",
              member(this, &CVM_Registry::remove_i)}});
}

void CVM_Registry::create_i(const HTTP_Server_Request& req, const Caller&,
                            HTTP_Server_Response& resp) {
  JSON_Value body;
  try {
    body = JSON_Value::parse(req.body);
  } catch (const JSON_Value::parse_error& e) {
    // Only the position: the parser's own message quotes the body, password included.
    resp.error(400, string_sprintf("malformed JSON body at byte %zu", e.byte));
    return;
  }
  New_Entry e;
  try {
    load_entry(body, e);
  } catch (const JSON_Error& ex) {
    resp.error(400, ex.what());
    return;
  }
  std::string cipher;
  if (!master_.encrypt(e.password, cipher))
    return resp.error(500, "failed to encrypt");

  Request_DB db(db_, resp, Request_DB::transaction);
  if (!db)
    return;
  {
    auto st = db->prepare("SELECT uuid FROM cvm WHERE host = ? AND port = ? AND username = ?");
    if (st.bind(1, e.host).bind(2, e.port).bind(3, e.username).next()) {
      resp.json({{"error", "a CVM entry for this host, port and username exists already"},
                 {"uuid", st.text(0)}},
                409);
      return;
    }
    if (!st.ok())
      return db.fail();
  }
  std::string uuid = new_uuid();
  auto st = db->prepare(
      "INSERT INTO cvm (uuid, name, host, port, ssl, username, password, extended_attrs, created)"
      " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
  st.bind(1, uuid).bind(2, e.name).bind(3, e.host).bind(4, e.port);
  st.bind(5, std::int64_t{e.ssl}).bind(6, e.username).bind(7, cipher);
  st.bind(8, e.extended_attrs.dump()).bind(9, static_cast<std::int64_t>(std::time(nullptr)));
  if (!st.run() || !db.commit())
    return db.fail();
  LOG_MSG((LM_INFO, "Registered CVM '%s' ('%s' at '%s:%d', user '%s').\n", uuid.c_str(),
           e.name.c_str(), e.host.c_str(), static_cast<int>(e.port), e.username.c_str()));
  resp.json({{"uuid", uuid}}, 201);
}

void CVM_Registry::get_i(const HTTP_Server_Request& req, const Caller& caller,
                         HTTP_Server_Response& resp) {
  const std::string* uuid = query_param(req, "uuid");
  const std::string* with_password = query_param(req, "with_password");
  if (with_password && !uuid)
    return resp.error(400, "'with_password' needs 'uuid'");
  // An agent reads an entry only to connect with it, so only with its sealed password.
  if (!with_password &&
      !permitted(req, caller, admin_role, "reading CVM entries without 'with_password'", resp))
    return;

  Request_DB db(db_, resp, Request_DB::autocommit);
  if (!db)
    return;
  JSON_Value rows = JSON_Value::array();
  if (!uuid) {
    auto st = db->prepare(select_all);
    while (st.next())
      rows.push_back(row_to_entry(st));
    if (!st.ok())
      return db.fail();
    resp.json({{"rows", std::move(rows)}});
    return;
  }

  auto st = db->prepare(select_one);
  if (st.bind(1, *uuid).next()) {
    JSON_Value entry = row_to_entry(st);
    if (with_password && *with_password == caller.host_id) {
      Secure_String plain;
      std::string cipher;
      if (!master_.decrypt(st.text(PASSWORD), plain))
        return resp.error(500, "damaged entry");
      if (!encrypt_string(plain.data(), plain.size(), cipher, server_api::cvm_password_seal_key,
                          server_api::cvm_password_seal_key_length)) {
        LOG_MSG((LM_ERROR, "Failed to encrypt the password of CVM '%s' for host '%s'.\n",
                 uuid->c_str(), caller.host_id.c_str()));
        return resp.error(500, "failed to encrypt");
      }
      entry["password"] = cipher;
      LOG_MSG((LM_INFO, "Gave the password of CVM '%s' to host '%s'.\n", uuid->c_str(),
               caller.host_id.c_str()));
    } else if (with_password) {
      // Only the agent itself may ask for its copy; anyone else gets an unusable entry.
      entry["password"] = "";
      LOG_MSG((LM_WARNING, "Host '%s' asked for the password of CVM '%s' for host '%s': refused.\n",
               caller.host_id.c_str(), uuid->c_str(), with_password->c_str()));
    }
    rows.push_back(std::move(entry));
  }
  if (!st.ok())
    return db.fail();
  resp.json({{"rows", std::move(rows)}});
  if (with_password)
    resp.headers.put("Cache-Control", "no-store");
}

void CVM_Registry::remove_i(const HTTP_Server_Request& req, const Caller&,
                            HTTP_Server_Response& resp) {
  if (!require_query(req, {"uuid"}, resp))
    return;
  const std::string& uuid = *query_param(req, "uuid");
  Request_DB db(db_, resp, Request_DB::autocommit);
  if (!db)
    return;
  auto st = db->prepare("DELETE FROM cvm WHERE uuid = ?");
  if (!st.bind(1, uuid).run())
    return db.fail();
  if (st.changes() == 0)
    return resp.error(404, "no CVM entry '" + uuid + "'");
  LOG_MSG((LM_INFO, "Deleted CVM '%s'.\n", uuid.c_str()));
  resp.json({{"deleted", 1}});
}

}  // namespace brimlet_server
