// Where the agent keeps its configuration and publishes its endpoint; the CLI finds it there.
#pragma once

#include "host/core/paths.h"

#include <string>

namespace agent_files {
inline std::string default_config() {
  return rooted_path("/etc/opt/quorvex/brimlet5/agent.json");
}
inline std::string endpoint_file() {
  return rooted_path("/var/opt/quorvex/brimlet5/agent/endpoint.json");
}
}  // namespace agent_files
