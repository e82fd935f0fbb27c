#pragma once
// The fuzzer's randomness: one generator per seed, spread over its state space, with the few
// draws the families need. A seed replays exactly from its number.

#include <cstdint>
#include <random>
#include <vector>

namespace Sim {

// Spreads consecutive seeds over the generator's state space.
inline std::uint64_t mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

class Rng {
 public:
  explicit Rng(std::uint64_t seed) : g_(mix(seed)) {}
  std::uint64_t below(std::uint64_t n) { return g_() % n; }
  bool chance(double p) { return static_cast<double>(g_() >> 11) * 0x1.0p-53 < p; }
  template <class T>
  const T& pick(const std::vector<T>& v) {
    return v[below(v.size())];
  }
  // A delay in whole quarters of a second, so that every time of a run prints exactly.
  double quarters(std::uint64_t max) { return static_cast<double>(below(max + 1)) * 0.25; }
  std::uint64_t next() { return g_(); }

 private:
  std::mt19937_64 g_;
};

}  // namespace Sim
