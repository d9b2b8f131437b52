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
      {2,
       "CREATE TABLE pool ("
       "  uuid TEXT PRIMARY KEY,"
       "  name TEXT NOT NULL UNIQUE COLLATE NOCASE,"
       "  url TEXT NOT NULL,"
       "  io_options TEXT NOT NULL,"
       "  created INTEGER NOT NULL);"
       // body: the set as committed. The columns beside it are copies of its keys that the
       // views filter and chain by.
       "CREATE TABLE backup_set ("
       "  uuid TEXT PRIMARY KEY,"
       "  resource_uuid TEXT NOT NULL,"
       "  host_uuid TEXT NOT NULL,"
       "  host_id TEXT NOT NULL,"
       "  vm_id TEXT NOT NULL,"
       "  base TEXT NOT NULL,"
       "  start_time INTEGER NOT NULL,"
       "  pool_uuid TEXT NOT NULL REFERENCES pool (uuid),"
       "  body TEXT NOT NULL,"
       "  committed INTEGER NOT NULL);"
       "CREATE INDEX backup_set_vm ON backup_set (resource_uuid, host_id, vm_id, start_time);"
       "CREATE INDEX backup_set_host_uuid ON backup_set (host_uuid, start_time);"},
  };
  return migrations;
}

}  // namespace brimlet_server
