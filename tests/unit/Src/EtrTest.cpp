// The time that a rebuild or resync still needs.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "Src/piRVXETR.h"

using PI::CETR;

namespace {

constexpr std::uint64_t ALL_ONES = ~std::uint64_t{0};
constexpr std::uint64_t TODAY = 1700000000000;

/// Readings one after the other: percent, milliseconds since the start, and what is left then.
using TRun = std::vector<std::tuple<int, std::uint64_t, std::uint64_t>>;

// Worked out by hand.
const std::pair<const char*, TRun> RUNS[] = {
    // 100 percent at 60000 ms each, then at the 120000 that have passed.
    {"nothing done yet", {{0, 0, 6000000}, {0, 60000, 6000000}, {0, 120000, 12000000}}},
    {"a wrong percentage", {{-1, 0, ALL_ONES}, {-7, 5, ALL_ONES}, {50, 10, 3000000}}},
    {"one hundred at once", {{100, 0, 60000}, {100, 5000, 0}}},
    {"one hundred above a minute", {{99, 0, 60000}, {50, 30000, 3000000}, {100, 40000, 60000}}},
    {"a fall to nothing", {{10, 0, 5400000}, {0, 30000, 5400000}, {0, 90000, 9000000}}},
    // The third moves the start to 30000 - 30000 * 11 = -300000: 360000 / 12 = 30000; 100 * 30001 - 360000.
    // From there counted down in real time, halved below 120000 ms.
    {"a long stall",
     {{10, 0, 5400000},
      {11, 30000, 5340000},
      {12, 60000, 2640100},
      {12, 2580100, 120000},
      {12, 2580200, 119900},
      {12, 2580300, 59950}}},
    {"a stall beyond the end",
     {{10, 0, 5400000}, {11, 30000, 5340000}, {12, 60000, 2640100}, {12, 9060000, 1320050}}}};

TEST(RemainingTime, FollowsTheReadings) {
  for (const auto& [what, run] : RUNS) {
    std::vector<CETR> list;
    for (const auto& [percent, passed, remaining] : run) {
      EXPECT_EQ(CETR::Add(list, 1, percent, TODAY + passed, false), 0);
      EXPECT_EQ(list.front().m_Remaining, remaining) << what << ", " << percent << " % at " << passed;
    }
  }
}

TEST(RemainingTime, MixesTheRateOfFiveStepsInAfterTenSamplesAboveAThird) {
  // Ten samples, 10 s apart; the start lies at 20000 - 10000 * the second percentage.
  const struct {
    std::array<int, 10> m_Percent;
    std::uint64_t m_Step;  ///< ms of the last five
    std::uint64_t m_Remaining;
  } cases[] = {
      // 370000 / 32 = 11562: 1156300 - 370000, the plain projection.
      {{23, 24, 25, 26, 27, 28, 29, 30, 31, 32}, 20000, 786300},
      // 380000 / 33 = 11515: 771600; 100000 / 5 + 1 = 20001: (660033 + 771600) * 67 / 100.
      {{24, 25, 26, 27, 28, 29, 30, 31, 32, 33}, 20000, 959194},
      // None: there is no rate; 490000 / 44 = 11136: 1113700 - 490000.
      {{40, 41, 42, 43, 44, 45, 46, 47, 45, 44}, 10000, 623700},
  };
  for (const auto& entry : cases) {
    CETR etr;
    etr.m_Start = TODAY;
    std::uint64_t now = TODAY;
    for (std::size_t sample = 0; sample < entry.m_Percent.size(); ++sample)
      etr.Compute(entry.m_Percent[sample], now += sample < 5 ? 10000 : entry.m_Step);
    EXPECT_EQ(etr.m_Remaining, entry.m_Remaining) << "ending at " << entry.m_Percent.back();
  }
}

TEST(RemainingTime, APauseIsNoWorkTimeAndConcernsItsObjectAlone) {
  std::vector<CETR> list;
  EXPECT_EQ(CETR::Add(list, 1, 10, 0, false), 0);
  CETR::Add(list, 1, 11, 100000, false);
  EXPECT_EQ(CETR::Add(list, 2, 20, 100000, true), 1) << "a pause makes one too";
  EXPECT_EQ(CETR::Add(list, 1, 90, 400000, true), 0);
  EXPECT_EQ(list[0].m_Start, 300000U);
  EXPECT_EQ(list[0].m_Progress.size(), 2U) << "a pause is no sample";
  EXPECT_EQ(list[0].m_Remaining, 8900000U);
  EXPECT_EQ(list[1].m_Remaining, 4800000U);
  CETR unstarted;
  unstarted.Compute(40, 90000);
  EXPECT_EQ(unstarted.m_Start, 30000U) << "a start that is not known lies a minute back";
}

}  // namespace
