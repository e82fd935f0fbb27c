#include "sim/families/macFec/MacFecCheck.h"

#include <algorithm>
#include <sstream>

namespace Sim {

using L2Rib::ObjTuple;
using Shoal::Fib::FecId;

namespace {

template <class... Args>
std::string line(const Args&... args) {
  return macText(args...);
}

using TunnelId = Tunnel::TunnelTable::TunnelId;

MacVia via(std::size_t i, Quil::MplsLabel label, TunnelId tunnel, ObjTuple fecOf = ObjTuple()) {
  return MacVia{static_cast<std::uint32_t>(i), label, tunnel, fecOf, FecId()};
}

// The tables as plain maps, read by walking (which no corrupt mark stops).
struct Rib {
  std::map<ObjTuple, L2Rib::Label> labels;
  std::map<ObjTuple, L2Rib::LoadBalance> lbs;
  std::map<ObjTuple, TunnelId> tunnels;  // per destination
  std::map<Bridging::MacVlanPair, ObjTuple> hosts;

  TunnelId tunnelOf(const ObjTuple& d) const {
    auto it = tunnels.find(d);
    return it == tunnels.end() ? TunnelId() : it->second;
  }
};

// The `fecs` table's line for an object: "label/1 requested via(...)".
std::string fecLine(const ObjTuple& t, bool requested, const std::vector<MacVia>& vias) {
  std::string s = line(t, requested ? " requested" : "");
  if (vias.empty()) s += " no vias";
  for (const auto& v : vias) s += " " + macViaText(v);
  return s;
}

}  // namespace

std::string macViaText(const MacVia& v) {
  std::string s = line("via(", v.index, ", ", v.label, ", ");
  if (v.fecOf.tableType() != L2Rib::tableTypeNone_) {
    s += line("fec of ", v.fecOf);
  } else if (v.unownedFec.value() != 0) {
    s += line("fec ", v.unownedFec);
  } else if (v.tunnel.isValid()) {
    s += line(v.tunnel);
  } else {
    s += "none";
  }
  s += ")";
  return s;
}

MacFecExpected expectedMacFecs(const L2Rib::LabelOutput& labels,
                               const L2Rib::LoadBalanceOutput& lbs, const L2Rib::DestOutput& dests,
                               const L2Rib::HostOutput& hosts, std::uint32_t maxChainLength) {
  Rib rib;
  for (auto&& e : labels.labelWalk()) rib.labels.emplace(ObjTuple::label(e.key), e.value);
  for (auto&& e : lbs.loadBalanceWalk()) rib.lbs.emplace(ObjTuple::loadBalance(e.key), e.value);
  for (auto&& e : dests.destWalk()) rib.tunnels.emplace(ObjTuple::dest(e.key), e.value.tunnel());
  for (auto&& e : hosts.hostWalk()) rib.hosts.emplace(e.key, e.value.objTuple());

  MacFecExpected out;
  // Hosts reach their destinations through a label or a load balance: those head the chains.
  for (const auto& [host, t] : rib.hosts) {
    if (t.tableType() == L2Rib::tableTypeDest_) continue;
    out.heads.insert(t);
    if (!rib.labels.contains(t) && !rib.lbs.contains(t)) out.absentHeads.insert(t);
  }
  std::set<ObjTuple> withFec = out.heads;
  if (maxChainLength == 3) {
    // Three-level chains give every label and load balance its own FEC.
    for (const auto& [t, l] : rib.labels) withFec.insert(t);
    for (const auto& [t, b] : rib.lbs) withFec.insert(t);
  }
  for (const ObjTuple& t : withFec) {
    std::vector<MacVia> vias;
    if (auto l = rib.labels.find(t); l != rib.labels.end()) {
      const ObjTuple next = l->second.next();
      const Quil::MplsLabel mpls = l->second.mplsLabel();
      if (next.tableType() == L2Rib::tableTypeDest_) {
        vias.push_back(via(0, mpls, rib.tunnelOf(next)));
      } else if (next.tableType() == L2Rib::tableTypeLoadBalance_ && maxChainLength == 3) {
        // Through the load balance's own FEC.
        if (rib.lbs.contains(next)) {
          vias.push_back(via(0, mpls, TunnelId(), next));
        } else {
          vias.push_back(via(0, mpls, TunnelId()));
          out.overAbsentLb.emplace(t, next);
        }
      } else if (auto b = rib.lbs.find(next); b != rib.lbs.end()) {
        // The label over each path of the load balance.
        for (std::size_t i = 0; i < b->second.next().size(); ++i) {
          vias.push_back(via(i, mpls, rib.tunnelOf(b->second.next()[i])));
        }
      }
    } else if (auto b = rib.lbs.find(t); b != rib.lbs.end()) {
      auto& labelAt = out.labelPositions[t];
      for (std::size_t i = 0; i < b->second.next().size(); ++i) {
        const ObjTuple member = b->second.next()[i];
        labelAt.push_back(member.tableType() == L2Rib::tableTypeLabel_);
        if (member.tableType() != L2Rib::tableTypeLabel_) {
          vias.push_back(via(i, Quil::MplsLabel(), rib.tunnelOf(member)));
          continue;
        }
        // A label under a load balance is followed down to its destination.
        auto l = rib.labels.find(member);
        if (l == rib.labels.end()) {
          vias.push_back(via(i, Quil::MplsLabel(), TunnelId()));
        } else {
          vias.push_back(via(i, l->second.mplsLabel(), rib.tunnelOf(l->second.next())));
        }
      }
    }
    // An object the RIB does not have: a FEC without vias.
    out.vias.emplace(t, std::move(vias));
  }
  return out;
}

namespace {

// Everything the checks compare, computed once.
struct Comparison {
  std::vector<std::string> fecDiffs, resultDiffs, chipDiffs;
  std::vector<std::string> fecs, result, chip;  // what a replay must find
};

bool rowPresent(const MacFecAgent& f, const ObjTuple& t) {
  switch (t.tableType()) {
    case L2Rib::tableTypeLabel_:
      for (auto&& e : f.labels->labelWalk()) {
        if (e.key == t.labelId()) return true;
      }
      return false;
    case L2Rib::tableTypeLoadBalance_:
      for (auto&& e : f.lbs->loadBalanceWalk()) {
        if (e.key == t.loadBalanceId()) return true;
      }
      return false;
    default:
      return false;
  }
}

}  // namespace

std::uint32_t answeredHwFecId(const MacFecAgent& f, const MacFecExpected& want,
                              const std::map<ObjTuple, FecId>& fecIdOf, const ObjTuple& t) {
  const auto id = fecIdOf.find(t);
  if (id == fecIdOf.end() || !want.heads.contains(t)) return 0;
  return f.chip->hwFecIdOf(f.writer, id->second);
}

namespace {

// `lines`: also the lines a replay must find (only a written failing run needs them).
Comparison compare(const MacFecAgent& f, Counters* allowances, bool lines) {
  auto allow = [&](const char* name) {
    if (allowances) ++(*allowances)[name];
  };
  Comparison out;
  const std::uint32_t chain = f.maxChainLength();
  MacFecExpected want = expectedMacFecs(*f.labels, *f.lbs, *f.dests, *f.hosts, chain);
  const Oba::FecIdToHwFecIdRequest& req = *f.request;

  // What the request entity holds, per owner.
  std::map<ObjTuple, FecId> fecIdOf;
  std::map<FecId, ObjTuple> ownerOf;
  for (auto&& e : req.objTupleToFecIdWalk()) {
    fecIdOf.emplace(e.key, e.value.fecId());
    ownerOf.emplace(e.value.fecId(), e.key);
  }
  std::map<ObjTuple, std::vector<MacVia>> have;
  for (const auto& [t, id] : fecIdOf) {
    auto fec = req.fec(id);
    auto& vias = have[t];
    if (!fec.found) {
      out.fecDiffs.push_back(line(t, ": ", id, " has no fec row"));
      continue;
    }
    for (const auto& v : fec.row.via()) {
      MacVia m = via(v.index().value(), v.mplsLabel(), v.tunnelId());
      if (v.fecId().value() != 0) {
        m.tunnel = TunnelId();
        auto o = ownerOf.find(v.fecId());
        if (o == ownerOf.end()) {
          m.unownedFec = v.fecId();
        } else {
          m.fecOf = o->second;
        }
      }
      vias.push_back(m);
    }
  }
  for (auto&& e : req.fecWalk()) {
    if (!ownerOf.contains(e.key)) out.fecDiffs.push_back(line(e.key, ": a FEC nobody owns"));
  }

  // A label over a load balance the RIB lacks names the load balance's FEC only while it has
  // one (see absentHeads).
  for (const auto& [t, b] : want.overAbsentLb) {
    if (have.contains(b)) want.vias.at(t).at(0).fecOf = b;
  }

  // FECs and their vias.
  std::set<ObjTuple> objects;
  for (const auto& [t, v] : want.vias) objects.insert(t);
  for (const auto& [t, v] : have) objects.insert(t);
  for (const ObjTuple& t : objects) {
    const auto w = want.vias.find(t);
    const auto h = have.find(t);
    const bool requested = want.heads.contains(t);
    if (w != want.vias.end() && h != have.end() && w->second == h->second) {
      if (lines) out.fecs.push_back(fecLine(t, requested, w->second));
      continue;
    }
    if (w != want.vias.end() && h != have.end() && chain == 3 &&
        w->second.size() == h->second.size() && want.labelPositions.contains(t)) {
      // A load balance keeps the label and tunnel of a label it lists that merely changed.
      const auto& labelAt = want.labelPositions.at(t);
      bool onlyLabels = true;
      for (std::size_t i = 0; i < labelAt.size(); ++i) {
        if (!labelAt[i] && w->second[i] != h->second[i]) onlyLabels = false;
      }
      if (onlyLabels) {
        allow("staleFlattenedLabel");
        if (lines) out.fecs.push_back(fecLine(t, requested, h->second));
        continue;
      }
    }
    if (h == have.end() && want.absentHeads.contains(t)) {
      // The machine saw the head's row go and took its FEC and request away.
      allow("goneHead");
      continue;
    }
    if (w == want.vias.end() && h != have.end() && chain == 3 && h->second.empty() &&
        !rowPresent(f, t) && !requested) {
      // An object gone before the machine knew it: built from the default row and kept.
      allow("emptyLeftover");
      if (lines) out.fecs.push_back(fecLine(t, false, h->second));
      continue;
    }
    if (lines && w != want.vias.end()) out.fecs.push_back(fecLine(t, requested, w->second));
    auto text = [](const auto& it, const auto& end) {
      if (it == end) return std::string("none");
      std::string s;
      for (const auto& v : it->second) s += (s.empty() ? "" : " ") + macViaText(v);
      return s.empty() ? std::string("no vias") : s;
    };
    out.fecDiffs.push_back(
        line(t, ": expected ", text(w, want.vias.end()), ", actual ", text(h, have.end())));
  }

  // The requests: exactly the heads.
  std::set<ObjTuple> requestedOwners;
  for (auto&& e : req.hwFecIdRequestWalk()) {
    auto o = ownerOf.find(e.key);
    if (o == ownerOf.end()) {
      out.fecDiffs.push_back(line("request ", e.key, ": no owner"));
      continue;
    }
    requestedOwners.insert(o->second);
    if (!want.heads.contains(o->second)) {
      out.fecDiffs.push_back(line(o->second, ": requested, but no host points at it"));
    }
  }
  for (const ObjTuple& t : want.heads) {
    if (requestedOwners.contains(t)) continue;
    if (want.absentHeads.contains(t) && !fecIdOf.contains(t)) continue;
    out.fecDiffs.push_back(line(t, ": not requested"));
  }

  // The result: a head answered by the chip has the chip's id.
  std::map<ObjTuple, std::uint64_t> result;
  for (auto&& e : f.result->hwIdWalk()) result.emplace(e.key, e.value);
  for (const auto& [t, hw] : result) {
    if (answeredHwFecId(f, want, fecIdOf, t) != 0) continue;
    // Its request went (or waits for a new answer) after the chip had answered it: the row keeps
    // that answer's id, and no other.
    if (lines) out.result.push_back(line(t, " -> ", hw));
    if (f.lastAnswer(t) == hw) {
      allow("staleResult");
    } else {
      out.resultDiffs.push_back(
          line(t, ": result hw ", hw, " without an answer; the last answer was ",
               f.lastAnswer(t) ? line(f.lastAnswer(t)) : std::string("none")));
    }
  }
  for (const ObjTuple& t : want.heads) {
    const auto id = fecIdOf.find(t);
    if (id == fecIdOf.end()) continue;
    const std::uint32_t answered = f.chip->hwFecIdOf(f.writer, id->second);
    if (answered == 0) continue;
    if (lines) out.result.push_back(line(t, " -> ", answered));
    const auto r = result.find(t);
    if (r == result.end() || r->second != answered) {
      out.resultDiffs.push_back(line(t, ": expected hw ", answered, ", actual ",
                                     r == result.end() ? std::string("none") : line(r->second)));
    }
  }
  std::sort(out.result.begin(), out.result.end());

  // The chip: every request answered, unless no id is free or a rule refuses.
  const std::uint32_t free = f.chip->freeHwFecId();
  for (auto&& e : req.hwFecIdRequestWalk()) {
    if (f.chip->hwFecIdOf(f.writer, e.key) != 0) continue;
    if (free != 0 && f.agent.chip->refusals() == 0) {
      out.chipDiffs.push_back(
          line("request ", e.key, " unanswered while hw FEC id ", free, " is free"));
    }
  }
  if (lines) {
    for (const auto& [hw, a] : f.chip->answers()) {
      if (std::string_view(a.writer) == f.writer && !req.hwFecIdRequest(a.fecId).found) continue;
      out.chip.push_back(line("hw ", hw, " ", a.writer, " ", a.fecId));
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> macFecLedger(const MacFecAgent& f) {
  std::vector<std::string> out;
  if (!f.sm) return out;
  std::set<FecId> held;
  for (auto&& e : f.request->objTupleToFecIdWalk()) {
    if (e.value.fecId() != FecId::invalid()) held.insert(e.value.fecId());
  }
  const std::uint64_t allocated = f.sm->numAllocatorStatus()->allocated();
  if (allocated != held.size()) {
    out.push_back(line("FEC number allocator: ", allocated, " numbers allocated, ", held.size(),
                       " FEC ids held"));
  }
  return out;
}

std::optional<CheckFailure> checkMacFec(const MacFecAgent& agent, Counters* allowances) {
  Comparison c = compare(agent, allowances, false);
  if (!c.fecDiffs.empty()) return CheckFailure{"fecs", std::move(c.fecDiffs)};
  if (!c.resultDiffs.empty()) return CheckFailure{"macFec result", std::move(c.resultDiffs)};
  if (!c.chipDiffs.empty()) return CheckFailure{"fecChip", std::move(c.chipDiffs)};
  return std::nullopt;
}

std::vector<std::pair<std::string, std::vector<std::string>>> macFecExpectations(
    const MacFecAgent& agent) {
  Comparison c = compare(agent, nullptr, true);
  return {{"fecs", c.fecs}, {"objTupleToHwId", c.result}, {"fecChip", c.chip}};
}

}  // namespace Sim
