#include "sim/ScenarioText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yaml-cpp/depthguard.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/parser.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "sim/ScenarioReader.h"

namespace Sim {

namespace {

const std::string sizeLimitText =
    "larger than a scenario may be (" + std::to_string(maxScenarioBytes) + " bytes)";

// Where a byte is, 1-based, counting characters on its line.
struct Position {
  int line = 1;
  int column = 1;
};

Position positionOf(const std::string& text, std::size_t at) {
  Position p;
  for (std::size_t i = 0; i < at && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++p.line;
      p.column = 1;
    } else if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) {
      ++p.column;
    }
  }
  return p;
}

[[noreturn]] void failAt(const std::string& text, const std::string& file, std::size_t at,
                         const std::string& what) {
  const Position p = positionOf(text, at);
  throw ScenarioError(file, p.line, p.column, what);
}

// Where a quoted scalar that starts at `at` (its opening quote, after any tag) ends, or npos when
// the text ends first.
std::size_t closingQuote(const std::string& text, std::size_t at) {
  const char quote = text[at];
  for (std::size_t i = at + 1; i < text.size(); ++i) {
    if (quote == '"' && text[i] == '\\') {
      ++i;
    } else if (text[i] == quote) {
      if (quote == '\'' && i + 1 < text.size() && text[i + 1] == '\'') {
        ++i;  // '' is a quote inside a single-quoted scalar
      } else {
        return i;
      }
    }
  }
  return std::string::npos;
}

// Walks the YAML events: one document, no alias, no key twice in a map, every quoted scalar
// closed.
class Events : public YAML::EventHandler {
 public:
  Events(const std::string& text, const std::string& file) : text_(text), file_(file) {}

  void OnDocumentStart(const YAML::Mark& mark) override {
    if (++documents_ > 1) {
      fail(mark,
           "a second YAML document (or text after the document's end '...'); a scenario "
           "file holds one");
    }
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& mark, YAML::anchor_t) override { node(mark, "~"); }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override {
    fail(mark, "an alias (*name); a scenario writes each value out where it is used");
  }
  void OnScalar(const YAML::Mark& mark, const std::string&, YAML::anchor_t,
                const std::string& value) override {
    checkClosed(mark);
    node(mark, value);
  }
  void OnSequenceStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t,
                       YAML::EmitterStyle::value) override {
    node(mark, std::nullopt);
    open_.push_back(Open{false, {}, true});
  }
  void OnSequenceEnd() override { open_.pop_back(); }
  void OnMapStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t,
                  YAML::EmitterStyle::value) override {
    node(mark, std::nullopt);
    open_.push_back(Open{true, {}, true});
  }
  void OnMapEnd() override { open_.pop_back(); }

 private:
  struct Open {
    bool map;
    std::set<std::string> keys;
    bool atKey;  // in a map, whether the next node is a key
  };

  [[noreturn]] void fail(const YAML::Mark& mark, const std::string& what) const {
    throw ScenarioError(file_, mark.line + 1, mark.column + 1, what);
  }

  // A node inside the innermost open collection; `key` is its text when it is a scalar.
  void node(const YAML::Mark& mark, const std::optional<std::string>& key) {
    if (open_.empty() || !open_.back().map) return;
    Open& m = open_.back();
    m.atKey = !m.atKey;
    if (!m.atKey) {
      if (!key) fail(mark, "expected a key (a word), got a map or a list");
      if (!m.keys.insert(*key).second) fail(mark, "the key '" + *key + "' a second time in a map");
    }
  }

  // yaml-cpp takes a quoted scalar that the file ends inside as if it were closed.
  void checkClosed(const YAML::Mark& mark) const {
    if (mark.pos < 0) return;
    std::size_t at = static_cast<std::size_t>(mark.pos);
    if (at < text_.size() && text_[at] == '!') {  // a tag, then the scalar
      while (at < text_.size() && text_[at] != ' ' && text_[at] != '\n') ++at;
      while (at < text_.size() && text_[at] == ' ') ++at;
    }
    if (at >= text_.size() || (text_[at] != '"' && text_[at] != '\'')) return;
    if (closingQuote(text_, at) == std::string::npos) {
      fail(mark, "a quoted string that is never closed");
    }
  }

  const std::string& text_;
  const std::string& file_;
  int documents_ = 0;
  std::vector<Open> open_;
};

}  // namespace

