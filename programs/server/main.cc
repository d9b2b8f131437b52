// brimlet-server: the backup server agents belong to.
//   brimlet-server [--config FILE] [--listen HOST:PORT] [--data DIR] [--tls-cert FILE]
//                  [--tls-key FILE] [--log FILE] [--ready-file FILE]
//   brimlet-server enroll [--config FILE] [--data DIR] --host-id ID [--role agent|admin]
//   brimlet-server keys [--config FILE] [--data DIR]
// Exit status: 0 done, 1 failed, 2 bad options or configuration.

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
#include <map>
#include <string>
#include <vector>

using namespace brimlet_server;

namespace {

const char* const program = "brimlet-server";

enum Command : unsigned { SERVE = 1, ENROLL = 2, KEYS = 4, ALL = 7 };

struct Option {
  const char* name;
  const char* config_key;  // member of the configuration file; null: command line only
  unsigned commands;
};

const Option options[] = {
    {"--config", nullptr, ALL},       {"--data", "data_dir", ALL},
    {"--listen", "listen", SERVE},    {"--tls-cert", "tls_cert", SERVE},
    {"--tls-key", "tls_key", SERVE},  {"--log", "log_file", SERVE},
    {"--ready-file", nullptr, SERVE}, {"--host-id", nullptr, ENROLL},
    {"--role", nullptr, ENROLL},
};

const char* const usage =
    "Usage:\n"
    "  brimlet-server [--config FILE] [--listen HOST:PORT] [--data DIR] [--tls-cert FILE]\n"
    "                 [--tls-key FILE] [--log FILE] [--ready-file FILE]\n"
    "  brimlet-server enroll [--config FILE] [--data DIR] --host-id ID [--role agent|admin]\n"
    "  brimlet-server keys [--config FILE] [--data DIR]\n"
    "The configuration file is a JSON object with the members listen, data_dir, tls_cert,\n"
    "tls_key and log_file; options given on the command line win over it.\n";

// Option values by option name, the configuration file's members merged in.
class Settings {
 public:
  Command command = SERVE;
  bool help = false;

  bool parse(int argc, char** argv);
  std::string get(const char* name, const std::string& fallback = "") const {
    auto it = values_.find(name);
    return it == values_.end() ? fallback : it->second;
  }
  bool has(const char* name) const { return values_.count(name) != 0; }

 private:
  bool load_config(const std::string& path);
  std::map<std::string, std::string> values_;
};

bool Settings::parse(int argc, char** argv) {
  int i = 1;
  if (i < argc && std::strcmp(argv[i], "enroll") == 0) {
    command = ENROLL;
    ++i;
  } else if (i < argc && std::strcmp(argv[i], "keys") == 0) {
    command = KEYS;
    ++i;
  }
  for (; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      help = true;
      return true;
    }
    const Option* opt = nullptr;
    for (const auto& o : options)
      if (std::strcmp(argv[i], o.name) == 0)
        opt = &o;
    if (!opt) {
      LOG_MSG((LM_ERROR, "Unknown option '%s' (see --help).\n", argv[i]));
      return false;
    }
    if (!(opt->commands & command)) {
      LOG_MSG((LM_ERROR, "Option '%s' does not apply here (see --help).\n", argv[i]));
      return false;
    }
    if (i + 1 == argc) {
      LOG_MSG((LM_ERROR, "Option '%s' needs a value.\n", argv[i]));
      return false;
    }
    values_[opt->name] = argv[++i];
  }
  return !has("--config") || load_config(get("--config"));
}

bool Settings::load_config(const std::string& path) {
  std::string text;
  if (!read_file(path, text)) {
    LOG_MSG((LM_ERROR, "Failed to read configuration '%s': %m.\n", path.c_str()));
    return false;
  }
  try {
    JSON_Value conf = JSON_Value::parse(text);
    for (const auto& item : json_object(conf).items()) {
      const Option* opt = nullptr;
      for (const auto& o : options)
        if (o.config_key && item.key() == o.config_key)
          opt = &o;
      if (!opt)
        throw JSON_Error("unknown member '" + item.key() + "'");
      std::string value;
      json_extract(conf, opt->config_key, value);
      values_.emplace(opt->name, value);  // the command line wins
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid configuration '%s': %s.\n", path.c_str(), e.what()));
    return false;
  }
  return true;
}

std::string data_dir(const Settings& s) {
  return s.get("--data", rooted_path("/var/opt/quorvex/brimlet5/server"));
}

std::string database_path(const std::string& dir) {
  return dir + "/server.db";
}

int serve(const Settings& s) {
  HTTP_Server::Options http;
  std::string listen = s.get("--listen", "127.0.0.1:8450");
  if (!parse_listen(listen, http.host, http.port)) {
    LOG_MSG((LM_ERROR, "Invalid listen address '%s': HOST:PORT expected.\n", listen.c_str()));
    return 2;
  }
  http.tls_cert = s.get("--tls-cert");
  http.tls_key = s.get("--tls-key");
  if (http.tls_cert.empty() != http.tls_key.empty()) {
    LOG_MSG((LM_ERROR, "TLS needs both a certificate and a key (tls_cert, tls_key).\n"));
    return 2;
  }
  std::string log_file = s.get("--log", brimlet_paths::log_dir() + "/brimlet-server.log");
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
  server.route(HTTP_Method::GET, "/k4/r/health",
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
  if (s.has("--ready-file") && !write_ready_file(s.get("--ready-file"), ready)) {
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
  if (!s.has("--host-id")) {
    LOG_MSG((LM_ERROR, "Option '--host-id' is required to enroll.\n"));
    return 2;
  }
  std::string dir = data_dir(s);
  Database db;
  if (!make_dirs(dir, 0700) || !db.open(database_path(dir), server_schema()))
    return 1;
  std::string key;
  if (!Access_Keys(db).enroll(s.get("--host-id"), s.get("--role", "agent"), key))
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
  Settings settings;
  if (!settings.parse(argc, argv))
    return 2;
  if (settings.help) {
    std::fputs(usage, stdout);
    return 0;
  }
  switch (settings.command) {
    case ENROLL:
      return enroll(settings);
    case KEYS:
      return list_keys(settings);
    default:
      return serve(settings);
  }
}
