#include "Quil/MplsLabel.h"

namespace Quil {

TextBuf<8> MplsLabel::text() const {
  TextBuf<8> t;
  if (isNoLabel()) return t.append("none");
  return t.appendDecimal(value_);
}

std::optional<MplsLabel> MplsLabel::tryParse(std::string_view s) {
  if (s == "none") return MplsLabel();
  std::uint64_t v = 0;
  if (!text::parseDecimal(s, noLabel, v)) return std::nullopt;
  return MplsLabel(static_cast<std::uint32_t>(v));
}

MplsLabel MplsLabel::parse(std::string_view s) {
  if (auto v = tryParse(s)) return *v;
  text::cannotParse(s, "MplsLabel");
}

}  // namespace Quil
