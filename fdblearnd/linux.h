// fdblearnd --linux: the entries of the answering side made from the kernel's
// own VXLAN devices in bridges, instead of a state file. For every bridge
// holding a VXLAN device with a VNI (the bridge domain):
//
//   RTB        the table of the bridge's VRF, else 254 (as rtsockd --linux)
//   VNI        the VXLAN device's
//   VTEP       one entry for each IPv4 remote VTEP the device knows (its
//              unicast remote, and the dst of its forwarding entries), and
//              one for any VTEP; all those naming a VTEP come first
//   NAME       the bridge's name
//   IFL_INDEX  the VXLAN device's index: the interface toward remote VTEPs
#pragma once

#include "nlstate/nlstate.h"
#include "state.h"

namespace fdblearnd {

State from_kernel(const nlstate::State &kernel);

}  // namespace fdblearnd
