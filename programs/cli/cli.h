// What every brimlet command shares: the parsed command line, the one-line failure reports, and
// the two peers (the backup server for the CVM registry, pools and catalog, the local agent for
// module methods).
#pragma once

#include "host/core/json.h"
#include "host/http/client.h"

#include <cstddef>
#include <string>
#include <vector>

// Failures print one line to stderr; the exit status says the kind.
enum Exit { OK = 0, FAILED = 1, USAGE = 2 };

struct Cli {
  std::string config_path;
  bool json = false;
  std::vector<std::string> args;
  std::size_t next = 0;

  bool more() const { return next < args.size(); }
  std::string take() { return more() ? args[next++] : std::string(); }
};

extern const char usage_text[];

int fail(const std::string& message);
// The message, then the usage text.
int usage_error(const std::string& message);

// Reads the agent configuration: this agent's id, access key and backup server.
bool load_agent_config(const Cli& cli, std::string& error);

// One request to the backup server; `error` gets the server's own message on failure.
bool server_call(HTTP_Request& req, const JSON_Value* body, JSON_Value& out, std::string& error);

// One JSON-RPC call to the local agent. A JSON-RPC error fails with its message in `error`.
bool agent_call(const std::string& method, const JSON_Value& params, JSON_Value& result,
                std::string& error);

// Finds a registered CVM by uuid or name.
bool find_cvm(const std::string& key, JSON_Value& entry, std::string& error);
