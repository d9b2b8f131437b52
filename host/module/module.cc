#include "host/module/module.h"

#include "host/core/log.h"
#include "host/core/paths.h"
#include "host/jsonrpc/jsonrpc.h"

#include <ace/DLL.h>

#include <new>

std::shared_ptr<Module> Module::load(const std::string& manifest_path) {
  std::string text;
  if (!read_file(manifest_path, text)) {
    LOG_MSG((LM_ERROR, "Failed to read module manifest '%s': %m.\n", manifest_path.c_str()));
    return nullptr;
  }
  std::shared_ptr<Module> m(new (std::nothrow) Module);
  if (!m)
    return nullptr;
  std::string library;
  try {
    m->manifest_ = JSON_Value::parse(text);
    json_extract(m->manifest_, "name", m->name_);
    json_extract(m->manifest_, "library", library);
    std::string instance_handler;
    json_extract(m->manifest_, "instance_handler", instance_handler, false);
    for (const char* section : {"jsonrpc", "servant_jsonrpc"}) {
      JSON_Value methods = JSON_Value::object();
      if (json_extract_object(m->manifest_, section, methods, false))
        for (auto& [method, factory] : methods.items())
          if (!factory.is_string())
            json_throw_type(method.c_str(), "string");
    }
  } catch (const std::exception& e) {
    LOG_MSG((LM_ERROR, "Invalid module manifest '%s': %s.\n", manifest_path.c_str(), e.what()));
    return nullptr;
  }
  if (library.empty() || library[0] != '/') {
    auto slash = manifest_path.rfind('/');
    library = (slash == std::string::npos ? std::string(".") : manifest_path.substr(0, slash)) +
              "/" + library;
  }
  m->path_ = library;
  m->dll_ = std::make_unique<ACE_DLL>();
  if (m->dll_->open(library.c_str(), RTLD_NOW | RTLD_LOCAL, true) != 0) {
    LOG_MSG(
        (LM_ERROR, "Failed to load module library '%s': %s.\n", library.c_str(), m->dll_->error()));
    return nullptr;
  }
  // Every factory the manifest names must exist now, not at the first request.
  std::vector<std::string> suffixes;
  if (m->manifest_.contains("instance_handler"))
    suffixes.push_back(m->manifest_["instance_handler"].get<std::string>());
  for (const char* section : {"jsonrpc", "servant_jsonrpc"})
    for (const auto& method : m->methods_in(section))
      suffixes.push_back(m->manifest_[section][method].get<std::string>());
  for (const auto& s : suffixes)
    if (!m->symbol("_make_" + s) || !m->symbol("_gobble_" + s))
      return nullptr;
  return m;
}

Module::~Module() = default;

std::vector<std::string> Module::json_rpc_methods() const {
  return methods_in("jsonrpc");
}

std::vector<std::string> Module::servant_json_rpc_methods() const {
  return methods_in("servant_jsonrpc");
}

std::vector<std::string> Module::methods_in(const char* section) const {
  std::vector<std::string> out;
  auto it = manifest_.find(section);
  if (it != manifest_.end() && it->is_object())
    for (auto& [method, factory] : it->items())
      out.push_back(method);
  return out;
}

void* Module::symbol(const std::string& name) {
  void* sym = dll_->symbol(name.c_str());
  if (!sym)
    LOG_MSG((LM_ERROR, "Module '%s' does not export '%s'.\n", name_.c_str(), name.c_str()));
  return sym;
}

void Module::report_factory_failure(const std::string& suffix, bool made) {
  LOG_MSG((LM_ERROR, "Factory '_make_%s' of module '%s' %s.\n", suffix.c_str(), name_.c_str(),
           made ? "gave no destroyer" : "made no object"));
}

std::shared_ptr<JSON_RPC_Handler> Module::make_json_rpc_handler(const std::string& method) {
  return make_handler_in("jsonrpc", method);
}

std::shared_ptr<JSON_RPC_Handler> Module::make_servant_json_rpc_handler(const std::string& method) {
  return make_handler_in("servant_jsonrpc", method);
}

std::shared_ptr<JSON_RPC_Handler> Module::make_handler_in(const char* section,
                                                          const std::string& method) {
  auto it = manifest_.find(section);
  if (it == manifest_.end() || !it->contains(method)) {
    LOG_MSG((LM_ERROR, "Module '%s' serves no method '%s' in '%s'.\n", name_.c_str(),
             method.c_str(), section));
    return nullptr;
  }
  return make<JSON_RPC_Handler>((*it)[method].get<std::string>());
}

std::shared_ptr<Instance_Handler> Module::make_instance_handler() {
  auto it = manifest_.find("instance_handler");
  if (it == manifest_.end() || !it->is_string()) {
    LOG_MSG((LM_ERROR, "Module '%s' has no instance handler.\n", name_.c_str()));
    return nullptr;
  }
  return make<Instance_Handler>(it->get<std::string>());
}
