#include "h3ccas/servant/exec_handler.h"

#include "h3ccas/common.h"
#include "h3ccas/servant/vm_backup.h"
#include "h3ccas/servant/vm_restore.h"

#include <memory>
#include <new>
#include <string>

namespace h3ccas {

int Exec_Handler::handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                                  std::shared_ptr<JSON_RPC_Object> obj) {
  const JSON_RPC_Request* request = answerable_request(chn, obj);
  if (!request)
    return -1;
  const JSON_RPC_Request& req = *request;
  if (!req.params().is_object())
    return chn->send_error(JSON_RPC_INVALID_PARAMS, req.id(),
                           "Invalid params: params type must be object.");
  const JSON_Value* action = json_find(req.params(), "action");
  if (!action || !action->is_string())
    return chn->send_error(JSON_RPC_INVALID_PARAMS, req.id(),
                           "Invalid params: 'action' is expected as string in params.");
  const std::string& name = action->get_ref<const std::string&>();
  if (name == "verify")
    return restore(*chn, req, true);
  if (!loader_.inited() && !loader_.init())
    return chn->send_error(JSON_RPC_INTERNAL_ERROR, req.id(), "Failed to load CAS libcvd.");

  if (name == "backup")
    return backup(*chn, req);
  if (name == "restore")
    return restore(*chn, req, false);
  return chn->send_error(JSON_RPC_INVALID_PARAMS, req.id(), "Invalid value on params.action.");
}

int Exec_Handler::backup(JSON_RPC_Channel& chn, const JSON_RPC_Request& req) {
  VM_Backup_Params params;
  if (!params.load(req.params()))
    return chn.send_error(JSON_RPC_INVALID_PARAMS, req.id(), "");
  auto response = JSON_RPC_Channel::create_response(req);
  if (!response)
    return chn.send_error(JSON_RPC_INTERNAL_ERROR, req.id(), "Out of memory.");
  JSON_Value result;
  VM_Backup(std::move(params)).backup(result);
  response->set_result(std::move(result));
  return chn.send(*response);
}

int Exec_Handler::restore(JSON_RPC_Channel& chn, const JSON_RPC_Request& req, bool verify) {
  VM_Restore_Params params;
  if (!params.load(req.params()))
    return chn.send_error(JSON_RPC_INVALID_PARAMS, req.id(), "");
  auto response = JSON_RPC_Channel::create_response(req);
  if (!response)
    return chn.send_error(JSON_RPC_INTERNAL_ERROR, req.id(), "Out of memory.");
  std::unique_ptr<VM_Restore> engine(new (std::nothrow) VM_Restore(std::move(params)));
  if (!engine)
    return chn.send_error(JSON_RPC_INTERNAL_ERROR, req.id(), "Internal error, out of memory.");
  JSON_Value result;
  if (verify)
    engine->verify(result);
  else
    engine->restore(result);
  response->set_result(std::move(result));
  return chn.send(*response);
}

}  // namespace h3ccas
