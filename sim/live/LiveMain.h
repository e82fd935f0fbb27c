#pragma once
// `oba-evpn-sim live CONFIG [options]`: the agent over the software chip, driven by a BGP
// speaker's EVPN table in real time (sim/live/Session.h).

namespace Live {

int liveMain(int argc, char** argv);

}  // namespace Live
