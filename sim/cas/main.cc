// cas-sim: plays a CVM (the H3C CAS management server's REST API) on the network for tests,
// benchmarks and the demo. Usage and the world format: sim/cas/README.md.

#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/service.h"
#include "host/http/server.h"
#include "sim/cas/control.h"
#include "sim/cas/cvd_service.h"
#include "sim/cas/cvm_api.h"
#include "sim/cas/simulator.h"

#include <string>

namespace {

const char usage_text[] =
    "usage: cas-sim --world FILE [--listen HOST:PORT] [--cvd-listen HOST:PORT]\n"
    "               [--tls-cert FILE --tls-key FILE] [--ready-file FILE] [--data DIR]\n"
    "               [--log FILE]\n"
    "  --world FILE       the simulated installation (JSON, see sim/cas/README.md)\n"
    "  --listen HOST:PORT address to serve on (default 127.0.0.1:0; port 0 picks a free one)\n"
    "  --cvd-listen HOST:PORT  address of the disk service cvd-ds (default 127.0.0.1:8192)\n"
    "  --tls-cert, --tls-key  PEM certificate and key: serve HTTPS\n"
    "  --ready-file FILE  written once listening:\n"
    "                     {\"host\": ..., \"http_port\": N, \"cvd_port\": M}\n"
    "  --data DIR         the simulator's state folder, disk images included (created when\n"
    "                     missing)\n"
    "  --log FILE         log file (appended), besides stderr\n";

struct Options {
  std::string world;
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;
  std::string cvd_host = "127.0.0.1";
  std::uint16_t cvd_port = 8192;
  std::string tls_cert;
  std::string tls_key;
  std::string ready_file;
  std::string data_dir;
  std::string log_file;
  bool help = false;
};

// False after one log line.
bool parse_options(int argc, char** argv, Options& options) {
  struct Value_Option {
    const char* name;
    std::string* target;
  };
  const Value_Option values[] = {
      {"--world", &options.world},     {"--tls-cert", &options.tls_cert},
      {"--tls-key", &options.tls_key}, {"--ready-file", &options.ready_file},
      {"--data", &options.data_dir},   {"--log", &options.log_file},
  };
  std::string listen, cvd_listen;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      options.help = true;
      return true;
    }
    std::string* target = arg == "--listen"       ? &listen
                          : arg == "--cvd-listen" ? &cvd_listen
                                                  : nullptr;
    for (const Value_Option& v : values)
      if (arg == v.name)
        target = v.target;
    if (!target) {
      LOG_MSG((LM_ERROR, "Unknown option '%s'; see cas-sim --help.\n", arg.c_str()));
      return false;
    }
    if (i + 1 == argc || argv[i + 1][0] == '\0') {
      LOG_MSG((LM_ERROR, "Option '%s' needs a value; see cas-sim --help.\n", arg.c_str()));
      return false;
    }
    *target = argv[++i];
  }
  if (options.world.empty()) {
    LOG_MSG((LM_ERROR, "Missing --world FILE: the installation to play; see cas-sim --help.\n"));
    return false;
  }
  if (!listen.empty() && !parse_listen(listen, options.host, options.port)) {
    LOG_MSG((LM_ERROR, "Invalid --listen '%s': expected HOST:PORT with a port up to 65535.\n",
             listen.c_str()));
    return false;
  }
  if (!cvd_listen.empty() && !parse_listen(cvd_listen, options.cvd_host, options.cvd_port)) {
    LOG_MSG((LM_ERROR, "Invalid --cvd-listen '%s': expected HOST:PORT with a port up to 65535.\n",
             cvd_listen.c_str()));
    return false;
  }
  if (options.tls_cert.empty() != options.tls_key.empty()) {
    LOG_MSG((LM_ERROR, "Options --tls-cert and --tls-key go together.\n"));
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse_options(argc, argv, options))
    return 2;
  if (options.help) {
    fputs(usage_text, stdout);
    return 0;
  }
  Log_Options log;
  log.program = "cas-sim";
  log.file = options.log_file;
  if (!open_log(log))
    return 1;

  cas_sim::World world;
  std::string error;
  if (!cas_sim::load_world_file(options.world, world, error))
    return 1;
  if (!options.data_dir.empty() && !make_dirs(options.data_dir, 0750))
    return 1;

  // Before the server's threads start (they inherit the mask), so that only the wait below
  // receives the stop signals.
  block_stop_signals();

  cas_sim::Simulator sim(std::move(world), options.data_dir);
  cas_sim::CVM_Api cvm(sim);
  cas_sim::Control_Api control(sim);
  HTTP_Server server;
  cvm.attach(server);
  control.attach(server);
  HTTP_Server::Options server_options;
  server_options.host = options.host;
  server_options.port = options.port;
  server_options.tls_cert = options.tls_cert;
  server_options.tls_key = options.tls_key;
  // Handlers mostly wait out the latency knob; many servants may ask at once.
  server_options.threads = 32;
  if (!server.start(server_options))
    return 1;
  cas_sim::CVD_Service cvd(sim);
  if (!cvd.start(options.cvd_host, options.cvd_port)) {
    server.stop();
    return 1;
  }
  const char* scheme = options.tls_cert.empty() ? "http" : "https";
  LOG_MSG((LM_INFO, "Playing CVM '%s' at %s://%s:%d, disk service at %s:%d.\n",
           sim.version().c_str(), scheme, options.host.c_str(), static_cast<int>(server.port()),
           options.cvd_host.c_str(), static_cast<int>(cvd.port())));
  if (!options.ready_file.empty() &&
      !write_ready_file(
          options.ready_file,
          {{"host", options.host}, {"http_port", server.port()}, {"cvd_port", cvd.port()}})) {
    cvd.stop();
    server.stop();
    return 1;
  }

  int signal_number = wait_stop_signal();
  LOG_MSG((LM_INFO, "Stopping on signal %d.\n", signal_number));
  cvd.stop();
  server.stop();
  return 0;
}
