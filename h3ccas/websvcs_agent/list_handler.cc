#include "h3ccas/websvcs_agent/list_handler.h"

#include "h3ccas/common.h"
#include "host/core/text.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/find.hpp>

#include <cerrno>
#include <unordered_map>

namespace h3ccas {

namespace {

// Every text contains the empty one, so an empty search lists everything.
bool icontains(const std::string& text, const std::string& piece) {
  return piece.empty() || !boost::ifind_first(text, piece).empty();
}

}  // namespace

JSON_Value List_Handler::unify_jrpc_response(Request_Type type, const std::string& subtype,
                                             JSON_Value object) {
  object["has_children"] = type == List && subtype == "HostSystem";
  object["type"] = subtype;
  return object;
}

int List_Handler::handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                                  std::shared_ptr<JSON_RPC_Object> obj) {
  const JSON_RPC_Request* request = answerable_request(chn, obj);
  if (!request)
    return -1;
  List_Handler request_scope;
  return request_scope.answer_i(std::move(chn), *request);
}

int List_Handler::answer_i(std::shared_ptr<JSON_RPC_Channel> chn, const JSON_RPC_Request& request) {
  chn_ = std::move(chn);
  req = &request;
  params_ = &request.params();
  if (!params_->is_object())
    return send_error(JSON_RPC_INVALID_PARAMS, "Invalid params: params type must be object.");

  int rc = 0;
  std::string uuid;
  if (!string_param("uuid", uuid, rc) || !string_param("subtype", subtype_, rc))
    return rc;

  CVM_Info cvm;
  if (!cvm.load_from_server(uuid))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to get CVM info from server.");
  client_.emplace(std::move(cvm));

  using Operation = int (List_Handler::*)();
  static const std::pair<const char*, Operation> operations[] = {
      {"HostSystem", &List_Handler::list_host},
      {"HostSystemDetail", &List_Handler::get_host_detail},
      {"VirtualMachine", &List_Handler::list_vm},
      {"StoragePool", &List_Handler::list_storage_pool},
      {"StorageVolume", &List_Handler::list_storage_volume},
      {"PortProfile", &List_Handler::list_port_profile},
      {"VirtualSwitch", &List_Handler::list_virtual_switch},
      {"search", &List_Handler::search},
      {"verify", &List_Handler::verify_vm_names},
  };
  for (const auto& [name, operation] : operations)
    if (subtype_ == name)
      return (this->*operation)();
  return send_error(JSON_RPC_INVALID_PARAMS, "Invalid value of params 'subtype'");
}

bool List_Handler::string_param(const char* key, std::string& value, int& rc) {
  const JSON_Value* v = json_find(*params_, key);
  if (v && v->is_string()) {
    value = v->get<std::string>();
    return true;
  }
  std::string message =
      string_sprintf("Invalid params: '%s' is expected as string in params.", key);
  rc = send_error(JSON_RPC_INVALID_PARAMS, message.c_str());
  return false;
}

int List_Handler::send_error(int code, const char* message) {
  return chn_->send_error(code, req->id(), message);
}

int List_Handler::send_result(JSON_Value result) {
  auto resp = JSON_RPC_Channel::create_response(*req);
  if (!resp) {
    errno = ENOMEM;
    return send_error(JSON_RPC_INTERNAL_ERROR, "Internal error, out of memory.");
  }
  resp->set_result(std::move(result));
  return chn_->send(*resp);
}

template <class T>
int List_Handler::send_list(const std::vector<T>& records, Request_Type type,
                            const std::string& subtype) {
  JSON_Value result = JSON_Value::array();
  result.get_ref<JSON_Value::array_t&>().reserve(records.size());
  for (const T& record : records)
    result.push_back(unify_jrpc_response(type, subtype, record.dump()));
  return send_result(std::move(result));
}

template <class T>
int List_Handler::list_on_host(bool (RESTful_Client::*query)(const std::string&, std::vector<T>&),
                               const char* failure) {
  int rc = 0;
  std::string host_id;
  if (!string_param("host_id", host_id, rc))
    return rc;
  std::vector<T> records;
  if (!((*client_).*query)(host_id, records))
    return send_error(JSON_RPC_INTERNAL_ERROR, failure);
  return send_list(records, List, subtype_);
}

