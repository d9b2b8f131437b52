// The backup server's HTTP API as its clients and the server itself name it: route paths, the
// header that carries an access key, and the key CVM passwords are sealed with for the agent.
//
// Every route but the health probe answers JSON and needs the access key header; a missing or
// unknown key gets 401 and no data. Keys carry a role, "agent" or "admin", and each method below
// names the roles it admits; a key of another role gets 403. Errors answer {"error": "<text>"}
// with 400 (bad request), 403 (role), 404 (unknown uuid), 405 (method, with "Allow"),
// 409 (conflict) or 500.
#pragma once

namespace server_api {

constexpr char access_key_header[] = "X-Access-Key";

// Liveness probe; the only route open without a key.
//   GET  -> 200 {"ok": true}
constexpr char health_route[] = "/k4/r/health";

// CVM entries: the connection data of H3C CAS management servers.
//   POST (admin) {"name": "lab", "host": "cvm.example", "port": 8080, "ssl": false,
//                 "username": "admin", "password": "...", "extended_attrs": {...}}
//        -> 201 {"uuid": U}; 409 {"error": ..., "uuid": "<existing>"} when an entry for the same
//        host (compared without case), port and username exists. "name" and "extended_attrs"
//        are optional.
//   GET  (admin) [?uuid=U] -> 200 {"rows": [entry, ...]} in registration order, or the one
//        entry ("rows" empty when unknown)
//        entry = {"uuid", "name", "host", "port", "ssl", "username", "extended_attrs", "created"}
//   GET  (agent, admin) ?uuid=U&with_password=<agent host id>
//        -> 200 {"rows": [entry]} whose "password" is sealed (see below) for that agent; only the
//        key of that host id gets it, anyone else an empty "password". Not cached.
//   DELETE (admin) ?uuid=U -> 200 {"deleted": 1}; 404 when unknown
constexpr char cvm_route[] = "/k4/r/h3ccas/cvm";

// Storage pools.
//   POST (admin) {"name": "lab", "url": "file:///srv/pool1", "io_options": {"compression": "zstd"}}
//        -> 201 {"uuid": U}; 409 {"error": ..., "uuid": "<existing>"} for a taken name (compared
//        without case). "url" is file:///<absolute folder>, checked by validate_pool_url (s3:// is
//        refused until a driver for it exists);
//        "io_options" is optional (the object form of the pool I/O options, stored as given).
//   GET  (agent, admin) -> 200 {"rows": [pool, ...]} in registration order
//   GET  (agent, admin) ?uuid=U -> 200 pool; 404 when unknown
//        pool = {"uuid": U, "name": "lab", "url": "file:///srv/pool1",
//                "io_options": {...}, "created": 1700000000}
//        "url" is the pool's base location; a set's objects lie below "<url>/<set uri>".
constexpr char pool_route[] = "/k4/r/storage/pool";

// Backup catalog of an area ("h3ccas": backup sets of CAS VMs); the area follows the prefix.
//   POST (agent) /k4/r/catalog/h3ccas
//        body: one backup set (see below) -> 201 {"uuid": S, "created": true};
//        the same set again -> 200 {"uuid": S, "created": false}; a different set under a
//        committed uuid -> 409. 400 for a missing or mistyped key, an unknown "pool_uuid", or
//        an incremental/differential set whose "base" is not in the catalog for the same
//        "resource_uuid".
//   GET  (agent, admin) /k4/r/catalog/h3ccas/view/base_catalog?resource_uuid=R&host_id=CVK&vm_id=VM
//        -> 200 [set, ...]: the VM's sets, newest first (all three filters required)
//   GET  (agent, admin) /k4/r/catalog/h3ccas/view/restore?resource_uuid=R&set_uuid=S
//        -> 200 [set, ...]: the chain from its full set to S, oldest first; 404 for an unknown
//        set or a broken chain
//   GET  (agent, admin) /k4/r/catalog/h3ccas/sets[?host_uuid=CVM][&host_id=CVK][&vm_id=VM]
//        -> 200 {"rows": [summary, ...]}, newest first; filters combine with AND
//        summary = {"uuid", "vm_id", "vm_name", "host_id", "host_name", "host_uuid",
//                   "resource_uuid", "backup_type", "start_time", "set_size", "source_size",
//                   "storage_size", "pool_uuid", "base", "incarnation",
//                   "chain": [full set uuid, ..., this set's uuid]}
//   GET  (agent, admin) /k4/r/catalog/h3ccas/sets?uuid=S
//        -> 200 the whole set plus "chain" and "committed"; 404 when unknown
//
// A backup set (keys that must be present, with their JSON types):
//   strings: "uuid", "job_uuid", "run_uuid", "definition_id", "resource_uuid", "vm_uuid",
//            "host_id", "host_name", "host_ip", "vm_id", "vm_name", "vm_title",
//            "backup_type" ("full", "incremental" or "differential"), "incarnation", "base",
//            "cbt_name", "uri", "vm_config_path", "pool_uuid", "name", "host_uuid", "agent",
//            "instance_version"
//   integers: "start_time" (seconds since the epoch), "set_size", "source_size"
//   arrays: "vm_disks" (disk records), "pieces" ({"object", "size", "path"}),
//           "storages" ({"pool_uuid", "size", "extra"})
//   Other keys ("cpu_sockets", "cpu_cores", "memory", ...) are kept as given.
//   A full set has "base" = "incarnation" = "uuid"; a later set names its base set and shares
//   the incarnation of the chain.
constexpr char catalog_route[] = "/k4/r/catalog/";
constexpr char h3ccas_catalog_route[] = "/k4/r/catalog/h3ccas";
constexpr char h3ccas_view_route[] = "/k4/r/catalog/h3ccas/view/";
constexpr char h3ccas_sets_route[] = "/k4/r/catalog/h3ccas/sets";

// Passwords handed to an agent are encrypted (encrypt_string) under this key; the agent-side
// module is built with the same key, so the password never travels or rests in the clear.
constexpr char cvm_password_seal_key[] = "P!L@O#V$A%R^N&3157";
constexpr unsigned long cvm_password_seal_key_length = sizeof(cvm_password_seal_key) - 1;

}  // namespace server_api
