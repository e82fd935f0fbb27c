#pragma once
// The FEC number allocator of a machine that gives out FEC ids: its configuration, its status and
// the allocator itself, which the machine makes in handleInitialized:
//
//   numAllocatorConfigIs(range);
//   numAllocatorStatusIs();
//   numAllocatorIs(numAllocatorConfig(), numAllocatorStatus(), timerWheel()->clock());
//
// A released number is held back for fecNumberExpiryTime, so that a reference the chip still holds
// to the old FEC can never meet a new FEC of the same number. Making the allocator again starts it
// afresh: every number is free.

#include "Kiv/Clock.h"
#include "Kiv/Digest.h"
#include "Kiv/Ptr.h"
#include "Mox/NumAllocator.h"
#include "Oba/ObaExport.h"

namespace Oba {

class OBA_EXPORT FecNumberAllocation {
 public:
  static constexpr Kiv::Seconds fecNumberExpiryTime = 10.0;

  const Kiv::Ptr<Mox::NumAllocatorConfig>& numAllocatorConfig() const { return numConfig_; }
  const Kiv::Ptr<Mox::NumAllocatorStatus>& numAllocatorStatus() const { return numStatus_; }
  const Kiv::Ptr<Mox::NumAllocator>& numAllocator() const { return numAllocator_; }
  void numAllocatorConfigIs(Mox::Range range) {
    numConfig_ = new Mox::NumAllocatorConfig;
    numConfig_->rangeIs(range);
    numConfig_->expiryTimeIs(fecNumberExpiryTime);
  }
  void numAllocatorStatusIs() { numStatus_ = new Mox::NumAllocatorStatus; }
  void numAllocatorIs(const Kiv::Ptr<Mox::NumAllocatorConfig>& config,
                      const Kiv::Ptr<Mox::NumAllocatorStatus>& status,
                      const Kiv::Ptr<Kiv::Clock>& clock) {
    numAllocator_ = Mox::NumAllocator::NumAllocatorIs(config, status, clock);
  }

 private:
  Kiv::Ptr<Mox::NumAllocatorConfig> numConfig_;
  Kiv::Ptr<Mox::NumAllocatorStatus> numStatus_;
  Kiv::Ptr<Mox::NumAllocator> numAllocator_;
  // What it will hand out next is the machine's state too.
  KIV_DIGEST_FIELD_(numAllocator, numAllocator_)
};

}  // namespace Oba
