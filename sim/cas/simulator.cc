#include "sim/cas/simulator.h"

#include <algorithm>

namespace cas_sim {

Simulator::Simulator(World world, std::string data_dir)
    : world_(std::move(world)),
      digest_(world_.realm, world_.knobs.nonce_lifetime_seconds),
      data_dir_(std::move(data_dir)) {
  for (Fault& fault : world_.faults)
    fault.id = ++last_fault_id_;
}

World Simulator::world() const {
  std::lock_guard<std::mutex> lock(mutex_);
  settle_i();
  return world_;
}

void Simulator::change_status_at(std::int64_t vm_id, std::string status,
                                 std::chrono::steady_clock::time_point when) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_changes_.push_back({vm_id, std::move(status), when});
}

void Simulator::settle_i() const {
  auto now = std::chrono::steady_clock::now();
  auto due = [&](const Status_Change& c) { return c.when <= now; };
  for (const Status_Change& c : status_changes_)
    if (due(c))
      for (Host& host : world_.hosts)
        for (VM& vm : host.vms)
          if (vm.id == c.vm_id)
            vm.status = c.status;
  status_changes_.erase(std::remove_if(status_changes_.begin(), status_changes_.end(), due),
                        status_changes_.end());
}

Knobs Simulator::knobs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return world_.knobs;
}

std::string Simulator::version() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return world_.version;
}

std::vector<Operator> Simulator::operators() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return world_.operators;
}

bool Simulator::password_of(const std::string& login_name, std::string& password) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Operator& op : world_.operators) {
    if (op.login_name == login_name) {
      password = op.password;
      return true;
    }
  }
  return false;
}

bool Simulator::change_knobs(const JSON_Value& changes, std::string& error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!apply_knobs(changes, world_, error))
    return false;
  digest_.set_lifetime(world_.knobs.nonce_lifetime_seconds);
  return true;
}

std::int64_t Simulator::add_fault(Fault fault) {
  std::lock_guard<std::mutex> lock(mutex_);
  fault.id = ++last_fault_id_;
  world_.faults.push_back(std::move(fault));
  return last_fault_id_;
}

bool Simulator::take_fault(const std::string& method, const std::string& path,
                           const std::string& body, Fault& fault) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find_if(world_.faults.begin(), world_.faults.end(), [&](const Fault& f) {
    return path.compare(0, f.path.size(), f.path) == 0 &&
           (f.method.empty() || f.method == method) &&
           body.find(f.request_contains) != std::string::npos;
  });
  if (it == world_.faults.end())
    return false;
  fault = *it;
  if (it->count > 0 && --it->count == 0)
    world_.faults.erase(it);
  return true;
}

std::size_t Simulator::remove_faults(std::int64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t before = world_.faults.size();
  world_.faults.erase(std::remove_if(world_.faults.begin(), world_.faults.end(),
                                     [&](const Fault& f) { return id == 0 || f.id == id; }),
                      world_.faults.end());
  return before - world_.faults.size();
}

std::vector<Fault> Simulator::faults() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return world_.faults;
}

}  // namespace cas_sim
