// JSON-RPC service that tests the login to a CVM entry: {"result", "version", "message"}.
// A failed login is a normal result; only a malformed request gets a JSON-RPC error.
#pragma once

#include "host/jsonrpc/jsonrpc.h"

#include <memory>

namespace h3ccas {

class Test_Login_Handler : public JSON_RPC_Thread_Handler {
 protected:
  // "params" is the CVM entry as stored by the backup server (password encrypted).
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override;
};

}  // namespace h3ccas
