// The machine families of the simulator, in the order the agent starts them: a family's machines
// may read what an earlier family's machines write. One line per family.
#include "sim/Family.h"
#include "sim/families/dot1qDecap/Dot1qDecapFamily.h"
#include "sim/families/fec/FecFamily.h"
#include "sim/families/floodSet/FloodSetFamily.h"
#include "sim/families/macFec/MacFecFamily.h"
#include "sim/families/tunnelEsi/TunnelEsiFamily.h"

namespace Sim {

const Families& registeredFamilies() {
  static const Families families{
      &tunnelEsiFamily(), &dot1qDecapFamily(), &fecFamily(), &macFecFamily(), &floodSetFamily(),
  };
  return families;
}

}  // namespace Sim
