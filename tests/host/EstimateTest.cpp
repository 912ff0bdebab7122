/// @file
/// The time that a run still takes.

#include <gtest/gtest.h>

#include "host/Estimate.h"

namespace {

using namespace Host;
using namespace std::chrono_literals;

TEST(Estimate, ComesFromProgressThatWasSeenAndTellsItsSpread) {
  CEstimate estimate;
  const CEstimate::Clock::time_point start{};
  const auto said = [&](double percent, std::chrono::seconds time) {
    estimate.Add(percent, start + time);
    return TextOf(estimate.Left());
  };
  EXPECT_EQ(said(20, 0s), "time left not known yet");
  EXPECT_EQ(said(21, 3s), "time left not known yet") << "the first look met the run between two steps";
  EXPECT_EQ(said(21, 8s), "time left not known yet") << "a look without progress";
  EXPECT_EQ(said(22, 9s), "about 6 min left (4 min to 8 min)");
  EXPECT_EQ(said(99, 700s), "about 9 s left (3 s to 9 s)");
  EXPECT_EQ(said(1, 800s), "time left not known yet") << "another run";
}

}  // namespace
