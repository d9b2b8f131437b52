// The backup catalog as the agent's side sees it: backup sets, the client that commits them to
// the backup server and reads its views, and the choice of a set's storage pool.
#pragma once

#include "host/core/json.h"
#include "host/http/http.h"

#include <cstdint>
#include <string>

// What every backup set records. Its JSON form (dump) is what the server stores and what its
// views hand back.
class Backup_Set {
 public:
  virtual ~Backup_Set() = default;
  // The catalog area the set belongs to, such as "h3ccas".
  virtual const char* area() const = 0;
  virtual void dump(JSON_Value& out) const;

  // `path`: the object's name in the pool; `object`: what it holds (a disk path; empty for
  // objects of the set as a whole).
  void add_piece(const std::string& path, std::uint64_t size, const std::string& object = "");
  void add_storage(const std::string& pool_uuid, std::uint64_t size, const JSON_Value& extra);

  std::string uuid_;
  std::string job_uuid_;
  std::string run_uuid_;
  std::string definition_id_;
  std::string resource_uuid_;
  std::string backup_type_;      // "full", "incremental" or "differential"
  std::int64_t start_time_ = 0;  // seconds since the epoch
  std::string incarnation_;      // the uuid of the chain's full set
  std::string base_;             // the set this one builds on; its own uuid for a full set
  std::uint64_t set_size_ = 0;
  std::uint64_t source_size_ = 0;
  std::string uri_;  // where the objects lie below the pool's base; empty: `host_uuid_`
  std::string pool_uuid_;
  // From the job: its name, the protected resource's entry, the agent and the source version.
  std::string name_;
  std::string host_uuid_;
  std::string agent_;
  std::string instance_version_;

 protected:
  JSON_Value pieces_ = JSON_Value::array();
  JSON_Value storages_ = JSON_Value::array();
};

// A backup set of one CAS VM.
class H3C_CAS_Backup_Set : public Backup_Set {
 public:
  const char* area() const override { return "h3ccas"; }
  void dump(JSON_Value& out) const override;

  std::string vm_uuid_;
  std::string host_id_;  // the CVK's id
  std::string host_name_;
  std::string host_ip_;
  std::string vm_id_;
  std::string vm_name_;
  std::string vm_title_;
  std::string cbt_name_;  // the changed-block tracker a later incremental set reads from
  JSON_Value vm_disks_ = JSON_Value::array();
  std::string vm_config_path_;
  int cpu_sockets_ = 0;
  int cpu_cores_ = 0;
  std::int64_t memory_ = 0;  // MiB
};

// The backup server's catalog over HTTP. Failed transport and server errors (5xx) are tried
// again until `retry_seconds` have passed; a refusal (4xx) is final. One request at a time.
class RESTful_Catalog_Operator {
 public:
  // `flags` is accepted for callers written against the agent framework's signature; none is
  // defined.
  RESTful_Catalog_Operator(const std::string& host, int port, bool ssl,
                           const std::string& access_key, int flags, int retry_seconds);
  RESTful_Catalog_Operator(const RESTful_Catalog_Operator&) = delete;
  RESTful_Catalog_Operator& operator=(const RESTful_Catalog_Operator&) = delete;

  // Stores `set`; committing the same set again succeeds without a second entry.
  // False after one log line.
  bool commit(const Backup_Set& set);
  // The view `view` of catalog `area`, asked with the members of `filter` (an object of strings
  // or numbers) as query keys. False after one log line.
  bool get_view(const std::string& area, const std::string& view, const JSON_Value& filter,
                JSON_Value& answer);

 private:
  bool call_i(const char* what, HTTP_Request& req, const JSON_Value* body, JSON_Value& answer);
  std::string host_;
  int port_;
  bool ssl_;
  std::string access_key_;
  int retry_seconds_;
};

// Picks the pool to read a set from among its "storages" entries.
class Backup_Set_Storage_Selector {
 public:
  enum Mode { FIRST = 1, LARGEST = 2 };
  // mode FIRST: the first entry (where the set was written first); LARGEST: the entry holding
  // the most bytes. Entries without a "pool_uuid" string are skipped.
  Backup_Set_Storage_Selector(const JSON_Value& storages, int mode);
  // Empty when no entry qualifies.
  const std::string& pool_uuid() const { return pool_uuid_; }

 private:
  std::string pool_uuid_;
};