std::size_t utf8Length(std::string_view s, std::size_t i) {
  const auto b = [&](std::size_t k) { return static_cast<unsigned char>(s[i + k]); };
  const auto cont = [&](std::size_t k) { return i + k < s.size() && (b(k) & 0xc0) == 0x80; };
  const unsigned char c = b(0);
  if (c < 0x80) return 1;
  if (c >= 0xc2 && c <= 0xdf) return cont(1) ? 2 : 0;
  if (c >= 0xe0 && c <= 0xef) {
    if (!cont(1) || !cont(2)) return 0;
    if (c == 0xe0 && b(1) < 0xa0) return 0;   // overlong
    if (c == 0xed && b(1) >= 0xa0) return 0;  // a surrogate
    return 3;
  }
  if (c >= 0xf0 && c <= 0xf4) {
    if (!cont(1) || !cont(2) || !cont(3)) return 0;
    if (c == 0xf0 && b(1) < 0x90) return 0;   // overlong
    if (c == 0xf4 && b(1) >= 0x90) return 0;  // past U+10FFFF
    return 4;
  }
  return 0;
}

void checkScenarioText(const std::string& text, const std::string& file) {
  if (text.size() > maxScenarioBytes) throw ScenarioError(file, 0, 0, sizeLimitText);
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '\0') failAt(text, file, i, "a NUL byte; a scenario is UTF-8 text");
    const std::size_t n = utf8Length(text, i);
    if (n == 0) failAt(text, file, i, "a byte that is not UTF-8; a scenario is UTF-8 text");
    i += n;
  }
  std::istringstream in(text);
  Events events(text, file);
  try {
    YAML::Parser parser(in);
    while (parser.HandleNextDocument(events)) {
    }
  } catch (const YAML::DeepRecursion& e) {
    throw ScenarioError(file, e.mark.line + 1, e.mark.column + 1,
                        "not valid YAML: nested too deep");
  } catch (const YAML::Exception& e) {
    throw ScenarioError(file, e.mark.line + 1, e.mark.column + 1, "not valid YAML: " + e.msg);
  }
}

std::string cannotWriteFile(const std::string& path) {
  if (path.empty()) return "an empty path";
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return "it is a folder";
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return std::strerror(errno);
  ::close(fd);
  return {};
}

std::string cannotWriteInFolder(const std::string& path) {
  if (path.empty()) return "an empty path";
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    return "it cannot be made: " + (ec ? ec.message() : std::string(std::strerror(errno)));
  }
  if (!S_ISDIR(st.st_mode)) return "it is not a folder";
  // Whoever may write anywhere (root) passes every permission test: only a file made tells.
  const std::string probe = path + "/.oba-evpn-sim-" + std::to_string(::getpid());
  const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return std::string("no file can be made in it: ") + std::strerror(errno);
  ::close(fd);
  ::unlink(probe.c_str());
  return {};
}

std::string readScenarioText(const std::string& path) {
  auto failWith = [&](const std::string& why) -> std::string {
    throw ScenarioError(path, 0, 0, "cannot read the file: " + why);
  };
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return failWith(std::strerror(errno));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) return failWith(std::strerror(errno));
  if (S_ISDIR(st.st_mode)) return failWith("it is a directory");
  if (S_ISREG(st.st_mode) && static_cast<std::uint64_t>(st.st_size) > maxScenarioBytes) {
    throw ScenarioError(path, 0, 0, sizeLimitText);
  }
  // Read up to one byte past the limit: a device or a pipe has no size to check beforehand.
  std::string text;
  char buf[65536];
  for (;;) {
    const ssize_t got = ::read(fd, buf, sizeof buf);
    if (got < 0) {
      if (errno == EINTR) continue;
      return failWith(std::strerror(errno));
    }
    if (got == 0) break;
    text.append(buf, static_cast<std::size_t>(got));
    if (text.size() > maxScenarioBytes) throw ScenarioError(path, 0, 0, sizeLimitText);
  }
  return text;
}

}  // namespace Sim
