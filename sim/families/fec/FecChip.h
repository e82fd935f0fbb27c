#pragma once
// The chip's FEC table, shared by every family whose machines ask the chip layer for hardware FEC
// ids through a request/response entity pair (the MAC-address FEC machine, the flood-set FEC
// machine). One hardware FEC id space serves every registered requester:
//
//   auto fecs = Sim::FecChip::FecChipIs(agent);          // the fec family's part makes it
//   fecs->requesterIs(request, response, "macFec");      // the requester's pair, and its name
//   fecs->capacityIs(4);                                 // hardware FEC ids 1..4
//   fecs->latencyIs(0.25);                               // answers a quarter second later
//
// The chip watches each requester's `hwFecIdRequest` table. For each request it answers in the
// response's `hwFecId` table with the lowest free hardware FEC id (and, when the request wants one,
// the layer-2 interface of that FEC in `l2IntfId`), `latency` seconds after the request was
// written (0: in the loop's next turn, never inside the requester's own write, as a chip layer in
// another process would). A request it cannot serve (no id free, or refused by a chipRefuse rule
// for `hwFecId`) waits and is tried again every `retryInterval`. When a request goes, the answer is
// withdrawn (its row deleted) and the id goes back, after the same latency. `withdraw(hw)` takes an
// answer back on request, as a chip that lost the FEC would; the request then waits for a new one.
//
// Its ledger: a request for a FEC id the requester's `fec` table does not define, an answer
// withdrawn when it was already gone, and (ledger()) every id still held for a request that is gone
// or handed out and released out of balance.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Mox/TaskScheduler.h"
#include "Mox/TimerTask.h"
#include "Oba/ObaFecRecords.h"
#include "Quil/IntfId.h"
#include "sim/Family.h"
#include "sim/SoftwareChip.h"

namespace Sim {

class HostAgent;

class FecChip : public SoftwareChip::Part {
 public:
  using FecId = Shoal::Fib::FecId;

  static constexpr double retryIntervalDefault = 1.0;
  static constexpr std::uint32_t capacityDefault = 4096;

  // A FEC table in the agent's chip (the fec family's part makes the agent's one).
  static Kiv::Ptr<FecChip> FecChipIs(HostAgent& agent);
  // The chip operation a chipRefuse rule names to refuse answers: `hwFecId`.
  static ChipOperation refuseOperation();

  // A requester: the entity its machine writes, the one the chip answers in (the chip is its
  // writer), and the name the log and the tables give it. Its requests already present are
  // answered as if just written.
  void requesterIs(const Kiv::Ptr<const Oba::FecIdToHwFecIdRequest>& request,
                   const Kiv::Ptr<Oba::FecIdToHwFecIdResponse>& response, const char* writer);

  // Hardware FEC ids 1..capacity. Shrinking leaves the ids in use alone.
  void capacityIs(std::uint32_t n);
  std::uint32_t capacity() const { return capacity_; }
  void latencyIs(double seconds) { latency_ = seconds; }
  double latency() const { return latency_; }
  // Takes back the answer holding hardware id `hw` (nothing when no answer holds it): the row is
  // deleted, the id freed, and the request waits for a new answer.
  void withdraw(std::uint32_t hw);
  // Moves the answer holding hardware id `hw` to the lowest free id and answers again in place (a
  // chip that reallocates a FEC): the requester sees the FEC's hardware id (and layer-2
  // interface) change, and the old id goes back. Nothing when no answer holds `hw`, when its
  // request is gone (the answer is being withdrawn: a requester that hears the move then takes
  // it for a stale answer and keeps the old id for a FEC it may ask for again at once), or when
  // no id is free.
  void renumber(std::uint32_t hw);
  // Takes back the layer-2 interface of the answer holding hardware id `hw` and keeps the id: a
  // chip layer whose interface for the FEC never comes, so the answer is never ready for a
  // requester that wants one. Nothing when no answer holds `hw` or it has no interface.
  void withholdIntf(std::uint32_t hw);
  // Another of the chip's tables that may still use a hardware FEC id after its answer went (a
  // flood list whose member the chip has not removed yet): the table does not hand such an id out
  // again until that table lets go of it too, as a chip must not point a new FEC's traffic at
  // entries that still name the old one.
  void heldElsewhereIs(std::function<bool(std::uint32_t)> held) { heldElsewhere_.push_back(held); }
  // Such a table let go of hardware id `hw`: the requests waiting for an id try again.
  void releasedElsewhere(std::uint32_t hw);

