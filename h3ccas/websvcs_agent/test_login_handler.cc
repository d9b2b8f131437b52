#include "h3ccas/websvcs_agent/test_login_handler.h"

#include "h3ccas/common.h"
#include "h3ccas/restful_client.h"

#include <cerrno>
#include <string>

namespace h3ccas {

int Test_Login_Handler::handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                                        std::shared_ptr<JSON_RPC_Object> obj) {
  const JSON_RPC_Request* request = answerable_request(chn, obj);
  if (!request)
    return -1;
  const JSON_RPC_Request& req = *request;
  if (!req.params().is_object())
    return chn->send_error(JSON_RPC_INVALID_PARAMS, req.id(),
                           "Invalid params: params type must be object.", nullptr);

  CVM_Info cvm;
  // Deliberately answered with id -1, not the request's.
  if (!cvm.load(req.params(), true))
    return chn->send_error(JSON_RPC_INVALID_REQUEST, -1, "Invalid H3C CVM entry.", nullptr);

  auto resp = JSON_RPC_Channel::create_response(req);
  if (!resp) {
    errno = ENOMEM;
    return chn->send_error(JSON_RPC_INTERNAL_ERROR, req.id(), "Internal error, out of memory.");
  }

  RESTful_Client client(std::move(cvm));
  std::string message;
  std::string version;
  bool ok = client.test_login(message, version);
  resp->set_result({{"result", ok}, {"version", version}, {"message", message}});
  return chn->send(*resp);
}

}  // namespace h3ccas
