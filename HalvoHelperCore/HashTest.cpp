#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "HalvoHelperCore/HelperClock.hpp"
#include "HalvoHelperCore/HelperCommitment.hpp"
#include "HalvoHelperCore/HelperIdentity.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"
#include "tests/Support/Printing.hpp"

namespace halvo {
namespace {

// Every record differs from every other in one member; none may be taken for another.
template <class Record>
void expectAllDifferent(const std::vector<Record>& records) {
    std::unordered_set<std::size_t> hashes;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const Record copy = records[i];
        EXPECT_EQ(copy, records[i]);
        EXPECT_EQ(std::hash<Record>{}(copy), std::hash<Record>{}(records[i]));
        for (std::size_t other = 0; other < i; ++other) {
            EXPECT_NE(records[i], records[other]) << i << " and " << other;
        }
        EXPECT_TRUE(hashes.insert(std::hash<Record>{}(records[i])).second) << i;
    }
}

const ClockReading reading{"boot", Seconds{12.5}, wallDate(1'763'249'012.25)};
const HelperCommitment held{"/Applications/Halvo.app",
                            501,
                            wallDate(1'763'243'700.5),
                            Seconds{5312.75},
                            Seconds{81088},
                            reading,
                            true};

TEST(HashTest, DependsOnEveryMemberAndOnTheirOrder) {
    EXPECT_EQ(hashOf(1, 2), hashOf(1, 2));
    EXPECT_NE(hashOf(1, 2), hashOf(2, 1));
    EXPECT_NE(hashOf(1), hashOf(1, 0));
    EXPECT_NE(hashOf(0, 0), hashOf(0, 0, 0));
}

TEST(HashTest, TellsRecordsApartByEveryMember) {
    std::vector<ClockReading> readings(4, reading);
    readings[1].bootID = "other";
    readings[2].sinceBoot += Seconds{1};
    readings[3].wall += Seconds{1};
    expectAllDifferent(readings);
    std::vector<HelperCommitment> commitments(8, held);
    commitments[1].appPath = "/Applications/Other.app";
    commitments[2].uid = 502;
    commitments[3].startedWall += Seconds{1};
    commitments[4].remaining += Seconds{1};
    commitments[5].capRemaining += Seconds{1};
    commitments[6].checkpoint.sinceBoot += Seconds{1};
    commitments[7].locked = false;
    expectAllDifferent(commitments);
    expectAllDifferent<HelperStatus>({HelperStatus::idle,
                                      {true, std::nullopt, false},
                                      {true, wallDate(0), false},
                                      {true, wallDate(1), false},
                                      {true, wallDate(1), true}});
    expectAllDifferent<HelperIdentity>({{"com.example.app", "7QX4KD19MT"},
                                        {"com.example.other", "7QX4KD19MT"},
                                        {"com.example.app", "AAAAAAAAAA"}});
}

TEST(HashTest, EqualNumbersHashEqually) {
    ClockReading minus = reading;
    ClockReading plus = reading;
    minus.sinceBoot = Seconds{-0.0};
    plus.sinceBoot = Seconds{0.0};
    EXPECT_EQ(minus, plus);
    EXPECT_EQ(std::hash<ClockReading>{}(minus), std::hash<ClockReading>{}(plus));
}

TEST(HelperStatusTest, IsIdleWhenNothingHolds) {
    EXPECT_EQ(HelperStatus::idle, (HelperStatus{false, std::nullopt, false}));
}

TEST(BootIDTest, IsEqualByItsTextWhichItsCopiesShare) {
    EXPECT_EQ(BootID().text(), "");
    EXPECT_EQ(BootID(), BootID(""));
    EXPECT_NE(BootID("one"), BootID("One"));
    EXPECT_NE(BootID("one"), BootID());
    BootID first(std::string("one"));
    const BootID second = first;
    EXPECT_EQ(&first.text(), &second.text());
    const BootID third = std::move(first);
    EXPECT_EQ(third, BootID("one"));
    // NOLINTNEXTLINE(bugprone-use-after-move): what is left is part of the promise.
    EXPECT_EQ(first, BootID());
}

}  // namespace
}  // namespace halvo
