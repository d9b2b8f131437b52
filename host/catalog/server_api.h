// The backup server's HTTP API as its clients and the server itself name it: route paths, the
// header that carries an access key, and the key CVM passwords are sealed with for the agent.
//
// Every route answers JSON and needs the access key; an unknown key gets 401 and no data. Keys
// carry a role: an "agent" key reads what an agent needs (its own sealed CVM entries, pools,
// catalog views) and commits backup sets; registering and removing CVMs and pools needs an
// "admin" key (403 otherwise).
#pragma once

namespace server_api {

constexpr char access_key_header[] = "X-Access-Key";

// Liveness probe; the only route open without a key.
constexpr char health_route[] = "/k4/r/health";

// CVM entries. GET ?uuid=U&with_password=<agent host id> answers {"rows": [entry]} with the
// password sealed (see below) for that agent, and only to that agent's key.
constexpr char cvm_route[] = "/k4/r/h3ccas/cvm";

// Storage pools: POST registers, GET lists, GET ?uuid=U reads one.
constexpr char pool_route[] = "/k4/r/storage/pool";

// Backup catalog of an area ("h3ccas"): POST commits a set; views and listings below it.
constexpr char catalog_route[] = "/k4/r/catalog/";
constexpr char h3ccas_catalog_route[] = "/k4/r/catalog/h3ccas";
constexpr char h3ccas_view_route[] = "/k4/r/catalog/h3ccas/view/";
constexpr char h3ccas_sets_route[] = "/k4/r/catalog/h3ccas/sets";

// Passwords handed to an agent are encrypted (encrypt_string) under this key; the agent-side
// module is built with the same key, so the password never travels or rests in the clear.
constexpr char cvm_password_seal_key[] = "P!L@O#V$A%R^N&3157";
constexpr unsigned long cvm_password_seal_key_length = sizeof(cvm_password_seal_key) - 1;

}  // namespace server_api
