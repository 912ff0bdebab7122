// The time that a rebuild or resync still needs.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "Src/piRVXETR.h"

using PI::CETR;

namespace {

constexpr std::uint64_t ALL_ONES = ~std::uint64_t{0};
constexpr std::uint64_t TODAY = 1700000000000;

/// A reading: percent, milliseconds, and what is left then.
struct SReading {
  int m_Percent;
  std::uint64_t m_Now;
  std::uint64_t m_Remaining;
};

struct SRun {
  const char* m_What;
  std::uint64_t m_Base;  ///< added to every moment; the first reading is the moment of the start
  std::vector<SReading> m_Readings;
};

// Worked out by hand.
const SRun RUNS[] = {
    {"a minute a percent at first", TODAY, {{10, 0, 5400000}}},
    {"nothing done yet", TODAY, {{0, 0, 6000000}, {0, 60000, 6000000}, {0, 120000, 12000000}}},
    {"a wrong percentage", TODAY, {{-1, 0, ALL_ONES}, {-7, 5, ALL_ONES}, {50, 10, 3000000}}},
    {"one hundred at once", TODAY, {{100, 0, 60000}, {100, 5000, 0}, {100, 7000, 0}}},
    {"one hundred above a minute", TODAY, {{99, 0, 60000}, {50, 30000, 3000000}, {100, 40000, 60000}}},
    // 89 percent at 60000 ms each, then at the 90000 that have passed.
    {"two percentages", TODAY, {{10, 0, 5400000}, {11, 30000, 5340000}, {11, 90000, 8010000}}},
    // The third moves the start to 30000 - 30000 * 11 = -300000: 360000 / 12 = 30000; 100 * 30001 - 360000.
    {"the start is projected back", TODAY, {{10, 0, 5400000}, {11, 30000, 5340000}, {12, 60000, 2640100}}},
    // The projected start wraps around and is not earlier: 60000 / 12 = 5000; 100 * 5001 - 60000.
    {"a start before all time", 0, {{10, 0, 5400000}, {11, 30000, 5340000}, {12, 60000, 440100}}},
    // The start stays at 30000: the time so far is 2^64 - 30000, a thirtieth of it 614891469123650720.
    {"a clock that is set back",
     0,
     {{10, 30000, 5400000}, {20, 30000, 4800000}, {30, 0, std::uint64_t{100} * 614891469123650721 + 30000}}},
    {"a fall to nothing", TODAY, {{10, 0, 5400000}, {0, 30000, 5400000}, {0, 90000, 9000000}}},
    // 98 moves the start to -97000: 99000 / 99 = 1000; 100 * 1001 - 99000.
    {"a stall",
     TODAY,
     {{97, 0, 180000}, {98, 1000, 120000}, {99, 2000, 1100}, {99, 3000, 550}, {99, 4000, 275}}},
    // Counted down in real time, halved below 120000 ms.
    {"a long stall",
     TODAY,
     {{10, 0, 5400000},
      {11, 30000, 5340000},
      {12, 60000, 2640100},
      {12, 100000, 2600100},
      {12, 2580100, 120000},
      {12, 2580200, 119900},
      {12, 2580300, 59950}}},
    {"a stall beyond the end",
     TODAY,
     {{10, 0, 5400000}, {11, 30000, 5340000}, {12, 60000, 2640100}, {12, 9060000, 1320050}}}};

TEST(RemainingTime, FollowsTheReadings) {
  for (const SRun& run : RUNS) {
    SCOPED_TRACE(run.m_What);
    std::vector<CETR> list;
    for (const auto& [percent, now, remaining] : run.m_Readings) {
      EXPECT_EQ(CETR::Add(list, 1, percent, run.m_Base + now, false), 0);
      EXPECT_EQ(list.front().m_Remaining, remaining) << percent << " % at " << now;
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
      // 450000 / 40 = 11250: 675100; (800040 + 675100) * 60 / 100.
      {{31, 32, 33, 34, 35, 36, 37, 38, 39, 40}, 20000, 885084},
      // One percent in five steps: 490000 / 45 = 10888: 598900; 50001 * 45: (2250045 + 598900) * 55 / 100.
      {{40, 41, 42, 43, 44, 45, 46, 47, 46, 45}, 10000, 1566919},
      // None: there is no rate; 490000 / 44 = 11136: 1113700 - 490000.
      {{40, 41, 42, 43, 44, 45, 46, 47, 45, 44}, 10000, 623700},
      // Less than before: the rate is 1; 490000 / 43 = 11395: 649600; (43 + 649600) * 57 / 100.
      {{40, 41, 42, 43, 44, 45, 46, 47, 45, 43}, 10000, 370296}};
  for (const auto& entry : cases) {
    CETR etr;
    etr.m_Start = TODAY;
    std::uint64_t now = TODAY;
    for (std::size_t sample = 0; sample < entry.m_Percent.size(); ++sample)
      etr.Compute(entry.m_Percent[sample], now += sample < 5 ? 10000 : entry.m_Step);
    EXPECT_EQ(etr.m_Remaining, entry.m_Remaining) << "ending at " << entry.m_Percent.back();
  }
}

TEST(RemainingTime, APauseIsNoWorkTime) {
  std::vector<CETR> list;
  CETR::Add(list, 1, 10, 0, false);
  CETR::Add(list, 1, 11, 100000, false);
  CETR::Add(list, 1, 90, 400000, true);
  EXPECT_EQ(list.front().m_Start, 300000U);
  EXPECT_EQ(list.front().m_LastUpdate, 400000U);
  EXPECT_EQ(list.front().m_Progress.size(), 2U) << "a pause is no sample";
  EXPECT_EQ(list.front().m_Remaining, 8900000U);
}

TEST(RemainingTime, EachObjectHasItsOwn) {
  std::vector<CETR> list;
  EXPECT_EQ(CETR::Add(list, 7, 10, 1000, false), 0);
  EXPECT_EQ(CETR::Add(list, 8, 20, 2000, false), 1);
  EXPECT_EQ(CETR::Add(list, 7, 11, 3000, false), 0);
  EXPECT_EQ(CETR::Add(list, 9, 30, 4000, true), 2) << "a pause makes one too";
  ASSERT_EQ(list.size(), 3U);
  EXPECT_EQ(list[1].m_Remaining, 4800000U);
  EXPECT_EQ(list[2].m_Remaining, 4200000U);
  EXPECT_EQ(list[2].m_Start, 4000U);
  CETR unstarted;
  unstarted.Compute(40, 90000);
  EXPECT_EQ(unstarted.m_Start, 30000U) << "a start that is not known lies a minute back";
}

}  // namespace
