// The people and processes of this machine.
#pragma once

#include <memory>

#include "HalvoHelperCore/SessionProbe.hpp"

namespace halvo {

// A probe that asks the system. Nothing is logged, nothing thrown; allocates nothing while what it
// looked at before is unchanged. One source per system. Main queue only.
//
// On macOS the console is that of SCDynamicStoreCopyConsoleUser (SystemConfiguration), which
// allocates; the processes are those of libproc.h, and one counts when its executable's path is the
// bundle's and its effective user is the one asked about.
//
// On Linux the console is seat0 (sd-login(3)): its active session, of class "user". While that
// session is closing, it counts as left, but for no longer than an announced end of the session is
// waited for (HelperEngine::Timing::sessionEndGrace): a program that is left behind keeps a session
// closing, and at the seat, for as long as it likes. The time counts, through sleep, from when the
// person was first seen there in a closing session after they had one that was not, or earlier in
// this very session.
//
// The processes are those of /proc (proc(5)): one counts when its executable's path is the
// bundle's, that file is the very one at the path (a mount namespace can forge a path), and its
// effective user is the one asked about. A process that was stopped counts, one that has ended but
// was not waited for does not.
//
// The executable of a bundle is the one that its Info.plist names, else "Contents/MacOS/Halvo" in
// it. Paths are compared as bytes.
std::unique_ptr<SessionProbe> makeLiveSessionProbe();

}  // namespace halvo
