#pragma once
// The time source handed to allocators and review tasks: one place that says what "now" is, so a
// component can be run over a virtual clock in tests and over the monotonic clock on a switch.
//
//   auto wheel = Mox::TimerWheel::TimerWheelIs(clock);
//   Kiv::Seconds t = wheel->now();

#include <utility>

#include "Kiv/Clock.h"
#include "Kiv/Ptr.h"

namespace Mox {

class TimerWheel : public Kiv::PtrInterface {
 public:
  explicit TimerWheel(Kiv::Ptr<Kiv::Clock> clock) : clock_(std::move(clock)) {}
  static Kiv::Ptr<TimerWheel> TimerWheelIs(Kiv::Ptr<Kiv::Clock> clock) {
    return new TimerWheel(std::move(clock));
  }

  const Kiv::Ptr<Kiv::Clock>& clock() const { return clock_; }
  Kiv::Seconds now() const { return clock_->now(); }

 private:
  Kiv::Ptr<Kiv::Clock> clock_;
};

}  // namespace Mox
