// The time that a rebuild or resync still needs.

#include <gtest/gtest.h>

#include <sstream>

#include "Src/piRVXETR.h"

using PI::CETR;

namespace {

constexpr std::uint64_t TODAY = 1700000000000;

/// The third reading moves the start to 30000 - 30000 * 11: 360000 / 12 = 30000; 3000100 - 360000.
const std::string THREE = "10@0 11@300 12@600 ";

/// Readings as percent@tenths of a second, a pause as 0p, and what the last one leaves: the remaining time
/// and the start, in milliseconds from the first one on. Worked out by hand.
const std::tuple<std::string, std::int64_t, std::int64_t> RUNS[] = {
    // The first two: a minute for each percent that is missing, or all the time that has passed.
    {"10@0 11@300", 5340000, 0},
    {"10@0 11@300 11@1000", 8900000, 0},
    // Not a percentage, and all done.
    {"120@0 120@70", -1200000, 0},
    {THREE + "-1@1000 12@1100", 2590100, -300000},
    {THREE + "100@700 0p1000", 60000, -260000},
    // The third moves the start back, never on: 350000 / 6 = 58333; 5833400 - 350000.
    {"20@0 5@3400 6@3500", 5483400, 0},
    {"40@0 20@700 0@800 0@1000", 5580000, -130000},
    // A stall is counted down in real time, and halved below two minutes and where the time is over.
    {THREE + "12@25801 12@25802 12@25803", 59950, -300000},
    {THREE + "12@27001", 1320050, -300000},
    // Time at rest is no work time: 490000 / 13 = 37692; 3769300 - 490000.
    {THREE + "0p1600 0p2000 13@3300", 3279300, -160000},
    // From ten samples and 33 percent on the rate of the last five steps is mixed in. The ninth:
    // 670000 / 85 = 7882; 788300 - 670000. The tenth: 680000 / 88 = 7727; 772800 - 680000 = 92800;
    // 50000 / 14 + 1 = 3572; (3572 * 88 + 92800) * 12 / 100.
    {"50@0 60@100 65@200 70@300 74@400 77@500 80@600 83@700 85@800", 118300, -590000},
    {"50@0 60@100 65@200 70@300 74@400 77@500 80@600 83@700 85@800 88@900", 48856, -590000},
    // 360000 / 32 = 11250; 1125100 - 360000. Then 360000 / 33 = 10909; (16001 * 33 + 731000) * 67 / 100.
    {"23@0 24@100 25@200 26@300 27@400 28@500 29@600 30@700 31@800 32@1300", 765100, -230000},
    {"24@0 25@100 26@200 27@300 28@400 29@500 30@600 31@700 32@800 33@1200", 843552, -240000},
    // A fall: the difference counts as a number without a sign, so the rate is 1. 905000 / 40 = 22625;
    // (40 + 2262600 - 905000) * 60 / 100.
    {"81@0 82@100 83@200 84@300 85@400 86@500 87@600 88@700 89@800 90@900 40@950", 814584, -810000},
    // Fallen and risen again: there is no rate. 480000 / 44 = 10909; 1091000 - 480000.
    {"40@0 41@100 42@200 43@300 44@400 45@500 46@600 47@700 45@800 44@800", 611000, -400000}};

TEST(RemainingTime, FollowsTheReadings) {
  for (const auto& [run, remaining, start] : RUNS) {
    std::vector<CETR> list;
    CETR::Add(list, 2, 50, TODAY, false);  // another object's
    std::istringstream readings(run);
    int percent = 0;
    char kind = 0;
    for (std::uint64_t passed = 0; readings >> percent >> kind >> passed;)
      EXPECT_EQ(CETR::Add(list, 1, percent, TODAY + 100 * passed, kind == 'p'), 1);
    EXPECT_EQ(static_cast<std::int64_t>(list[1].m_Remaining), remaining) << run;
    EXPECT_EQ(static_cast<std::int64_t>(list[1].m_Start - TODAY), start) << run;
  }
}

}  // namespace
