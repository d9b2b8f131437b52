// Who this agent is and how it reaches its backup server, as read from the agent configuration.
// Process-wide singletons: set once at start-up, read by any thread afterwards.
#pragma once

#include "host/core/json.h"

#include <cstdint>
#include <string>

// This agent's host identifier, kept in a file so that it survives restarts.
class Host_ID {
 public:
  static Host_ID* instance();
  // Reads the id from `path`, creating the file with a new UUID when it does not exist.
  bool load(const std::string& path);
  void set(const std::string& id) { id_ = id; }
  const char* c_str() const { return id_.c_str(); }

 private:
  std::string id_;
};

// The access key that the backup server gave this agent.
class Host_Manager {
 public:
  static Host_Manager* instance();
  void set_access_key(const std::string& key) { access_key_ = key; }
  const std::string& access_key() const { return access_key_; }

 private:
  std::string access_key_;
};

// The backup server's endpoint.
class WebSocket_Options {
 public:
  static WebSocket_Options* instance();
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;
  bool ssl = false;
};

// Applies the "backup_server" {"host","port","ssl","access_key"} and "host_id_file" members of an
// agent configuration to the singletons above (the upstream HTTP client is pointed at the server
// separately: Upstream_JSON_RESTful_Client::configure_from_identity). Throws JSON_Error on a
// malformed configuration; false after one log line when the host id file cannot be used.
bool apply_agent_identity(const JSON_Value& conf);
