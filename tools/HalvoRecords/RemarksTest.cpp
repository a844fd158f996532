#include <gtest/gtest.h>

#include "tests/Support/SampleSnapshot.hpp"
#include "tools/HalvoRecords/Remarks.hpp"

namespace halvo::records {
namespace {

using S = WidgetSnapshot;
using Remarks = std::vector<std::string>;
using testing::nineOClock;
using testing::sampleSnapshot;

constexpr Seconds second{1};

TEST(RemarksTest, AreNoneOnWhatIsAsItShouldBe) {
    EXPECT_EQ(remarks(sampleSnapshot()), Remarks{});
    EXPECT_EQ(remarks(WidgetSnapshot{}), Remarks{});
    EXPECT_EQ(remarks(KeepAliveState{}), Remarks{});
}

TEST(RemarksTest, PointOutPhasesThatAreNotInOrder) {
    S snapshot = sampleSnapshot();
    snapshot.phases = {{nineOClock + second, S::NoBlocks{}},
                       {nineOClock, S::NoBlocks{}},
                       {nineOClock, S::NothingScheduled{}}};
    EXPECT_EQ(remarks(snapshot), (Remarks{"phases[1] starts before phases[0]",
                                          "phases[2] starts together with phases[1]"}));
}

TEST(RemarksTest, PointOutWhatEndedBeforeItsPhaseStarts) {
    const S::Running over = testing::sampleRun(nineOClock - second);
    const S::Running justOver = testing::sampleRun(nineOClock);
    const S::Upcoming missed{.name = "",
                             .look = std::nullopt,
                             .start = nineOClock - second - second,
                             .end = nineOClock - second,
                             .level = S::Level::firm};
    for (const S::State& state : std::initializer_list<S::State>{
             S::Block{over}, S::Focus{over}, S::FocusFilter{over}, S::Next{missed}}) {
        S snapshot = sampleSnapshot();
        snapshot.phases = {{nineOClock, state}};
        EXPECT_EQ(remarks(snapshot), Remarks{"phases[0] shows what ended before it starts"})
            << state.index();
    }
    S snapshot = sampleSnapshot();
    snapshot.phases = {{nineOClock, S::Block{justOver}}};
    EXPECT_EQ(remarks(snapshot), Remarks{});
}

TEST(RemarksTest, PointOutAHorizonBeforeTheWriting) {
    S snapshot = sampleSnapshot();
    snapshot.horizon = snapshot.writtenAt;
    EXPECT_EQ(remarks(snapshot), Remarks{});
    snapshot.horizon = snapshot.writtenAt - second;
    EXPECT_EQ(remarks(snapshot), Remarks{"horizon is before writtenAt"});
}

TEST(RemarksTest, PointOutDaysWithOneStart) {
    S snapshot = sampleSnapshot();
    snapshot.days.push_back(snapshot.days.front());
    EXPECT_EQ(remarks(snapshot), Remarks{"days[2] has the same start as days[0]"});
}

}  // namespace
}  // namespace halvo::records
