#include "Kiv/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiv {

namespace {
int throwing = 0;
}

AssertionFailure::AssertionFailure(const char* condition, const char* source, int line)
    : condition_(condition),
      source_(source),
      line_(line),
      text_(std::string("assertion \"") + condition + "\" failed at " + source + ":" +
            std::to_string(line)) {}

ThrowingAssertions::ThrowingAssertions() { ++throwing; }
ThrowingAssertions::~ThrowingAssertions() { --throwing; }

void assertionFailed(const char* condition, const char* source, int line) {
  if (throwing) throw AssertionFailure(condition, source, line);
  std::fprintf(stderr, "assertion \"%s\" failed at %s:%d\n", condition, source, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
