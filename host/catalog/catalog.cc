#include "host/catalog/catalog.h"

#include "host/catalog/retry.h"
#include "host/catalog/server_api.h"
#include "host/core/log.h"
#include "host/http/client.h"

#include <utility>

void Backup_Set::dump(JSON_Value& out) const {
  if (!out.is_object())
    out = JSON_Value::object();
  out["uuid"] = uuid_;
  out["job_uuid"] = job_uuid_;
  out["run_uuid"] = run_uuid_;
  out["definition_id"] = definition_id_;
  out["resource_uuid"] = resource_uuid_;
  out["backup_type"] = backup_type_;
  out["start_time"] = start_time_;
  out["incarnation"] = incarnation_;
  out["base"] = base_;
  out["set_size"] = set_size_;
  out["source_size"] = source_size_;
  out["uri"] = uri_.empty() ? host_uuid_ : uri_;
  out["pool_uuid"] = pool_uuid_;
  out["name"] = name_;
  out["host_uuid"] = host_uuid_;
  out["agent"] = agent_;
  out["instance_version"] = instance_version_;
  out["pieces"] = pieces_;
  out["storages"] = storages_;
}

void Backup_Set::add_piece(const std::string& path, std::uint64_t size, const std::string& object) {
  pieces_.push_back({{"object", object}, {"size", size}, {"path", path}});
}

void Backup_Set::add_storage(const std::string& pool_uuid, std::uint64_t size,
                             const JSON_Value& extra) {
  storages_.push_back({{"pool_uuid", pool_uuid}, {"size", size}, {"extra", extra}});
}

void H3C_CAS_Backup_Set::dump(JSON_Value& out) const {
  Backup_Set::dump(out);
  out["vm_uuid"] = vm_uuid_;
  out["host_id"] = host_id_;
  out["host_name"] = host_name_;
  out["host_ip"] = host_ip_;
  out["vm_id"] = vm_id_;
  out["vm_name"] = vm_name_;
  out["vm_title"] = vm_title_;
  out["cbt_name"] = cbt_name_;
  out["vm_disks"] = vm_disks_;
  out["vm_config_path"] = vm_config_path_;
  out["cpu_sockets"] = cpu_sockets_;
  out["cpu_cores"] = cpu_cores_;
  out["memory"] = memory_;
}

RESTful_Catalog_Operator::RESTful_Catalog_Operator(const std::string& host, int port, bool ssl,
                                                   const std::string& access_key, int flags,
                                                   int retry_seconds)
    : host_(host), port_(port), ssl_(ssl), access_key_(access_key), retry_seconds_(retry_seconds) {
  static_cast<void>(flags);
}

bool RESTful_Catalog_Operator::call_i(const char* what, HTTP_Request& req, const JSON_Value* body,
                                      JSON_Value& answer) {
  if (port_ < 1 || port_ > 65535) {
    LOG_MSG((LM_ERROR, "Failed to %s: invalid backup server port %d.\n", what, port_));
    return false;
  }
  // A short connect time-out, so that a server that does not answer cannot hold a caller far
  // past its retry time.
  const int connect_timeout = retry_seconds_ > 0 && retry_seconds_ < 30 ? retry_seconds_ : 30;
  HTTP_Response resp;
  bool ok = run_with_retries(retry_seconds_, [&] {
    auto session = HTTP_Session_Factory::create(host_, static_cast<std::uint16_t>(port_), ssl_,
                                                nullptr, 1, nullptr, false, connect_timeout);
    if (!session || !session->headers().put(server_api::access_key_header, access_key_))
      return Attempt::Failed;
    JSON_HTTP_Session json(std::move(session), 1, 120);
    bool sent = json.send(req, body, resp, &answer);
    if (sent && resp.status() / 100 == 2)
      return Attempt::Done;
    return !sent || resp.status() >= 500 ? Attempt::Retry : Attempt::Failed;
  });
  if (!ok) {
    std::string reason = answer.is_object() ? answer.value("error", "") : "";
    LOG_MSG((LM_ERROR, "Failed to %s on backup server '%s:%d': status %d %s.\n", what,
             host_.c_str(), port_, resp.status(), reason.c_str()));
  }
  return ok;
}

bool RESTful_Catalog_Operator::commit(const Backup_Set& set) {
  JSON_Value body;
  set.dump(body);
  HTTP_Request req(HTTP_Method::POST, std::string(server_api::catalog_route) + set.area());
  req.headers().put("Content-Type", "application/json");
  JSON_Value answer;
  return call_i("commit backup set", req, &body, answer);
}

bool RESTful_Catalog_Operator::get_view(const std::string& area, const std::string& view,
                                        const JSON_Value& filter, JSON_Value& answer) {
  HTTP_Request req(HTTP_Method::GET, server_api::catalog_route + area + "/view/" + view);
  HTTP_Query_String_Builder query(req.query());
  if (!filter.is_null() && !filter.is_object()) {
    LOG_MSG((LM_ERROR, "Invalid filter of catalog view '%s': %s.\n", view.c_str(),
             filter.dump().c_str()));
    return false;
  }
  for (const auto& item : filter.items())
    query.append(item.key(),
                 item.value().is_string() ? item.value().get<std::string>() : item.value().dump());
  return call_i(("read catalog view '" + view + "'").c_str(), req, nullptr, answer);
}

Backup_Set_Storage_Selector::Backup_Set_Storage_Selector(const JSON_Value& storages, int mode) {
  if (!storages.is_array())
    return;
  std::uint64_t best = 0;
  for (const auto& s : storages) {
    if (!s.is_object() || !s.contains("pool_uuid") || !s["pool_uuid"].is_string() ||
        s["pool_uuid"].get_ref<const std::string&>().empty())
      continue;
    std::uint64_t size =
        s.contains("size") && s["size"].is_number_unsigned() ? s["size"].get<std::uint64_t>() : 0;
    if (pool_uuid_.empty() || (mode == LARGEST && size > best)) {
      pool_uuid_ = s["pool_uuid"].get<std::string>();
      best = size;
    }
    if (mode != LARGEST)
      return;
  }
}
