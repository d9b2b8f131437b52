#include "host/core/identity.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/text.h"

Host_ID* Host_ID::instance() {
  static Host_ID id;
  return &id;
}

bool Host_ID::load(const std::string& path) {
  std::string text;
  if (read_file(path, text)) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
      text.pop_back();
    if (text.empty()) {
      LOG_MSG((LM_ERROR, "Host id file '%s' is empty.\n", path.c_str()));
      return false;
    }
    id_ = text;
    return true;
  }
  auto slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !make_dirs(path.substr(0, slash), 0750))
    return false;
  std::string id = new_uuid();
  if (!write_file_atomic(path, id + "\n", 0640))
    return false;
  id_ = id;
  return true;
}

Host_Manager* Host_Manager::instance() {
  static Host_Manager m;
  return &m;
}

WebSocket_Options* WebSocket_Options::instance() {
  static WebSocket_Options o;
  return &o;
}

bool apply_agent_identity(const JSON_Value& conf) {
  std::string host_id_file = rooted_path("/etc/opt/quorvex/brimlet5/host_id");
  json_extract(conf, "host_id_file", host_id_file, false);
  JSON_Value server = JSON_Value::object();
  json_extract_object(conf, "backup_server", server, false);
  auto* ws = WebSocket_Options::instance();
  json_extract(server, "host", ws->host, false);
  json_extract(server, "port", ws->port, false);
  json_extract(server, "ssl", ws->ssl, false);
  std::string key;
  json_extract(server, "access_key", key, false);
  Host_Manager::instance()->set_access_key(key);
  return Host_ID::instance()->load(host_id_file);
}
