// The CVM's REST API under /cas/casrs/ as the simulated CAS answers it. Each request waits the
// latency knob, passes digest authentication, may meet a scripted fault, and is then routed; every
// one is written to the request log. Paths outside /cas/casrs/ and /sim/ get a plain 404.
#pragma once

#include "host/http/server.h"
#include "sim/cas/router.h"
#include "sim/cas/simulator.h"

#include <string>
#include <vector>

namespace cas_sim {

// CAS's habits in answers: numbers as decimal strings (sizes in MiB, with a fraction when there is
// one), and a list whose single member stands as a bare object; an empty list under `key` is an
// answer without a body (null here).
std::string cas_number(std::int64_t n);
std::string cas_mib(double mib);
JSON_Value cas_members(std::vector<JSON_Value> members);  // null when empty
JSON_Value cas_list(const std::string& key, std::vector<JSON_Value> members);
// An error is told in the Error-Code and Error-Message headers, without a body. The code is the
// status unless CAS has a number of its own for the case ("1001": no such VM).
void cas_error(HTTP_Server_Response& response, int status, const char* message,
               const char* code = nullptr);
// CAS's provisioning codes do not follow the order of the modes: "0" lazy zeroed, "1" eager
// zeroed, "2" thin (also for anything else).
const char* provisioning_code(const std::string& provisioning);
// Space a volume takes in its pool: all of it unless thin.
double volume_allocation_mib(const Volume& volume);
// A null value is an answer without a body.
void cas_json(HTTP_Server_Response& response, const JSON_Value& value);

class CVM_Api {
 public:
  explicit CVM_Api(Simulator& sim);
  CVM_Api(const CVM_Api&) = delete;
  CVM_Api& operator=(const CVM_Api&) = delete;

  // Registers the routes; `server` must outlive the answers (its port names dropped connections).
  void attach(HTTP_Server& server);

 private:
  struct Call {
    const HTTP_Server_Request& request;
    const std::string& user;  // the authenticated operator
    const Path_Params& params;
  };
  using Handler = void (CVM_Api::*)(const Call&, HTTP_Server_Response&);

  void serve(const HTTP_Server_Request& request, HTTP_Server_Response& response);
  // False when the connection is to be dropped without an answer.
  bool answer_i(const HTTP_Server_Request& request, HTTP_Server_Response& response,
                std::string& user);
  bool apply_fault_i(const Fault& fault, const HTTP_Server_Request& request,
                     HTTP_Server_Response& response);

  void operator_list(const Call& call, HTTP_Server_Response& response);
  void cas_version(const Call& call, HTTP_Server_Response& response);

  // The inventory and task progress (cvm_inventory.cc).
  void add_inventory_routes();
  void host_list(const Call& call, HTTP_Server_Response& response);
  void host_detail(const Call& call, HTTP_Server_Response& response);
  void vswitch_list(const Call& call, HTTP_Server_Response& response);
  void vm_list(const Call& call, HTTP_Server_Response& response);
  void vm_detail(const Call& call, HTTP_Server_Response& response);
  void vm_capabilities(const Call& call, HTTP_Server_Response& response);
  void snapshot_tree(const Call& call, HTTP_Server_Response& response);
  void pool_list(const Call& call, HTTP_Server_Response& response);
  void volume_list(const Call& call, HTTP_Server_Response& response);
  void port_profile_list(const Call& call, HTTP_Server_Response& response);
  void task_progress(const Call& call, HTTP_Server_Response& response);

  // Snapshots, CBTers, block lists and power (cvm_vm.cc).
  void add_vm_routes();
  void snapshot_create(const Call& call, HTTP_Server_Response& response);
  void snapshot_delete(const Call& call, HTTP_Server_Response& response);
  void data_blocks(const Call& call, HTTP_Server_Response& response);
  void changed_blocks(const Call& call, HTTP_Server_Response& response);
  void tracker_create(const Call& call, HTTP_Server_Response& response);
  void tracker_info(const Call& call, HTTP_Server_Response& response);
  void tracker_delete(const Call& call, HTTP_Server_Response& response);
  void vm_power(const Call& call, HTTP_Server_Response& response);

  // What a restore makes: VMs, volumes and disk attachment (cvm_restore.cc).
  void add_restore_routes();
  void vm_add(const Call& call, HTTP_Server_Response& response);
  void vm_delete(const Call& call, HTTP_Server_Response& response);
  void disk_attach(const Call& call, HTTP_Server_Response& response);
  void volume_create(const Call& call, HTTP_Server_Response& response);
  void volume_delete(const Call& call, HTTP_Server_Response& response);

  Simulator& sim_;
  HTTP_Server* server_ = nullptr;
  Path_Router<Handler> routes_;
  std::int64_t last_vm_id_ = 0;  // the last VM made; changed under the world's lock
};

}  // namespace cas_sim
