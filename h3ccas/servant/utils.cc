#include "h3ccas/servant/utils.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/core/text.h"

#include <ace/Process.h>

#include <cerrno>

namespace h3ccas {

namespace {

// Kinds of JSON-RPC message, as the servant protocol numbers them.
enum JSON_RPC_Type { TYPE_REQUEST = 1, TYPE_NOTIFICATION = 2, TYPE_RESULT = 3, TYPE_ERROR = 4 };

int json_rpc_type(const JSON_RPC_Object& obj) {
  if (obj.is_request())
    return static_cast<const JSON_RPC_Request&>(obj).is_notification() ? TYPE_NOTIFICATION
                                                                       : TYPE_REQUEST;
  return static_cast<const JSON_RPC_Response&>(obj).is_error() ? TYPE_ERROR : TYPE_RESULT;
}

}  // namespace

std::string cvd_sdk_dir() {
  return rooted_path("/opt/quorvex/brimlet5/cvdsdk/1.0.0");
}

std::string cvd_sdk_path() {
  return rooted_path("/opt/quorvex/brimlet5/cvdsdk/1.0.0/libcvd.so");
}

bool create_cvd_sdk_conf(int timeout, const std::string& log_level, std::string& path) {
  // In 64 bits, so that no timeout overflows on its way to seconds.
  std::string content = string_sprintf("network_timeout = %lld;\nlog_level = \"%s\";\n",
                                       static_cast<long long>(timeout) * 60, log_level.c_str());
  return create_script_file(content, path, ".conf");
}

bool init_servant(Servant& servant, const char* label, const Servant::Log_Msg_Callback& callback,
                  const std::string& conf_path) {
  std::string svc_conf;
  if (!Path_Conf("/etc/opt/quorvex/brimlet5/$COMPONENT/servant", "h3c-cas", "svc.conf", 0750)
           .get(svc_conf))
    return false;
  servant.reset("starter", svc_conf.c_str(), nullptr, nullptr, label);
  servant.set_log_msg_callback(callback);
  servant.set_flags(0);
  // A stopped VM still deletes its snapshot and CBTer and the objects it stored, which CAS and the
  // pool may take a while to do.
  servant.set_stop_grace(300);
  ACE_Process_Options& options = servant.get_process_options();
  const std::string sdk_dir = cvd_sdk_dir();
  if (prepend_process_options_env(options, "LD_LIBRARY_PATH", sdk_dir.c_str()) != 0) {
    LOG_MSG((LM_ERROR, "Failed to prepend '%s' to LD_LIBRARY_PATH, errno=%d.\n", sdk_dir.c_str(),
             errno));
    return false;
  }
  errno = 0;
  if (options.setenv("CAS_CVD_SDK_CONF_PATH", "%s", conf_path.c_str()) != 0) {
    LOG_MSG((LM_ERROR, "Failed to set conf path CAS servant, errno=%d.\n", errno));
    return false;
  }
  errno = 0;
  if (options.setenv("CAS_CVD_SDK_PATH", "%s", cvd_sdk_path().c_str()) != 0) {
    LOG_MSG((LM_ERROR, "Failed to set SDK path for CAS servant, errno=%d.\n", errno));
    return false;
  }
  return true;
}

bool get_servant_result(const std::shared_ptr<JSON_RPC_Object>& resp, JSON_Value& result) {
  if (!resp.get()) {
    LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, resp.get() is NULL:\n%?\n"));
    return false;
  }
  const int type = json_rpc_type(*resp);
  if (type == TYPE_ERROR) {
    const JSON_Value& error = static_cast<const JSON_RPC_Response&>(*resp).error();
    const JSON_Value* code = error.is_object() ? json_find(error, "code") : nullptr;
    const JSON_Value* message = error.is_object() ? json_find(error, "message") : nullptr;
    LOG_MSG(
        (LM_ERROR, "Failed to exec in CAS servant, errnum=%d, %s\n",
         code && code->is_number_integer() ? code->get<int>() : 0,
         message && message->is_string() ? message->get_ref<const std::string&>().c_str() : ""));
    return false;
  }
  if (type != TYPE_RESULT) {
    LOG_MSG((LM_ERROR, "Unknown response type '%d' for CAS JSON-RPC in servant.\n", type));
    return false;
  }
  const auto& r = static_cast<const JSON_RPC_Response&>(*resp);
  if (!r.result().is_object()) {
    LOG_MSG((LM_EMERGENCY, "Unexpected error in %N:%l, r.result is not object!\n"));
    return false;
  }
  result = r.result();
  return true;
}

}  // namespace h3ccas
