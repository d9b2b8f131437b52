#include "programs/server/schema.h"

namespace brimlet_server {

const std::vector<Migration>& server_schema() {
  static const std::vector<Migration> migrations = {
      {1,
       // Keys are stored as their SHA-256 only; a stolen database does not let anyone in.
       "CREATE TABLE access_key ("
       "  key_hash TEXT PRIMARY KEY,"
       "  host_id TEXT NOT NULL,"
       "  role TEXT NOT NULL CHECK (role IN ('agent', 'admin')),"
       "  created INTEGER NOT NULL);"
       "CREATE INDEX access_key_host ON access_key (host_id);"
       // Values of the server itself, such as the check value of the master key.
       "CREATE TABLE setting ("
       "  name TEXT PRIMARY KEY,"
       "  value TEXT NOT NULL);"
       // password: encrypted under the master key. Host names compare without case, as DNS does.
       "CREATE TABLE cvm ("
       "  uuid TEXT PRIMARY KEY,"
       "  name TEXT NOT NULL,"
       "  host TEXT NOT NULL COLLATE NOCASE,"
       "  port INTEGER NOT NULL,"
       "  ssl INTEGER NOT NULL,"
       "  username TEXT NOT NULL,"
       "  password TEXT NOT NULL,"
       "  extended_attrs TEXT NOT NULL,"
       "  created INTEGER NOT NULL,"
       "  UNIQUE (host, port, username));"},
  };
  return migrations;
}

}  // namespace brimlet_server
