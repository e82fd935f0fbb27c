#include "sim/SimLog.h"

#include <cmath>
#include <cstdio>

#include "sim/ScenarioText.h"

namespace Sim {

namespace {
// A JSON string; a byte that is not part of UTF-8 text becomes U+FFFD, so a line stays valid JSON
// whatever a note or a trace holds.
void jsonString(std::ostream& os, std::string_view s) {
  os << '"';
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (static_cast<unsigned char>(c) >= 0x80) {
      const std::size_t n = utf8Length(s, i);
      if (n == 0) {
        os << "\\ufffd";
      } else {
        os << s.substr(i, n);
        i += n - 1;
      }
      continue;
    }
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

void SimLog::add(double time, std::string_view source, std::string_view text,
                 const std::vector<std::string>& causes) {
  if (!out_) return;
  if (format_ == Format::json) {
    // JSON has no NaN nor infinity; the reader refuses such times, and a line never prints one.
    *out_ << "{\"time\":";
    if (std::isfinite(time)) {
      *out_ << time;
    } else {
      *out_ << "null";
    }
    *out_ << ",\"source\":";
    jsonString(*out_, source);
    *out_ << ",\"text\":";
    jsonString(*out_, text);
    if (!causes.empty()) {
      *out_ << ",\"cause\":";
      jsonString(*out_, causes.front());
      *out_ << ",\"causes\":[";
      for (std::size_t i = 0; i < causes.size(); ++i) {
        if (i) *out_ << ',';
        jsonString(*out_, causes[i]);
      }
      *out_ << ']';
    }
    *out_ << "}\n";
    return;
  }
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%10.3f  ", time);
  *out_ << stamp << source;
  for (std::size_t i = source.size(); i < 16; ++i) *out_ << ' ';
  *out_ << ' ' << text << '\n';
  for (const std::string& c : causes) *out_ << "                because " << c << '\n';
}

}  // namespace Sim
