#pragma once
// L2Rib::RibId<Tag>: the short numeric ids by which the layer-2 RIB's tables name their entries
// (DestId, LabelId, LoadBalanceId), each printed as its prefix and the number, "LabelId7".
// One template, so the three kinds cannot be mixed up and share one spelling.

#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Kiv/Types.h"
#include "Quil/Text.h"

namespace L2Rib {

template <class Tag>
class RibId {
 public:
  constexpr RibId() = default;
  explicit constexpr RibId(std::uint32_t value) : value_(value) {}
  // Accepts exactly "<prefix><n>"; parse() raises Kiv::RangeException
  // "cannot parse '<s>' as <prefix>" where tryParse() gives nothing.
  static std::optional<RibId> tryParse(std::string_view s) {
    std::uint64_t v = 0;
    if (!Quil::text::consumePrefix(s, Tag::prefix) ||
        !Quil::text::parseDecimal(s, 0xffffffffull, v)) {
      return std::nullopt;
    }
    return RibId(static_cast<std::uint32_t>(v));
  }
  static RibId parse(std::string_view s) {
    if (auto v = tryParse(s)) return *v;
    Quil::text::cannotParse(s, Tag::prefix);
  }

  constexpr std::uint32_t value() const { return value_; }

  std::uint32_t hash() const { return Kiv::HashMixer().add(value_).result(); }
  constexpr bool operator==(const RibId&) const = default;
  constexpr auto operator<=>(const RibId&) const = default;
  // The string form, on the stack.
  Quil::TextBuf<24> text() const {
    return Quil::TextBuf<24>().append(Tag::prefix).appendDecimal(value_);
  }
  std::string toString() const { return text().string(); }

 private:
  std::uint32_t value_ = 0;
};

template <class Tag>
std::ostream& operator<<(std::ostream& os, RibId<Tag> id) {
  return os << id.text().view();
}

struct DestIdTag {
  static constexpr std::string_view prefix = "DestId";
};
struct LabelIdTag {
  static constexpr std::string_view prefix = "LabelId";
};
struct LoadBalanceIdTag {
  static constexpr std::string_view prefix = "LoadBalanceId";
};
using DestId = RibId<DestIdTag>;
using LabelId = RibId<LabelIdTag>;
using LoadBalanceId = RibId<LoadBalanceIdTag>;

}  // namespace L2Rib

template <class Tag>
struct std::hash<L2Rib::RibId<Tag>> {
  std::size_t operator()(L2Rib::RibId<Tag> v) const noexcept { return v.hash(); }
};
