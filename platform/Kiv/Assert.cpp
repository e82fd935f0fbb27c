#include "Kiv/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kiv {

void assertionFailed(const char* condition, const char* source, int line) {
  std::fprintf(stderr, "assertion \"%s\" failed at %s:%d\n", condition, source, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kiv
