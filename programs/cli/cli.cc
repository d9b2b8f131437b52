#include "programs/cli/cli.h"

#include "host/catalog/server_api.h"
#include "host/core/identity.h"
#include "host/core/paths.h"
#include "host/core/unique_fd.h"
#include "host/http/client.h"
#include "programs/common/agent_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// Where a backup server is and the key to show it.
struct Server_Peer {
  std::string host;
  std::uint16_t port = 0;
  bool ssl = false;
  std::string access_key;
};

std::string agent_config;

// The whole file, if only its owner may read it: it holds a key that may change the registry or
// run jobs. `what` names the file in messages ("CLI configuration").
bool read_private_file(const std::string& path, const char* what, std::string& text,
                       std::string& error) {
  Unique_Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat st {};
  if (!fd || fstat(fd.get(), &st) != 0) {
    error = std::string("cannot read the ") + what + " '" + path + "': " + std::strerror(errno);
    return false;
  }
  if ((st.st_mode & 077) != 0) {
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    error = std::string("the ") + what + " '" + path + "' may be read by others (mode " + mode +
            "); make it readable by its owner only (chmod 600)";
    return false;
  }
  text.clear();
  char buf[4096];
  ssize_t n;
  while ((n = read(fd.get(), buf, sizeof buf)) > 0)
    text.append(buf, static_cast<std::size_t>(n));
  if (n < 0) {
    error = std::string("cannot read the ") + what + " '" + path + "': " + std::strerror(errno);
    return false;
  }
  return true;
}

bool load_admin_peer(Server_Peer& peer, std::string& error) {
  static bool loaded = false;
  static Server_Peer cached;
  if (loaded) {
    peer = cached;
    return true;
  }
  std::string path = cli_config_path(), text;
  if (!read_private_file(path, "CLI configuration", text, error))
    return false;
  try {
    JSON_Value server;
    json_extract_object(JSON_Value::parse(text), "backup_server", server);
    json_extract(server, "host", cached.host);
    json_extract(server, "port", cached.port);
    json_extract(server, "ssl", cached.ssl, false);
    json_extract(server, "access_key", cached.access_key);
  } catch (const std::exception& e) {
    error = "invalid CLI configuration '" + path + "': " + e.what();
    return false;
  }
  loaded = true;
  peer = cached;
  return true;
}

// The agent's id, key and backup server, read once.
bool load_agent_identity(std::string& error) {
  static bool loaded = false;
  if (loaded)
    return true;
  std::string path = agent_config.empty() ? agent_files::default_config() : agent_config, text;
  if (!read_private_file(path, "agent configuration", text, error))
    return false;
  try {
    if (!apply_agent_identity(JSON_Value::parse(text))) {
      error = "cannot read this agent's host id";
      return false;
    }
  } catch (const std::exception& e) {
    error = "invalid agent configuration '" + path + "': " + e.what();
    return false;
  }
  loaded = true;
  return true;
}

bool send_to_server(const Server_Peer& peer, HTTP_Request& req, const JSON_Value* body,
                    JSON_Value& out, std::string& error) {
  auto session = HTTP_Session_Factory::create(peer.host, peer.port, peer.ssl);
  HTTP_Response resp;
  out = nullptr;
  if (!session || !session->headers().put(server_api::access_key_header, peer.access_key) ||
      !JSON_HTTP_Session(session, 1, 600).send(req, body, resp, &out)) {
    error = "cannot reach the backup server at " + peer.host + ":" + std::to_string(peer.port);
    return false;
  }
  if (resp.status() / 100 == 2)
    return true;
  error = "backup server answered " + std::to_string(resp.status());
  if (out.is_object() && out.contains("error") && out["error"].is_string())
    error += ": " + out["error"].get<std::string>();
  return false;
}

}  // namespace

int fail(const std::string& message) {
  fprintf(stderr, "brimlet: %s\n", message.c_str());
  return FAILED;
}

int usage_error(const Cli& cli, const std::string& message) {
  fprintf(stderr, "brimlet: %s\nRun '%s --help' for usage.\n", message.c_str(),
          cli.command.c_str());
  return USAGE;
}

std::string cli_config_path() {
  return rooted_path("/etc/opt/quorvex/brimlet5/cli.json");
}

void set_agent_config(const std::string& path) {
  agent_config = path;
}

bool server_call(HTTP_Request& req, const JSON_Value* body, JSON_Value& out, std::string& error) {
  Server_Peer admin;
  return load_admin_peer(admin, error) && send_to_server(admin, req, body, out, error);
}

bool server_call_as_agent(HTTP_Request& req, JSON_Value& out, std::string& error) {
  if (!load_agent_identity(error))
    return false;
  const WebSocket_Options& server = *WebSocket_Options::instance();
  Server_Peer agent{server.host, server.port, server.ssl, Host_Manager::instance()->access_key()};
  return send_to_server(agent, req, nullptr, out, error);
}

std::string agent_host_id() {
  std::string error;
  return load_agent_identity(error) ? Host_ID::instance()->c_str() : "";
}

bool agent_call(const std::string& method, const JSON_Value& params, JSON_Value& result,
                std::string& error) {
  if (!load_agent_identity(error))
    return false;
  std::string text;
  JSON_Value endpoint;
  if (!read_file(agent_files::endpoint_file(), text) ||
      (endpoint = JSON_Value::parse(text, nullptr, false)).is_discarded() ||
      !endpoint.is_object() || !endpoint.contains("port")) {
    error = "the agent is not running (no '" + agent_files::endpoint_file() + "')";
    return false;
  }
  auto session = HTTP_Session_Factory::create(endpoint.value("host", "127.0.0.1"),
                                              endpoint["port"].get<std::uint16_t>(),
                                              endpoint.value("ssl", false));
  if (!session) {
    error = "cannot set up a connection to the agent";
    return false;
  }
  JSON_HTTP_Session rpc(session, 1, 600);
  HTTP_Request req(HTTP_Method::POST, "/jsonrpc");
  req.headers().put(server_api::access_key_header, Host_Manager::instance()->access_key());
  JSON_Value body = {{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}};
  HTTP_Response resp;
  JSON_Value answer;
  if (!rpc.post(req, &body, resp, &answer)) {
    error = "cannot reach the agent";
    return false;
  }
  if (!answer.is_object()) {
    error = "the agent answered " + std::to_string(resp.status()) + " without JSON-RPC";
    return false;
  }
  if (answer.contains("error")) {
    const JSON_Value& e = answer["error"];
    error = "agent error " + std::to_string(e.value("code", 0)) + ": " + e.value("message", "");
    return false;
  }
  result = answer.value("result", JSON_Value());
  return true;
}

bool find_row(const char* route, const std::string& key, const char* what, JSON_Value& row,
              std::string& error) {
  HTTP_Request req(HTTP_Method::GET, route);
  JSON_Value out;
  if (!server_call(req, nullptr, out, error))
    return false;
  for (const auto& r : out.value("rows", JSON_Value::array()))
    if (r.value("uuid", "") == key || r.value("name", "") == key) {
      row = r;
      return true;
    }
  error = std::string("no ") + what + " '" + key + "'";
  return false;
}

bool find_cvm(const std::string& key, JSON_Value& entry, std::string& error) {
  return find_row(server_api::cvm_route, key, "registered CVM", entry, error);
}
