#include "tools/Halvoctl/Arguments.hpp"

namespace halvo::control {

const char* const helpText =
    R"(Usage: halvoctl COMMAND [WORDS]

For the administrator of a machine on which the Halvo helper is installed, the
root service that holds a person to Ultra Hard mode: their app stays locked and
open until the time is up.

Commands:
  status                  say what holds, for whom and until when
  doctor                  look whether everything is installed as it must be
  release                 let go of what holds, as root
  COMMAND --help          more about a command
  --version               print the version

Which app it is about stands in the Info.plist that lies with the program.

Examples:
  sudo halvoctl status
  sudo halvoctl doctor
  sudo halvoctl release

Exit status: 0 when it was done, 1 when doctor found a problem, 64 for wrong
words, 71 when the system refused, 74 when the output could not be written, 77
when it needs root, 78 when the Info.plist is missing or wrong.
)";

const char* const statusHelpText =
    R"(Usage: halvoctl status [--json]

Says what holds: for whom, until when, and how long that is from now; whether the
app's bundle is locked, and what happens next where that is not as it was stored;
whether the helper runs, and what starts it; and in which condition the state file
is. Changes nothing. Needs root, since only root can read the state file.

The time left is counted as the helper counts it, also while none runs.

  --json         print one JSON object, with its keys sorted

Members of the object; dates are ISO 8601 in UTC, spans are seconds:
  apps           the bundle of the record, else those found in /Applications; and
                 those of the app that carry a lock which no record owes:
                 "path"; "flag" is locked, unlocked or missing; "agrees" says
                 whether record and flag agree, "finding" and "next" in words how
  commitment     null, or "app" (its bundle), "holds" (false: it has run out and is
                 still stored), "left", "locked" (the helper locked the bundle and
                 owes the unlock), "started", "uid", "until", "user" (null when
                 there is no such user)
  helper         "identifier", "executable", "pids" of those that run, "starts":
                 in words what starts one, null while one runs; "stopped": the pids
                 of those that do nothing until they are told to go on (SIGCONT)
  now            when this was so
  salvaged       null, or what can be read of a damaged record: "app", "locked"
  stateFile      "path"; "condition" is whole, damaged, none, or unreadable, which
                 the helper takes for none
  version        of halvoctl and the helper that lies with it

Examples:
  sudo halvoctl status
  sudo halvoctl status --json | jq .commitment.until

Exit status: 0 whatever holds, 64 for wrong words, 74 when the output could not be
written, 77 without root, 78 when the Info.plist with the program is missing or
wrong.
)";

const char* const doctorHelpText =
    R"(Usage: halvoctl doctor [--json] [--app PATH]

Looks at everything that the helper needs, from the rights on its own files to the
app's private group, and says of each thing whether it is as it must be, and what to
do where it is not. Changes nothing. Without root some things cannot be looked at;
they are named.

  --app PATH     the app's bundle; else that of what holds, else those of the app
                 found in /Applications
  --json         print one JSON object, with its keys sorted

Members of the object: "problems" is how many there are, "checks" a list of objects
with "name"; "verdict", which is ok, problem, not applicable, or needs root;
"finding", in words; "advice", what to do, null where there is nothing.

Examples:
  sudo halvoctl doctor
  sudo halvoctl doctor --app /srv/Applications/Halvo.app

Exit status: 0 when there is no problem, 1 when there is one, 64 for wrong words, 74
when the output could not be written.
)";

const char* const releaseHelpText =
    R"(Usage: halvoctl release [--and-stop] [--bundle-gone]

Lets go of what holds, for everybody: stops the helper, unlocks the app's bundle,
removes what is stored, and lets the app call the helper again. Says what it did.
Where nothing holds it says so, and that is no failure.

A lock that no record owes, since the record was damaged or an unlock failed, goes
too, from each bundle in /Applications, or in another folder of root's called
Applications where the helper may lock, that is the app's own: it, its Contents and
its Info.plist belong to root, nobody else can write them, and they name the app and
the team of the helper. What another bundle carries is left alone.

The bundle is unlocked before the record of it is removed, so that no bundle stays
locked for good: when it is interrupted, run it again. It waits at most a minute, and
another minute for a release that runs already, and says so after a second.

  --and-stop     leave the helper stopped, so that the app cannot call it: before it is
                 removed. When release fails, all is as without this.
  --bundle-gone  forget the lock too when the bundle is not at its place: it is gone
                 for good. Without this the record of a bundle that cannot be
                 reached is kept: its disk may come back, and the lock with it.

Needs root. Who is bound by Ultra Hard mode should not have it.

Examples:
  sudo halvoctl release
  sudo halvoctl release --and-stop

Exit status: 0 when nothing holds any more, 64 for wrong words, 71 when the helper
could not be stopped or started again, or the bundle could not be unlocked (the
message says what to do), 74 when the output could not be written, 77 without root,
78 when the Info.plist with the program is missing or wrong.
)";

}  // namespace halvo::control
