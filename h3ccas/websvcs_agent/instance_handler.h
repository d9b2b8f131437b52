// The one protected "instance" the module announces to the host: a proxy for CVMs, which need no
// operating-system logon (CVM credentials travel with each request).
#pragma once

#include "host/module/module.h"

#include <map>
#include <memory>
#include <string>

namespace h3ccas {

class Instance_Handler : public ::Instance_Handler {
 public:
  Instance_Handler();
  int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& out) override;
  std::string& get_state(const char* name, std::string& state) override;
  int logon(const char* name, const char* user, const char* password) override;
};

}  // namespace h3ccas
