// What the agent side does around a servant: writes the libcvd configuration file, prepares a
// servant's start (service configuration, log, environment) and reads its answer.
#pragma once

#include "host/core/json.h"
#include "host/jsonrpc/jsonrpc.h"
#include "host/servant/servant.h"

#include <memory>
#include <string>

namespace h3ccas {

// The libcvd library and its folder (under the install root), as the servant finds them.
std::string cvd_sdk_dir();
std::string cvd_sdk_path();

// Writes "network_timeout = <timeout * 60>;\nlog_level = \"<log_level>\";\n" (`timeout` in
// minutes) into a fresh file ending in ".conf" and gives its path; the caller removes it. False
// after one log line.
bool create_cvd_sdk_conf(int timeout, const std::string& log_level, std::string& path);

// Prepares `servant` to serve one VM: its service configuration, `label` and log callback, and
// the environment that points libcvd at its library and at the configuration file `conf_path`,
// and time to clean up after a stop.
// False after one log line.
bool init_servant(Servant& servant, const char* label, const Servant::Log_Msg_Callback& callback,
                  const std::string& conf_path);

// The result object of a servant's response. False after one log line when there is no
// response, it is an error, it is not a response, or its result is not an object.
bool get_servant_result(const std::shared_ptr<JSON_RPC_Object>& resp, JSON_Value& result);

}  // namespace h3ccas
