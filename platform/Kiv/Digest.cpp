#include "Kiv/Digest.h"

#include <cstring>
#include <map>

namespace Kiv {

namespace {

std::map<std::string, std::vector<DigestField>, std::less<>>& registry() {
  static std::map<std::string, std::vector<DigestField>, std::less<>> fields;
  return fields;
}

}  // namespace

void registerDigestField(const char* type, const char* name, DigestFieldFn add) {
  auto& fields = registry()[type];
  for (const auto& f : fields) {
    if (f.name == name) return;
  }
  fields.push_back({name, add});
}

const std::vector<DigestField>* digestFields(const char* type) {
  auto& r = registry();
  auto it = r.find(std::string_view(type));
  return it == r.end() ? nullptr : &it->second;
}

void Digest::bytes(const void* p, std::size_t n) {
  const auto* c = static_cast<const unsigned char*>(p);
  while (n >= 8) {
    std::uint64_t w;
    std::memcpy(&w, c, 8);
    word(w);
    c += 8;
    n -= 8;
  }
  std::uint64_t w = 0;
  std::memcpy(&w, c, n);
  word(w ^ (std::uint64_t(n) << 56));
}

bool Digest::fieldsOf(const char* type, const void* self) {
  const auto* fields = digestFields(type);
  if (!fields || fields->empty()) return false;
  text(type);
  for (const auto& f : *fields) f.add(self, *this);
  return true;
}

}  // namespace Kiv
