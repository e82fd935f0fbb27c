#pragma once
// Time as the framework sees it: seconds as a double, read from a Kiv::Clock.
//
// Tests and the simulator use a VirtualClock that moves only when told to, so every run is
// deterministic; an agent on a switch uses the MonotonicClock.

#include "Kiv/Ptr.h"

namespace Kiv {

using Seconds = double;

class Clock : public PtrInterface {
 public:
  virtual Seconds now() const = 0;
};

class VirtualClock : public Clock {
 public:
  explicit VirtualClock(Seconds start = 0.0) : now_(start) {}
  Seconds now() const override { return now_; }
  // Time never runs backwards: a smaller value is ignored.
  void nowIs(Seconds t) {
    if (t > now_) now_ = t;
  }
  void advance(Seconds d) { nowIs(now_ + d); }

 private:
  Seconds now_;
};

class MonotonicClock : public Clock {
 public:
  MonotonicClock();
  // Seconds since this clock was made.
  Seconds now() const override;

 private:
  long long startNs_;
};

}  // namespace Kiv
