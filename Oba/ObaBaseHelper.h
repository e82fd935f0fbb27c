#pragma once
// The root of every chip helper: a named, counted object through which the state machines reach
// the hardware. The chip layer derives from one of the helper interfaces (Oba/ObaHelpers.h) and
// overrides its operations; the interfaces' own operations only report that they are not
// implemented.
//
//   class MyChipFloodingHelper : public ObaHelper::EvpnFloodingSmHelper { ... };
//
// A base operation quietly returns its default when the agent runs without hardware (the
// environment variable OBA_NOOP_AGENT is set, to any value), and otherwise aborts through
// obaAssert() with "Unimplemented <operation>". The helpers themselves have nothing to watch; the
// recording stubs (Oba/ObaHelperStubs.h) carry the watched attributes and their notifiee lists.

#include "Kiv/Ptr.h"
#include "Kiv/Types.h"
#include "Oba/ObaExport.h"

namespace Oba {

class OBA_EXPORT ObaBaseHelper : public Kiv::PtrInterface {
 public:
  explicit ObaBaseHelper(Kiv::Name name);
  ObaBaseHelper(const ObaBaseHelper&) = delete;
  ObaBaseHelper& operator=(const ObaBaseHelper&) = delete;
  virtual ~ObaBaseHelper();

  const Kiv::Name& name() const { return name_; }

  // Writes the message and a newline to standard error, then fails the assertion "0" in
  // ObaCommon at line 25: the agent aborts.
  [[noreturn]] static void obaAssert(Kiv::String message);

 protected:
  // True when the agent runs without hardware. Read on every call, not cached, so that the
  // setting is the one in force when the operation is reached.
  static bool noopAgent();

 private:
  Kiv::Name name_;
};

}  // namespace Oba
