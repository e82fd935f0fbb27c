#include "Shoal/Table.h"

namespace Shoal {

std::ostream& operator<<(std::ostream& os, MountState s) {
  switch (s) {
    case MountState::unmounted:
      return os << "unmounted";
    case MountState::mounted:
      return os << "mounted";
    case MountState::failed:
      return os << "failed";
  }
  return os << "MountState(" << static_cast<int>(s) << ")";
}

std::ostream& operator<<(std::ostream& os, Role r) {
  return os << (r == Role::writer ? "writer" : "reader");
}

}  // namespace Shoal
