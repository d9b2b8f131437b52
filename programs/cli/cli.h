// What every brimlet command shares: the one-line failure reports and the peers. Registry, pool
// and catalog requests go to the backup server with the administrator's key from the CLI's own
// configuration; module methods go to the local agent, found through the agent's configuration.
#pragma once

#include "host/core/json.h"
#include "host/http/http.h"

#include <string>

// Failures print one line to stderr; the exit status says the kind.
enum Exit { OK = 0, FAILED = 1, USAGE = 2 };

struct Cli {
  // The command as typed ("brimlet pool add"): usage errors point at its --help.
  std::string command = "brimlet";
  bool json = false;
};

int fail(const std::string& message);
// The message, then a line pointing at the command's --help.
int usage_error(const Cli& cli, const std::string& message);

// <root>/etc/opt/quorvex/brimlet5/cli.json: {"backup_server": {"host", "port", "ssl",
// "access_key"}} with an administrator's key. Refused unless only its owner may read it.
std::string cli_config_path();
// The agent configuration that agent_call() and server_call_as_agent() take the agent's id, key
// and backup server from (default agent_files::default_config()).
void set_agent_config(const std::string& path);

// One request to the backup server with the administrator's key; `error` gets the server's own
// message on failure.
bool server_call(HTTP_Request& req, const JSON_Value* body, JSON_Value& out, std::string& error);
// The same with this host's agent key: the server seals CVM passwords for that agent only.
bool server_call_as_agent(HTTP_Request& req, JSON_Value& out, std::string& error);
// This host's agent id.
std::string agent_host_id();

// One JSON-RPC call to the local agent. A JSON-RPC error fails with its message in `error`.
bool agent_call(const std::string& method, const JSON_Value& params, JSON_Value& result,
                std::string& error);

// Finds the row of the server's list at `route` whose uuid or name is `key`; `what` names the
// kind in the error ("no <what> '<key>'").
bool find_row(const char* route, const std::string& key, const char* what, JSON_Value& row,
              std::string& error);
// Finds a registered CVM by uuid or name.
bool find_cvm(const std::string& key, JSON_Value& entry, std::string& error);