int List_Handler::list_host() {
  std::vector<CVK_Host> hosts;
  if (!client_->list_host(hosts))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to list CAS hosts.");
  return send_list(hosts, List, subtype_);
}

int List_Handler::get_host_detail() {
  int rc = 0;
  std::string host_id;
  if (!string_param("host_id", host_id, rc))
    return rc;
  CVK_Host_Detail detail;
  if (!client_->get_host_detail(host_id, detail))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to get CAS CVK details.");
  return send_result(unify_jrpc_response(List, subtype_, detail.dump()));
}

int List_Handler::list_vm() {
  return list_on_host(&RESTful_Client::list_vm, "Failed to list CAS virtual machines.");
}

int List_Handler::list_storage_pool() {
  return list_on_host(&RESTful_Client::list_storage_pool, "Failed to list CAS storage pools.");
}

int List_Handler::list_storage_volume() {
  int rc = 0;
  std::string host_id, pool_name;
  if (!string_param("host_id", host_id, rc) || !string_param("pool_name", pool_name, rc))
    return rc;
  std::vector<CAS_Storage_Volume> volumes;
  if (!client_->list_storage_volume(host_id, pool_name, volumes))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to list CAS storage volumes.");
  return send_list(volumes, List, subtype_);
}

int List_Handler::list_port_profile() {
  std::vector<Port_Profile> profiles;
  if (!client_->list_port_profile(profiles))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to list CAS port profiles.");
  return send_list(profiles, List, subtype_);
}

int List_Handler::list_virtual_switch() {
  return list_on_host(&RESTful_Client::list_virtual_switch, "Failed to list CAS virtual switches.");
}

int List_Handler::search() {
  int rc = 0;
  std::string type, text;
  if (!string_param("type", type, rc))
    return rc;
  if (type != "HostSystem" && type != "VirtualMachine")
    return send_error(JSON_RPC_INVALID_PARAMS, "Invalid value of params 'type'.");
  if (!string_param("search", text, rc))
    return rc;
  if (type == "VirtualMachine")
    return search_vm(text);
  const JSON_Value* search_type = json_find(*params_, "search_type");
  return search_host(text, search_type && *search_type == "ip");
}

int List_Handler::search_host(const std::string& text, bool by_ip) {
  std::vector<CVK_Host> hosts;
  if (!client_->list_host(hosts))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to list CAS hosts.");
  std::vector<CVK_Host> found;
  for (CVK_Host& host : hosts)
    if (icontains(host.ip_, text) || (!by_ip && icontains(host.name_, text)))
      found.push_back(std::move(host));
  return send_list(found, Search, "HostSystem");
}

int List_Handler::search_vm(const std::string& text) {
  std::vector<VM_Info> vms;
  if (!client_->list_all_vm(vms))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to list CAS VMs.");
  std::vector<VM_Info> found;
  for (VM_Info& vm : vms)
    if (icontains(vm.display_name_, text) || icontains(vm.name_, text))
      found.push_back(std::move(vm));
  return send_list(found, Search, "VirtualMachine");
}

int List_Handler::verify_vm_names() {
  const JSON_Value* names = json_find(*params_, "vms");
  if (!names || !names->is_array())
    return send_error(JSON_RPC_INVALID_PARAMS,
                      "Invalid params: 'vms' is expected as array in params.");
  std::vector<VM_Info> vms;
  if (!client_->list_all_vm(vms))
    return send_error(JSON_RPC_INTERNAL_ERROR, "Failed to list CAS VMs.");

  // The candidates by lower-case name. A match takes the VMs out of the candidates, so a name
  // asked twice reports its VMs once.
  std::unordered_map<std::string, std::vector<const VM_Info*>> candidates;
  for (const VM_Info& vm : vms)
    candidates[boost::to_lower_copy(vm.name_)].push_back(&vm);
  std::vector<VM_Info> found;
  for (const JSON_Value& name : *names) {
    if (!name.is_string())
      continue;
    auto it = candidates.find(boost::to_lower_copy(name.get<std::string>()));
    if (it == candidates.end())
      continue;
    for (const VM_Info* vm : it->second)
      found.push_back(*vm);
    candidates.erase(it);
  }
  return send_list(found, VM_Infos, "VirtualMachine");
}

}  // namespace h3ccas
