#include <gtest/gtest.h>

#include "tests/Support/SampleSnapshot.hpp"
#include "tools/HalvoRecords/RecordText.hpp"

namespace halvo::records {
namespace {

using S = WidgetSnapshot;
using testing::nineOClock;

GregorianCalendar berlin() { return GregorianCalendar::named("Europe/Berlin").value(); }

KeepAliveState keepAliveState(std::int32_t pid, const std::string& appPath) {
    KeepAliveState state;
    state.pid = pid;
    state.appPath = appPath;
    return state;
}

TEST(RecordTextTest, SumsARecordUp) {
    EXPECT_EQ(summary(testing::sampleSnapshot()),
              "a widget snapshot of 6 phases, 2 days, 1 list and 1 block");
    EXPECT_EQ(summary(S{}), "a widget snapshot of 0 phases, 0 days, 0 lists and 0 blocks");
    EXPECT_EQ(summary(keepAliveState(4711, "")), "a keep-alive state of process 4711");
}

TEST(RecordTextTest, DescribesAKeepAliveState) {
    KeepAliveState state = keepAliveState(4711, "/Applications/Halvo.app");
    state.commitmentUntil = nineOClock + Seconds{3600};
    state.ultraHard = true;
    state.appReleased = true;
    state.updatedAt = nineOClock;
    EXPECT_EQ(description(state, berlin()),
              R"(  process             4711
  app                 "/Applications/Halvo.app"
  ended as it should  no
  committed until     2026-11-20 11:00:00 +01:00
  ultra hard          yes
  app released        yes
  bypass noted        no
  written             2026-11-20 10:00:00 +01:00
)");
    state.commitmentUntil.reset();
    EXPECT_NE(description(state, berlin()).find("committed until     not committed\n"),
              std::string::npos);
}

TEST(RecordTextTest, DescribesASnapshot) {
    EXPECT_EQ(description(testing::sampleSnapshot(), berlin()),
              R"(  written           2026-11-20 09:59:55 +01:00
  planned until     2026-11-21 10:00:00 +01:00
  running           yes
  number of blocks  2
  breathe           style "box", 5 minutes
  focus             25 minutes
  6 phases:
    2026-11-20 10:00:00 +01:00  block "Deep work", firm, until 2026-11-20 10:10:30 +01:00
        runs since 2026-11-20 10:00:00 +01:00
        names "Mail", "News"; lists "Distractions"
        color "indigo", symbol "brain"
        unlocked by "Five minutes" until 2026-11-20 10:10:00 +01:00
    2026-11-20 10:10:30 +01:00  focus "Deep work", firm, until 2026-11-20 11:00:00 +01:00
        runs since 2026-11-20 10:00:00 +01:00
        names "Mail", "News"; lists "Distractions"
        color "indigo", symbol "brain"
        unlocked by "Five minutes" until 2026-11-20 10:10:00 +01:00
    2026-11-20 11:00:00 +01:00  focus filter "Deep work", gentle, without end
        runs since 2026-11-20 10:00:00 +01:00
        names none; lists "Distractions"
    2026-11-20 12:00:00 +01:00  next "Evening \"off\"\n\\ ☾", ultra hard, from 2026-11-20 20:00:00 +01:00 to 2026-11-20 22:00:00 +01:00
    2026-11-20 22:00:00 +01:00  nothing scheduled
    2026-11-20 23:53:20 +01:00  no blocks
  2 days:
    2026-11-19 01:00:00 +01:00  breaths 3  minutes breathed 15  stayed off 2
    2026-11-20 01:00:00 +01:00  breaths 1  minutes breathed 5   stayed off 0
  1 list:
    "Distractions"  color "red", symbol "bell"  E621E1F8-C36C-495A-93FC-0C247A3E6E5F
  1 block:
    "Deep work"  firm  enabled  not running  color "indigo", symbol "brain"  00000000-0000-4000-8000-0000000000FF
)");
}

TEST(RecordTextTest, DescribesAnEmptySnapshot) {
    S snapshot;
    snapshot.breathe.minutes = 1;
    EXPECT_EQ(description(snapshot, berlin()), R"(  written           1970-01-01 01:00:00 +01:00
  planned until     1970-01-01 01:00:00 +01:00
  running           no
  number of blocks  0
  breathe           style "", 1 minute
  focus             0 minutes
  0 phases
  0 days
  0 lists
  0 blocks
)");
}

TEST(RecordTextTest, ShowsTheLookOfWhatComesNext) {
    S snapshot;
    snapshot.phases = {{nineOClock, S::Next{{.name = "Evening",
                                             .look = S::Look{"red", "moon"},
                                             .start = nineOClock,
                                             .end = nineOClock,
                                             .level = S::Level::gentle}}}};
    EXPECT_NE(description(snapshot, berlin()).find("\n        color \"red\", symbol \"moon\"\n"),
              std::string::npos);
}

TEST(RecordTextTest, LetsNoControlCharacterThrough) {
    const std::string hostile = "\x1B]0;x\a\xC2\x9B\r";
    S snapshot = testing::sampleSnapshot();
    S::Running run = testing::sampleRun(std::nullopt);
    run.name = hostile;
    run.names = {hostile};
    run.listNames = {hostile};
    run.look = S::Look{hostile, hostile};
    run.unlock->name = hostile;
    snapshot.phases = {{nineOClock, S::Block{run}}};
    snapshot.breathe.style = hostile;
    snapshot.lists.front().name = hostile;
    snapshot.lists.front().look = {hostile, hostile};
    snapshot.blocks.front().name = hostile;
    snapshot.blocks.front().look = {hostile, hostile};
    for (const std::string& text : {description(snapshot, berlin()), shortText(S::Block{run}),
                                    description(keepAliveState(1, hostile), berlin())}) {
        EXPECT_EQ(text.find_first_of("\x1B\a\r\x9B"), std::string::npos) << text;
        EXPECT_NE(text.find("\\u001b]0;x\\u0007\\u009b\\u000d"), std::string::npos) << text;
    }
}

}  // namespace
}  // namespace halvo::records
