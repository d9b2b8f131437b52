// splitmix64: fast, and the same numbers on every platform and library, so that seeded disk
// content is the same wherever it is made.
#pragma once

#include <cstdint>

namespace cas_sim {

struct Mix {
  std::uint64_t state;
  std::uint64_t next() {
    std::uint64_t z = (state += 0x9e3779b97f4a7c15);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
  }
};

}  // namespace cas_sim
