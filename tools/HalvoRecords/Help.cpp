#include "tools/HalvoRecords/Arguments.hpp"

namespace halvo::records {

const char* const helpText =
    R"(Usage: halvo-records COMMAND [WORDS]

Looks into what the app's processes share: records, deep links, timelines.

Commands:
  show [FILE]...          print records so that a person can read them
  check FILE...           say of each file whether it is a record, else what is wrong
  link URL...             say what deep links lead to
  link --to SCREEN        print the deep link to a screen
  timeline [FILE]         print the dates at which a widget's picture changes
  COMMAND --help          more about a command
  --version               print the version

A FILE named keepalive.json or widgets.json is that record; of any other the
members tell. "-" is standard input. "--" ends the options.

Examples:
  halvo-records show
  halvo-records check ~/.local/share/*/widgets.json
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records timeline widgets.json --zone Europe/Berlin

Exit status: 0 when all is fine, 1 when a file is not what it should be (missing,
damaged), 64 for wrong words, 74 when the output could not be written.
)";

const char* const showHelpText =
    R"(Usage: halvo-records show [FILE]... [--kind KIND] [--zone ZONE] [--group GROUP] [--json]

Prints the records in the FILEs. Without a FILE, those in the app group's folder:
the keep-alive state and the widget snapshot.

  --kind KIND    which record it is: keepalive or widgets
  --zone ZONE    a time zone such as Europe/Berlin; else the system's
  --group GROUP  the app group whose folder is meant, when no FILE is named; the
                 folder is made when it is missing
  --json         print JSON with one member on a line; what the app does not know
                 is left out

Examples:
  halvo-records show --group com.example.app
  halvo-records show widgets.json --zone UTC
  ssh laptop cat widgets.json | halvo-records show - --json

Exit status: 0, 1 when a record cannot be read, 64 for wrong words, 74 when the
output could not be written.
)";

const char* const checkHelpText =
    R"(Usage: halvo-records check FILE... [--kind KIND]

Says of each FILE, on a line of its own, which record it holds, or where it is
wrong. What can be read and is suspicious all the same follows as remarks, which
do not change the exit status: phases that are not in order, runs that end before
their phase starts, a horizon before the writing, two days with one start.

  --kind KIND    which record it is: keepalive or widgets

Examples:
  halvo-records check keepalive.json widgets.json
  halvo-records check backup.json --kind widgets

Exit status: 0 when all are records, 1 when one is not, 64 for wrong words, 74
when the output could not be written.
)";

const char* const linkHelpText =
    R"(Usage: halvo-records link URL... [--json]
       halvo-records link --to SCREEN [--style TEXT] [--minutes N] [--scheme S]

Says what each URL leads to, or prints the URL that leads to SCREEN: breathe,
focus, today, settings or main. A text that leads nowhere leads to main.

  --json         one object on a line for each URL
  --style TEXT   the style of a breathing exercise
  --minutes N    how many minutes it takes
  --scheme S     the URL's scheme; else the app's own

Examples:
  halvo-records link 'halvo://breathe?style=box&minutes=5'
  halvo-records link --to breathe --style box --minutes 5

Exit status: 0, 64 for wrong words, 74 when the output could not be written.
)";

const char* const timelineHelpText =
    R"(Usage: halvo-records timeline [FILE] [--from DATE] [--zone ZONE] [--span SPAN]
                              [--limit N] [--group GROUP] [--json]

Prints the timeline of the widget snapshot in FILE, else of that in the app
group's folder: a line for each date at which the picture changes, and when to
ask for a new timeline. WHY is any of start (what was asked for), phase (one
begins), midnight (a day begins), minute (of a countdown); LEFT is what a block
or focus still counts down.

  --from DATE    from when on: 2026-11-20T09:30:00Z or now, which it is else
  --zone ZONE    where the days are; else the system's time zone
  --span SPAN    for how long minutes are counted down: seconds, or 5m, 2h, 1d;
                 else 1h
  --limit N      at most so many dates, from 1 to 10000; else 60
  --group GROUP  the app group whose folder is meant, when no FILE is named; the
                 folder is made when it is missing
  --json         an object with the list "dates" and with "reload"

Examples:
  halvo-records timeline --span 15m
  halvo-records timeline widgets.json --from 2026-11-20T09:30:00Z --zone UTC

Exit status: 0, 1 when the snapshot cannot be read, 64 for wrong words, 74 when
the output could not be written.
)";

}  // namespace halvo::records
