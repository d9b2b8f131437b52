#include "programs/cli/cli.h"

#include "host/core/identity.h"
#include "host/core/paths.h"
#include "programs/common/agent_files.h"

#include <cstdio>

const char usage_text[] =
    "usage: brimlet [--config FILE] [--json] COMMAND ...\n"
    "\n"
    "  cvm add --host HOST --username USER [--port 443] [--ssl] [--name NAME] [--password-stdin]\n"
    "                       register a CVM; the password is asked for (or read from stdin)\n"
    "  cvm list             list registered CVMs\n"
    "  cvm remove CVM       remove a registered CVM\n"
    "  cvm test CVM         log in to a registered CVM through the agent\n"
    "\n"
    "  ls CVM               the CVM's hosts\n"
    "  ls CVM host HOST     one host's details\n"
    "  ls CVM vms HOST      the VMs of a host\n"
    "  ls CVM pools HOST    the storage pools of a host\n"
    "  ls CVM volumes HOST POOL\n"
    "                       the volumes of a host's storage pool\n"
    "  ls CVM vswitches HOST\n"
    "                       the virtual switches of a host\n"
    "  ls CVM profiles      the port profiles\n"
    "  search CVM hosts|vms TEXT [--ip]\n"
    "                       hosts (name or address) or VMs (name or title) containing TEXT,\n"
    "                       ignoring case; --ip matches host addresses only\n"
    "  verify CVM NAME...   which of these VM names exist (exit status 1 when some do not)\n"
    "\n"
    "  pool add --name NAME --url file:///DIR [--compression zstd|lz4|zlib|none] [--level N]\n"
    "                       register a storage pool (default compression zstd level 3)\n"
    "  pool list            list storage pools\n"
    "  sets list [--cvm CVM] [--host HOST] [--vm VM]\n"
    "                       backup sets, newest first, with the full set each belongs to\n"
    "  sets show SET        every field of a backup set, its disks and pieces\n"
    "\n"
    "  CVM is a registered CVM's uuid or name, HOST a host id or name, VM a VM id or name,\n"
    "  SET a backup set's uuid.\n"
    "  --config FILE        the agent configuration (default %s)\n"
    "  --json               machine-readable output (the agent's or server's answer as is)\n";

int fail(const std::string& message) {
  fprintf(stderr, "brimlet: %s\n", message.c_str());
  return FAILED;
}

int usage_error(const std::string& message) {
  fprintf(stderr, "brimlet: %s\n", message.c_str());
  fprintf(stderr, usage_text, agent_files::default_config().c_str());
  return USAGE;
}

bool load_agent_config(const Cli& cli, std::string& error) {
  std::string text;
  if (!read_file(cli.config_path, text)) {
    error = "cannot read the agent configuration '" + cli.config_path + "'";
    return false;
  }
  try {
    if (!apply_agent_identity(JSON_Value::parse(text))) {
      error = "cannot read this agent's host id";
      return false;
    }
    Upstream_JSON_RESTful_Client::instance()->configure_from_identity();
  } catch (const std::exception& e) {
    error = "invalid agent configuration '" + cli.config_path + "': " + e.what();
    return false;
  }
  return true;
}

bool server_call(HTTP_Request& req, const JSON_Value* body, JSON_Value& out, std::string& error) {
  HTTP_Response resp;
  if (!Upstream_JSON_RESTful_Client::instance()->send(req, body, resp, out)) {
    error = "cannot reach the backup server at " + WebSocket_Options::instance()->host + ":" +
            std::to_string(WebSocket_Options::instance()->port);
    return false;
  }
  if (resp.status() / 100 == 2)
    return true;
  error = "backup server answered " + std::to_string(resp.status());
  if (out.is_object() && out.contains("error") && out["error"].is_string())
    error += ": " + out["error"].get<std::string>();
  return false;
}

bool agent_call(const std::string& method, const JSON_Value& params, JSON_Value& result,
                std::string& error) {
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
  req.headers().put("X-Access-Key", Host_Manager::instance()->access_key());
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

bool find_cvm(const std::string& key, JSON_Value& entry, std::string& error) {
  HTTP_Request req(HTTP_Method::GET, "/k4/r/h3ccas/cvm");
  JSON_Value out;
  if (!server_call(req, nullptr, out, error))
    return false;
  for (const auto& row : out.value("rows", JSON_Value::array()))
    if (row.value("uuid", "") == key || row.value("name", "") == key) {
      entry = row;
      return true;
    }
  error = "no registered CVM '" + key + "'";
  return false;
}
