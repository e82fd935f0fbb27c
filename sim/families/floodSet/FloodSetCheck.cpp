#include "sim/families/floodSet/FloodSetCheck.h"

#include <algorithm>
#include <map>
#include <set>

#include "sim/ChipLink.h"

namespace Sim {

namespace {

// Lines of `want` missing from `got` and lines of `got` not wanted, each said once.
std::vector<std::string> diff(std::vector<std::string> want, std::vector<std::string> got) {
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  std::vector<std::string> out;
  std::vector<std::string> missing, extra;
  std::set_difference(want.begin(), want.end(), got.begin(), got.end(),
                      std::back_inserter(missing));
  std::set_difference(got.begin(), got.end(), want.begin(), want.end(), std::back_inserter(extra));
  for (auto& l : missing) out.push_back("missing: " + l);
  for (auto& l : extra) out.push_back("unexpected: " + l);
  return out;
}

}  // namespace

std::vector<std::string> expectedMplsFloodSetLines(const FloodSetAgent& f) {
  // The RIB's flood sets with every destination of another type left out; a flood set left
  // without destinations is no flood set.
  std::vector<std::string> out;
  for (auto [vlan, v] : f.l2RibFloodSet->vlanFloodSetWalk()) {
    for (auto [mac, fs] : v->floodSetWalk()) {
      for (auto [dest, value] : fs->destSetWalk()) {
        if (dest.destType() != L2Rib::destTypeMpls_) continue;
        out.push_back(chipText(Bridging::MacVlanPair{vlan, mac}.text().view(), " ",
                               dest.text().view(), value ? "" : " (false)"));
      }
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::optional<CheckFailure> checkFloodSets(const FloodSetAgent& f, Counters* counters) {
  if (auto d = diff(expectedMplsFloodSetLines(f), f.mplsFloodSetLines()); !d.empty()) {
    return CheckFailure{"mplsFloodSet", std::move(d)};
  }
  // The chip has acted on every change of the configuration: it reports every configured member
  // and nothing else, and its lists hold exactly the members it reports programmed.
  std::vector<std::string> reported, programmed;
  for (auto [list, s] : f.hwStatus->statusWalk()) {
    for (auto [m, rc] : s->mplsDestStatusWalk()) {
      reported.push_back(memberLine(list, m));
      if (rc == Oba::HwProgrammingStatus::programmed) {
        programmed.push_back(memberLine(list, m));
      } else if (counters) {
        ++(*counters)["refusedMember"];
      }
    }
  }
  if (auto d = diff(f.configLines(), reported); !d.empty()) {
    for (auto& l : d) l = "status " + l;
    return CheckFailure{"floodListStatus", std::move(d)};
  }
  if (auto d = diff(programmed, f.listLines()); !d.empty()) {
    return CheckFailure{"floodLists", std::move(d)};
  }
  return std::nullopt;
}

}  // namespace Sim
