// The simulator's control API under /sim/: read and clear the request log, script faults, change
// knobs, show the world, start asynchronous tasks. No authentication: a testing tool bound to
// loopback (see README.md).
#pragma once

#include "host/http/server.h"
#include "sim/cas/router.h"
#include "sim/cas/simulator.h"

namespace cas_sim {

class Control_Api {
 public:
  explicit Control_Api(Simulator& sim);
  Control_Api(const Control_Api&) = delete;
  Control_Api& operator=(const Control_Api&) = delete;

  void attach(HTTP_Server& server);

 private:
  using Handler = void (Control_Api::*)(const HTTP_Server_Request&, HTTP_Server_Response&);

  void serve(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void get_requests(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void delete_requests(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void get_faults(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void post_fault(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void delete_faults(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void put_knobs(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void expire_nonces(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void get_world(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void post_task(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  // Guest data, digests, leftovers and disk service faults (disks of the world).
  void write_disk(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void import_disk(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void disk_digest(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void resize_disk(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void get_leftovers(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void fail_reads(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void drop_connections(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void hold(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  void get_holds(const HTTP_Server_Request& request, HTTP_Server_Response& response);

  Simulator& sim_;
  Path_Router<Handler> routes_;
};

}  // namespace cas_sim
