#include "Evpn/EvpnStatus.h"

#include <charconv>
#include <string>

#include "Kiv/Types.h"

namespace Evpn {

namespace {
const char* encapName(EncapTypeLabel::EncapType t) {
  switch (t) {
    case EncapTypeLabel::encapTypeNone:
      return "none";
    case EncapTypeLabel::encapTypeMpls:
      return "mpls";
    case EncapTypeLabel::encapTypeVxlan:
      return "vxlan";
  }
  return nullptr;
}
}  // namespace

std::ostream& operator<<(std::ostream& os, const EncapTypeLabel& l) {
  if (const char* n = encapName(l.encapType())) return os << n << ":" << l.label();
  return os << "encap" << static_cast<unsigned>(l.encapType()) << ":" << l.label();
}

EncapTypeLabel EncapTypeLabel::parse(std::string_view s) {
  auto fail = [&]() -> EncapTypeLabel {
    throw Kiv::RangeException("cannot parse '" + std::string(s) + "' as EncapTypeLabel");
  };
  std::size_t colon = s.find(':');
  if (colon == std::string_view::npos) return fail();
  std::string_view type = s.substr(0, colon), num = s.substr(colon + 1);
  std::uint32_t label = 0;
  auto [end, ec] = std::from_chars(num.data(), num.data() + num.size(), label);
  if (num.empty() || ec != std::errc() || end != num.data() + num.size() || label > 0xffffff) {
    return fail();
  }
  for (auto t : {encapTypeNone, encapTypeMpls, encapTypeVxlan}) {
    if (type == encapName(t)) return EncapTypeLabel(t, label);
  }
  return fail();
}

}  // namespace Evpn
