#include "Oba/ObaValue.h"

#include <string>

namespace Oba {

void throwBadValueText(std::string_view text, std::string_view typeName) {
  throw Kiv::RangeException("cannot parse '" + std::string(text) + "' as " + std::string(typeName));
}

std::vector<std::string_view> splitValueText(std::string_view text, std::string_view typeName,
                                             const char* const* names, std::size_t count) {
  auto fail = [&]() { throwBadValueText(text, typeName); };
  std::string head = "Value('" + std::string(typeName) + "', ** {";
  if (!text.starts_with(head) || !text.ends_with("})")) fail();
  std::string_view body = text.substr(head.size(), text.size() - head.size() - 2);

  std::vector<std::string_view> out;
  out.reserve(count);
  std::size_t pos = 0;
  for (std::size_t i = 0; i < count; ++i) {
    std::string key = std::string(i ? ", '" : "'") + names[i] + "': ";
    if (body.substr(pos, key.size()) != key) fail();
    pos += key.size();
    // The field runs to the next ", '" at nesting depth zero, or to the end.
    std::size_t start = pos;
    int depth = 0;
    while (pos < body.size()) {
      char c = body[pos];
      if (c == '(' || c == '{' || c == '[') ++depth;
      if (c == ')' || c == '}' || c == ']') --depth;
      if (depth == 0 && body.substr(pos, 3) == ", '") break;
      ++pos;
    }
    if (depth != 0) fail();
    out.push_back(body.substr(start, pos - start));
  }
  if (pos != body.size()) fail();
  return out;
}

}  // namespace Oba
