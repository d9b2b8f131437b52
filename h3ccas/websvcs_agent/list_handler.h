// JSON-RPC service through which the user interface browses a CAS installation: hosts, one host's
// details, VMs, storage pools and volumes, port profiles and virtual switches, plus a search over
// hosts or VMs and a check of which VM names exist. Each answer is one CAS query whose records are
// dumped and tagged for the browsing tree. CAS failures are JSON-RPC errors -32603 whose cause is
// in the agent's log; parameter faults are -32602.
#pragma once

#include "h3ccas/restful_client.h"
#include "host/jsonrpc/jsonrpc.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace h3ccas {

class List_Handler : public JSON_RPC_Thread_Handler {
 public:
  enum Request_Type { Search = 0, List = 1, CVK_Hosts, CVK_Host_Map, VM_Infos };

  // Adds "has_children" (only a listed host can be expanded) and "type" to `object`.
  static JSON_Value unify_jrpc_response(Request_Type type, const std::string& subtype,
                                        JSON_Value object);

 protected:
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override;

 private:
  // Answers one request; runs on a List_Handler of its own, so that concurrent requests on the
  // shared handler do not share state.
  int answer_i(std::shared_ptr<JSON_RPC_Channel> chn, const JSON_RPC_Request& req);

  int list_host();
  int get_host_detail();
  int list_vm();
  int list_storage_pool();
  int list_storage_volume();
  int list_port_profile();
  int list_virtual_switch();
  int search();
  int search_host(const std::string& text, bool by_ip);
  int search_vm(const std::string& text);
  int verify_vm_names();

  // Reads the string parameter `key`; false after answering -32602.
  bool string_param(const char* key, std::string& value, int& rc);
  int send_error(int code, const char* message);
  // Answers the dumps of `records`, tagged as `type` of `subtype`.
  template <class T>
  int send_list(const std::vector<T>& records, Request_Type type, const std::string& subtype);
  int send_result(JSON_Value result);
  // Reads "host_id", runs `query` on it and answers its records, or `failure` when it fails.
  template <class T>
  int list_on_host(bool (RESTful_Client::*query)(const std::string&, std::vector<T>&),
                   const char* failure);

  std::shared_ptr<JSON_RPC_Channel> chn_;
  const JSON_RPC_Request* req = nullptr;
  const JSON_Value* params_ = nullptr;
  std::optional<RESTful_Client> client_;
  std::string subtype_;
};

}  // namespace h3ccas
