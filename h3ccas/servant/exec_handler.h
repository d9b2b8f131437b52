// The servant's JSON-RPC service "h3ccas.exec": backs up or restores one VM. Params: the dumped
// VM_Backup_Params or VM_Restore_Params plus "action": "backup", "restore", or "verify" (reads
// every object of the set a restore would read, writes nothing and needs no libcvd).
#pragma once

#include "h3ccas/servant/cvd_loader.h"
#include "host/jsonrpc/jsonrpc.h"

#include <memory>

namespace h3ccas {

class Exec_Handler : public JSON_RPC_Thread_Handler {
 public:
  // libcvd is loaded through `loader` at the first request, and again at each request until that
  // succeeds.
  explicit Exec_Handler(CVD_Loader& loader = CVD_Loader::instance()) : loader_(loader) {}

 protected:
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override;

 private:
  int backup(JSON_RPC_Channel& chn, const JSON_RPC_Request& req);
  int restore(JSON_RPC_Channel& chn, const JSON_RPC_Request& req, bool verify);

  CVD_Loader& loader_;
};

}  // namespace h3ccas
