#include "sim/SimLog.h"

#include <cstdio>

namespace Sim {

namespace {
void jsonString(std::ostream& os, std::string_view s) {
  os << '"';
  for (char c : s) {
    switch (c) {
      case '"':
        os << "\\\"";
        break;
      case '\\':
        os << "\\\\";
        break;
      case '\n':
        os << "\\n";
        break;
      case '\t':
        os << "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          os << buf;
        } else {
          os << c;
        }
    }
  }
  os << '"';
}
}  // namespace

void SimLog::add(double time, std::string_view source, std::string_view text) {
  if (!out_) return;
  if (format_ == Format::json) {
    *out_ << "{\"time\":" << time << ",\"source\":";
    jsonString(*out_, source);
    *out_ << ",\"text\":";
    jsonString(*out_, text);
    *out_ << "}\n";
    return;
  }
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%10.3f  ", time);
  *out_ << stamp << source;
  for (std::size_t i = source.size(); i < 16; ++i) *out_ << ' ';
  *out_ << ' ' << text << '\n';
}

}  // namespace Sim
