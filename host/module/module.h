// Plug-in modules: a manifest names the library and the factories it exports; objects are made
// by "_make_<Name>" and destroyed only by the module's "_gobble_<Name>".
#pragma once

#include "host/core/json.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class ACE_DLL;
class JSON_RPC_Handler;

// One protected instance that a module announces to the host.
struct Instance {
  std::string type;
  std::string name;
  std::string uuid;
  JSON_Value options = JSON_Value::object();
  JSON_Value logon_options = JSON_Value::object();
};

class Instance_Handler {
 public:
  explicit Instance_Handler(const char* type) : type_(type) {}
  virtual ~Instance_Handler() = default;
  const std::string& type() const { return type_; }
  virtual int init() { return 0; }
  virtual int fini() { return 0; }
  // Fills `out` with the instances found, by name; 0 on success.
  virtual int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& out) = 0;
  virtual std::string& get_state(const char* name, std::string& state) = 0;
  virtual int logon(const char* name, const char* user, const char* password) { return -1; }
  virtual int logoff(const char* name) { return 0; }
  virtual int os_logon(const char* user, const char* password) { return -1; }
  virtual bool no_check_logon() const { return false; }

 private:
  std::string type_;
};

// The manifest ("<name>.module.json"):
//   {"name": "h3ccas", "library": "libh3ccas.so",
//    "instance_handler": "H3C_CAS_Instance_Handler",
//    "jsonrpc": {"h3ccas.test_login": "JSON_RPC_H3C_CAS_Test_Login_Handler", ...},
//    "servant_jsonrpc": {"h3ccas.exec": "JSON_RPC_H3C_CAS_Exec_Handler"}}
// "library" is relative to the manifest's folder unless absolute. The agent serves "jsonrpc";
// a servant process serves only "servant_jsonrpc".
class Module : public std::enable_shared_from_this<Module> {
 public:
  // Null after one log line when the manifest or the library cannot be loaded, or a factory
  // that the manifest names is missing from the library.
  static std::shared_ptr<Module> load(const std::string& manifest_path);
  ~Module();

  const std::string& name() const { return name_; }
  // The whole manifest, for sections other parts of the host read (jobs).
  const JSON_Value& manifest() const { return manifest_; }
  // Methods in the manifest's "jsonrpc" map.
  std::vector<std::string> json_rpc_methods() const;
  // Methods in the manifest's "servant_jsonrpc" map.
  std::vector<std::string> servant_json_rpc_methods() const;
  // Objects keep the module loaded while they live. Null after one log line on failure.
  std::shared_ptr<JSON_RPC_Handler> make_json_rpc_handler(const std::string& method);
  std::shared_ptr<JSON_RPC_Handler> make_servant_json_rpc_handler(const std::string& method);
  std::shared_ptr<Instance_Handler> make_instance_handler();

  // Any factory by its name suffix: "_make_<suffix>" / "_gobble_<suffix>".
  template <class T>
  std::shared_ptr<T> make(const std::string& suffix) {
    using Gobble = void (*)(T*);
    using Make = T* (*)(Gobble*);
    void* make_sym = symbol("_make_" + suffix);
    if (!make_sym)
      return nullptr;
    Gobble gobble = nullptr;
    T* obj = reinterpret_cast<Make>(make_sym)(&gobble);
    if (!obj || !gobble)
      return factory_failed<T>(suffix, obj);
    auto self = shared_from_this();
    return std::shared_ptr<T>(obj, [self, gobble](T* p) { gobble(p); });
  }

 private:
  Module() = default;
  void* symbol(const std::string& name);
  std::vector<std::string> methods_in(const char* section) const;
  std::shared_ptr<JSON_RPC_Handler> make_handler_in(const char* section, const std::string& method);
  template <class T>
  std::shared_ptr<T> factory_failed(const std::string& suffix, T* obj) {
    report_factory_failure(suffix, obj != nullptr);
    return nullptr;
  }
  void report_factory_failure(const std::string& suffix, bool made);

  std::unique_ptr<ACE_DLL> dll_;
  std::string name_;
  std::string path_;
  JSON_Value manifest_;
};

// Exported from a module: C linkage, visible even when the rest of the module is hidden.
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
