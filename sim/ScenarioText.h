#pragma once
// The text of a scenario file, checked before its YAML tree is built: what the YAML library would
// take silently but a scenario must not say (a second document, a key given twice, an alias, an
// unterminated quoted string, a NUL byte or invalid UTF-8), and the size limit. Each refusal is a
// ScenarioError with the file, the line and the column.

#include <cstddef>
#include <string>
#include <string_view>

namespace Sim {

// The file's bytes, at most maxScenarioBytes; a file that cannot be read, a directory or a larger
// file is refused with the reason.
std::string readScenarioText(const std::string& path);

// Where the simulator writes (a picture, a folder of pictures, a failing run): what stops it, told
// before anything runs, or empty when nothing does. A file is opened for writing (made if missing,
// not emptied); a folder is made if missing, and a file made in it and removed again.
std::string cannotWriteFile(const std::string& path);
std::string cannotWriteInFolder(const std::string& path);

// The length of the UTF-8 sequence that starts at `at`, or 0 where none does (overlong forms,
// surrogates and code points past U+10FFFF are none).
std::size_t utf8Length(std::string_view s, std::size_t at);

// Refuses a text that is too large, is not UTF-8, or whose YAML is not one plain document.
void checkScenarioText(const std::string& text, const std::string& file);

}  // namespace Sim
