// The console user and the processes of this machine.
#pragma once

#include <memory>

#include "HalvoHelperCore/SessionProbe.hpp"

namespace halvo {

// A probe that asks the system. Logs and throws nothing; allocates nothing while the files that it
// read before are unchanged. Main queue only. One source per system.
//
// On macOS the console is that of SCDynamicStoreCopyConsoleUser (SystemConfiguration), which
// allocates; the processes are those of libproc.h, and one counts when its executable's path is the
// bundle's and its effective user is the one asked about.
//
// On Linux the console is seat0 (sd-login(3)): its active session, of class "user". A session that
// is closing counts as left, but for no longer than HelperEngine::Timing::sessionEndGrace: a
// process that is left behind keeps a session closing, and active, for as long as it runs. The time
// counts, through sleep, from when the user was first seen in a closing session since they last had
// one that was not, or from when this session was first seen closing, whichever is earlier.
//
// The processes are those of /proc (proc(5)): one counts when its executable's path is the
// bundle's, that file is the same as the one at the path (a mount namespace can forge a path), and
// its effective user is the one asked about. A stopped process counts, a zombie does not.
//
// The executable of a bundle is the one that its Info.plist names, else "Contents/MacOS/Halvo" in
// it. Paths are compared as bytes.
std::unique_ptr<SessionProbe> makeLiveSessionProbe();

}  // namespace halvo
