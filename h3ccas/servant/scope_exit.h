// Runs a function when a scope is left, whichever way: the clean-up of snapshots, VMs and
// volumes that a failed step must not leave behind.
#pragma once

#include <utility>

namespace h3ccas {

template <class F>
struct Scope_Exit {
  explicit Scope_Exit(F fn) : fn_(std::move(fn)) {}
  ~Scope_Exit() { fn_(); }
  Scope_Exit(const Scope_Exit&) = delete;
  Scope_Exit& operator=(const Scope_Exit&) = delete;
  F fn_;
};

}  // namespace h3ccas
