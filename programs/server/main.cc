// brimlet-server: the backup server agents belong to.
//   brimlet-server [--config FILE] [--listen HOST:PORT] [--data DIR] [--tls-cert FILE]
//                  [--tls-key FILE] [--log FILE] [--ready-file FILE]
//   brimlet-server enroll [--config FILE] [--data DIR] --host-id ID [--role agent|admin]
//   brimlet-server keys [--config FILE] [--data DIR]
// Exit status: 0 done, 1 failed, 2 bad options or configuration.

#include "host/catalog/server_api.h"
#include "host/core/command_line.h"
#include "host/core/json.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/service.h"
#include "host/http/server.h"
#include "programs/server/catalog.h"
#include "programs/server/cvm_registry.h"
#include "programs/server/db.h"
#include "programs/server/keys.h"
#include "programs/server/master_key.h"
#include "programs/server/schema.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <vector>

using namespace brimlet_server;

namespace {

const char* const program = "brimlet-server";

// The options of every command; the configuration file fills in those not given.
struct Settings {
  std::string config;
  std::string data;
  std::string listen = "127.0.0.1:8450";
  std::string tls_cert;
  std::string tls_key;
  std::string log;
  std::string ready_file;
  std::string host_id;
  std::string role = "agent";
};

// Command line options that the configuration file may also set, by member name.
struct Config_Member {
  const char* member;
  std::string Settings::*field;
  std::vector<CLI::Option*> options;  // the option of each command that has it
};

// Merges the configuration file's members into the settings not given on the command line.
bool load_config(const std::vector<Config_Member>& members, Settings& s) {
  std::string text;
  if (!read_file(s.config, text)) {
    LOG_MSG((LM_ERROR, "Failed to read configuration '%s': %m.\n", s.config.c_str()));
    return false;
  }
  try {
    JSON_Value conf = JSON_Value::parse(text);
    for (const auto& item : json_object(conf).items()) {
      const Config_Member* m = nullptr;
      for (const auto& candidate : members)
        if (item.key() == candidate.member)
          m = &candidate;
      if (!m)
        throw JSON_Error("unknown member '" + item.key() + "'");
      std::string value;
      json_extract(conf, m->member, value);
      bool given = false;
      for (const CLI::Option* o : m->options)
        given = given || o->count() > 0;
      if (!given)
        s.*(m->field) = value;
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid configuration '%s': %s.\n", s.config.c_str(), e.what()));
    return false;
  }
  return true;
}

std::string data_dir(const Settings& s) {
  return s.data.empty() ? rooted_path("/var/opt/quorvex/brimlet5/server") : s.data;
}

std::string database_path(const std::string& dir) {
  return dir + "/server.db";
}

int serve(const Settings& s) {
  HTTP_Server::Options http;
  if (!parse_listen(s.listen, http.host, http.port)) {
    LOG_MSG((LM_ERROR, "Invalid listen address '%s': HOST:PORT expected.\n", s.listen.c_str()));
    return 2;
  }
  http.tls_cert = s.tls_cert;
  http.tls_key = s.tls_key;
  if (http.tls_cert.empty() != http.tls_key.empty()) {
    LOG_MSG((LM_ERROR, "TLS needs both a certificate and a key (tls_cert, tls_key).\n"));
    return 2;
  }
  std::string log_file = s.log.empty() ? brimlet_paths::log_dir() + "/brimlet-server.log" : s.log;
  auto slash = log_file.rfind('/');
  if (slash != std::string::npos && slash > 0 && !make_dirs(log_file.substr(0, slash), 0750))
    return 1;
  if (!open_log({program, log_file, true, false}))
    return 1;

  block_stop_signals();  // before any thread starts, so that only wait_stop_signal() sees them

  std::string dir = data_dir(s);
  Database db;
  Master_Key master;
  if (!make_dirs(dir, 0700) || !db.open(database_path(dir), server_schema()))
    return 1;
  {
    auto conn = db.acquire();
    if (!conn || !master.load(dir + "/master.key", *conn))
      return 1;
  }
  Access_Keys keys(db);
  CVM_Registry cvm(db, keys, master);
  Storage_Pools pools(db, keys);
  Catalog catalog(db, keys);

  HTTP_Server server;
  server.route(HTTP_Method::GET, server_api::health_route,
               [](const HTTP_Server_Request&, HTTP_Server_Response& resp) {
                 resp.json({{"ok", true}});
               });
  cvm.add_routes(server);
  pools.add_routes(server);
  catalog.add_routes(server);
  if (!server.start(http))
    return 1;
  if (http.tls_cert.empty() && !is_loopback(http.host))
    LOG_MSG((LM_WARNING, "Serving '%s' without TLS: access keys travel in clear.\n",
             http.host.c_str()));

  JSON_Value ready = {{"host", http.host}, {"port", server.port()}};
  if (!s.ready_file.empty() && !write_ready_file(s.ready_file, ready)) {
    server.stop();
    return 1;
  }
  std::printf("%s\n", ready.dump().c_str());
  std::fflush(stdout);
  LOG_MSG((LM_INFO, "Listening on '%s:%d', data in '%s'.\n", http.host.c_str(),
           static_cast<int>(server.port()), dir.c_str()));

  int sig = wait_stop_signal();
  LOG_MSG((LM_INFO, "Stopping on signal %d.\n", sig));
  server.stop();
  LOG_MSG((LM_INFO, "Stopped.\n"));
  return 0;
}

int enroll(const Settings& s) {
  std::string dir = data_dir(s);
  Database db;
  if (!make_dirs(dir, 0700) || !db.open(database_path(dir), server_schema()))
    return 1;
  std::string key;
  if (!Access_Keys(db).enroll(s.host_id, s.role, key))
    return 1;
  std::printf("%s\n", key.c_str());
  return 0;
}

int list_keys(const Settings& s) {
  std::string path = database_path(data_dir(s));
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    LOG_MSG((LM_ERROR, "No server database '%s': %m.\n", path.c_str()));
    return 1;
  }
  Database db;
  std::vector<Key_Entry> entries;
  if (!db.open(path, server_schema()) || !Access_Keys(db).list(entries))
    return 1;
  for (const auto& e : entries) {
    std::time_t t = static_cast<std::time_t>(e.created);
    std::tm utc{};
    gmtime_r(&t, &utc);
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
    std::printf("%s\t%s\t%s\n", e.host_id.c_str(), e.role.c_str(), when);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  umask(077);  // the database, its journal and the master key are for this user alone
  if (!open_log({program, "", true, false}))
    return 1;
  Settings s;
  CLI::App app("The backup server agents belong to.", program);
  app.footer(
      "The configuration file is a JSON object with the members listen, data_dir, tls_cert,\n"
      "tls_key and log_file; options given on the command line win over it.");
  app.require_subcommand(0, 1);
  CLI::App* enroll_cmd = app.add_subcommand("enroll", "Make an access key for a host; prints it.");
  CLI::App* keys_cmd = app.add_subcommand("keys", "List the hosts that have keys, with roles.");
  std::vector<Config_Member> members;
  // An option the configuration file may also set, under `member`.
  auto configurable = [&](CLI::App* cmd, const char* option, const char* member,
                          std::string Settings::*field, const char* help, const char* type) {
    CLI::Option* o = cmd->add_option(option, s.*field, help)->type_name(type);
    for (auto& m : members)
      if (std::strcmp(m.member, member) == 0)
        return m.options.push_back(o);
    members.push_back({member, field, {o}});
  };
  for (CLI::App* cmd : {&app, enroll_cmd, keys_cmd}) {
    cmd->add_option("--config", s.config, "JSON configuration file")->type_name("FILE");
    configurable(cmd, "--data", "data_dir", &Settings::data, "Data directory", "DIR");
  }
  configurable(&app, "--listen", "listen", &Settings::listen,
               "Address to serve on (port 0: any free port)", "HOST:PORT");
  configurable(&app, "--tls-cert", "tls_cert", &Settings::tls_cert, "TLS certificate (PEM)",
               "FILE");
  configurable(&app, "--tls-key", "tls_key", &Settings::tls_key, "TLS private key (PEM)", "FILE");
  configurable(&app, "--log", "log_file", &Settings::log, "Log file", "FILE");
  app.add_option("--ready-file", s.ready_file, "Written with the address once serving")
      ->type_name("FILE");
  enroll_cmd->add_option("--host-id", s.host_id, "Host the key is for")
      ->required()
      ->type_name("ID");
  enroll_cmd->add_option("--role", s.role, "What the key may do (default agent)")
      ->check(CLI::IsMember({"agent", "admin"}))
      ->type_name("ROLE");
  if (int status = parse_command_line(app, argc, argv); status >= 0)
    return status;
  if (!s.config.empty() && !load_config(members, s))
    return 2;
  if (enroll_cmd->parsed())
    return enroll(s);
  if (keys_cmd->parsed())
    return list_keys(s);
  return serve(s);
}
