#include "host/catalog/pool_info.h"

#include "host/catalog/retry.h"
#include "host/catalog/server_api.h"
#include "host/core/log.h"

bool get_pool_info(Upstream_JSON_RESTful_Client* upstream, const std::string& uuid,
                   const char* device, Pool_Info& info, bool with_options, const char* reserved,
                   int retry_seconds, int flags) {
  static_cast<void>(reserved);
  static_cast<void>(flags);
  if (!upstream)
    upstream = Upstream_JSON_RESTful_Client::instance();
  HTTP_Request req(HTTP_Method::GET, server_api::pool_route);
  HTTP_Query_String_Builder(req.query()).append("uuid", uuid);
  JSON_Value answer;
  int status = 0;
  bool ok = run_with_retries(retry_seconds, [&] {
    HTTP_Response resp;
    bool sent = upstream->send(req, nullptr, resp, answer);
    status = resp.status();
    if (sent && status / 100 == 2)
      return Attempt::Done;
    return !sent || status >= 500 ? Attempt::Retry : Attempt::Failed;
  });
  if (!ok) {
    LOG_MSG((LM_ERROR,
             "Failed to get storage pool '%s' (device '%s') from the backup server: "
             "status %d.\n",
             uuid.c_str(), device ? device : "", status));
    return false;
  }
  Pool_Info got;
  try {
    json_extract(answer, "uuid", got.uuid);
    json_extract(answer, "name", got.name);
    json_extract(answer, "url", got.url);
    if (with_options)
      json_extract_object(answer, "io_options", got.io_options, false);
  } catch (const JSON_Error& e) {
    LOG_MSG((LM_ERROR, "Unrecognized storage pool '%s' from the backup server: %s.\n", uuid.c_str(),
             e.what()));
    return false;
  }
  info = std::move(got);
  return true;
}

bool set_options_by_pool(Client_IO_Base::Options& opts, const Pool_Info& info) {
  return opts << info.io_options;  // logs and keeps `opts` when they are invalid
}