  // Test-only canary: every table made while this is n > 0 loses its n-th withdrawal (counted
  // from its making): the answer stays, row and id, as a chip layer that dropped it would.
  static void canaryLoseWithdrawalIs(std::uint64_t n) { canaryLoseWithdrawal_ = n; }
  static std::uint64_t canaryLoseWithdrawal() { return canaryLoseWithdrawal_; }

  // An answer the chip holds, by hardware id.
  struct Answer {
    const char* writer;
    FecId fecId;
  };
  const std::map<std::uint32_t, Answer>& answers() const { return answers_; }
  // The hardware id answered for a requester's FEC id, or 0.
  std::uint32_t hwFecIdOf(const char* writer, FecId fecId) const;
  // Requests that wait for an id or for a refusal to pass.
  std::size_t waiting() const { return waiting_.size(); }
  // Whether a requester's FEC id is one of them.
  bool waits(const char* writer, FecId fecId) const;
  // The lowest id of 1..capacity neither answered nor held by another table, or 0.
  std::uint32_t freeHwFecId() const;
  // Whether anything could still change without a new input: an answer or withdrawal due, or a
  // request waiting while an id is free.
  bool busy() const;

  // "hw 1 macFec FecId(0x800000000000001)", in id order.
  std::vector<std::string> lines() const;
  // What does not balance: an id held for a request that is gone (or never answered), an id
  // handed out and released out of step with whether it is held.
  std::vector<std::string> ledger() const;

  void reset() override;
  void digest(Kiv::Digest& d) const override;
  void detach() override;

  SoftwareChip& chip() const { return *chip_; }
  ~FecChip() override;

 private:
  class RequestWatch;
  class Task;
  struct Requester {
    Kiv::Ptr<const Oba::FecIdToHwFecIdRequest> request;
    Kiv::Ptr<Oba::FecIdToHwFecIdResponse> response;
    const char* writer;
    std::unique_ptr<RequestWatch> watch;
  };
  using Key = std::pair<std::size_t, FecId>;  // requester index, FEC id

  // The request whose answer holds hardware id `hw`, if one does.
  std::optional<Key> answerKey(std::uint32_t hw) const;

  FecChip(SoftwareChip* chip, const Kiv::Ptr<Mox::TaskScheduler>& scheduler);
  void changed(std::size_t requester, FecId fecId);
  void dueAt(const Key& key, double at);
  void run();
  void settle(const Key& key);
  void answer(const Key& key);
  void takeBack(const Key& key, bool stillRequested);
  void idCameBack();
  void tell(const Requester& r, const char* op, std::string text);

  SoftwareChip* chip_;
  Kiv::Ptr<Mox::TaskScheduler> scheduler_;
  Kiv::Ptr<Mox::TimerTask> task_;
  std::unique_ptr<Task> taskReactor_;
  std::vector<Requester> requesters_;

  std::uint32_t capacity_ = capacityDefault;
  double latency_ = 0;
  std::map<Key, double> due_;  // keys to settle, and when
  // Why each key is due, while causes are carried: the write of its request.
  std::map<Key, Kiv::Ptr<const Kiv::Cause>> requestCauses_;
  std::set<Key> waiting_;              // requests the chip could not serve yet
  std::map<Key, std::uint32_t> hwOf_;  // answered requests
  std::map<std::uint32_t, Answer> answers_;
  std::vector<std::function<bool(std::uint32_t)>> heldElsewhere_;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> idCounts_;  // per id: handed out, released

  static inline std::uint64_t canaryLoseWithdrawal_ = 0;
  const std::uint64_t loseWithdrawal_;
  std::uint64_t withdrawals_ = 0;
};

// The layer-2 interface the chip makes for hardware FEC `hw`: the dynamic tunnel interface
// DynTunnel254.<hw>.
Quil::IntfId fecL2Intf(std::uint32_t hw);

}  // namespace Sim
