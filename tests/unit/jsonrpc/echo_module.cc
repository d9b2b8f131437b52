// A minimal module: "echo" answers its params; the instance handler announces one instance.
#include "host/jsonrpc/jsonrpc.h"
#include "host/module/module.h"

#include <atomic>

namespace {

std::atomic<int> live_objects{0};

class Echo_Handler : public JSON_RPC_Thread_Handler {
 public:
  Echo_Handler() { ++live_objects; }
  ~Echo_Handler() override { --live_objects; }

 protected:
  int handle_object_i(std::shared_ptr<JSON_RPC_Channel> chn,
                      std::shared_ptr<JSON_RPC_Object> obj) override {
    if (!chn)
      return -1;
    auto& req = static_cast<JSON_RPC_Request&>(*obj);
    auto resp = JSON_RPC_Channel::create_response(req);
    resp->set_result({{"echo", req.params()}, {"live", live_objects.load()}});
    return chn->send(*resp);
  }
};

class Echo_Instances : public Instance_Handler {
 public:
  Echo_Instances() : Instance_Handler("echo") {}
  int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& out) override {
    auto inst = std::make_shared<Instance>();
    inst->type = "echo";
    inst->name = "Echo";
    out["Echo"] = inst;
    return 0;
  }
  std::string& get_state(const char*, std::string& state) override { return state = "enabled"; }
};

}  // namespace

MODULE_EXPORT JSON_RPC_Handler* _make_Echo_Handler(void (**gobble)(JSON_RPC_Handler*));
MODULE_EXPORT void _gobble_Echo_Handler(JSON_RPC_Handler* p) {
  delete p;
}
JSON_RPC_Handler* _make_Echo_Handler(void (**gobble)(JSON_RPC_Handler*)) {
  if (gobble)
    *gobble = _gobble_Echo_Handler;
  return new Echo_Handler;
}

MODULE_EXPORT void _gobble_Echo_Instances(Instance_Handler* p) {
  delete p;
}
MODULE_EXPORT Instance_Handler* _make_Echo_Instances(void (**gobble)(Instance_Handler*)) {
  if (gobble)
    *gobble = _gobble_Echo_Instances;
  return new Echo_Instances;
}

MODULE_EXPORT int echo_live_objects() {
  return live_objects.load();
}
