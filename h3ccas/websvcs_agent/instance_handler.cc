#include "h3ccas/websvcs_agent/instance_handler.h"

namespace h3ccas {

namespace {
const char s_instance_type[] = "h3c-cas";
const char s_proxy_name[] = "H3C_CAS_Proxy";
}  // namespace

Instance_Handler::Instance_Handler() : ::Instance_Handler(s_instance_type) {}

int Instance_Handler::probe_instances(std::map<std::string, std::shared_ptr<Instance>>& out) {
  auto instance = std::make_shared<Instance>();
  instance->type = s_instance_type;
  instance->name = s_proxy_name;
  instance->options = {{"is_proxy", true}};
  out[s_proxy_name] = std::move(instance);
  return 0;
}

std::string& Instance_Handler::get_state(const char* name, std::string& state) {
  state = "enabled";
  return state;
}

int Instance_Handler::logon(const char* name, const char* user, const char* password) {
  return 0;
}

}  // namespace h3ccas
