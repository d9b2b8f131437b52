// cas-sim: plays a CVM (the H3C CAS management server's REST API) on the network for tests,
// benchmarks and the demo. Usage and the world format: sim/cas/README.md.

#include "host/core/command_line.h"
#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/service.h"
#include "host/http/server.h"
#include "sim/cas/control.h"
#include "sim/cas/cvd_service.h"
#include "sim/cas/cvm_api.h"
#include "sim/cas/simulator.h"

#include <cstdio>
#include <string>

namespace {

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
};

int usage_error(const std::string& message) {
  fprintf(stderr, "cas-sim: %s\nRun 'cas-sim --help' for usage.\n", message.c_str());
  return 2;
}

// -1 to go on; else the exit status: 0 after --help, 2 after a usage error.
int parse_options(int argc, char** argv, Options& options) {
  std::string listen, cvd_listen;
  CLI::App app(
      "Plays a CVM (the H3C CAS management server's REST API and the CVKs' disk "
      "service) for tests, benchmarks and the demo.",
      "cas-sim");
  app.add_option("--world", options.world, "the simulated installation (see sim/cas/README.md)");
  app.add_option("--listen", listen, "HOST:PORT to serve on (port 0 picks a free one)")
      ->default_str("127.0.0.1:0");
  app.add_option("--cvd-listen", cvd_listen, "HOST:PORT of the disk service cvd-ds")
      ->default_str("127.0.0.1:8192");
  app.add_option("--tls-cert", options.tls_cert, "PEM certificate: serve HTTPS (with --tls-key)");
  app.add_option("--tls-key", options.tls_key, "PEM key of --tls-cert");
  app.add_option("--ready-file", options.ready_file,
                 "written once listening: {\"host\", \"http_port\", \"cvd_port\"}");
  app.add_option("--data", options.data_dir,
                 "the simulator's state folder, disk images included (created when missing)");
  app.add_option("--log", options.log_file, "log file (appended), besides stderr");
  if (int status = parse_command_line(app, argc, argv); status >= 0)
    return status;
  if (options.world.empty())
    return usage_error("Missing --world FILE: the installation to play.");
  if (!listen.empty() && !parse_listen(listen, options.host, options.port))
    return usage_error("Invalid --listen '" + listen +
                       "': expected HOST:PORT with a port up to 65535.");
  if (!cvd_listen.empty() && !parse_listen(cvd_listen, options.cvd_host, options.cvd_port))
    return usage_error("Invalid --cvd-listen '" + cvd_listen +
                       "': expected HOST:PORT with a port up to 65535.");
  if (options.tls_cert.empty() != options.tls_key.empty())
    return usage_error("Options --tls-cert and --tls-key go together.");
  return -1;
}

}  // namespace

// Exit status: 0 stopped by a signal (or after --help), 1 failed to start, 2 usage error.
int main(int argc, char** argv) {
  Options options;
  int status = parse_options(argc, argv, options);
  if (status >= 0)
    return status;
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
