/// @file
/// Signals while the machine is changed.

#include <gtest/gtest.h>
#include <unistd.h>

#include "host/Signals.h"

namespace {

using namespace Host;

TEST(Signals, TheThirdEndsWhatHangsAndTheSecondTellsOfIt) {
  const auto hang = [](int signals) {
    HoldEndSignals();
    {
      const CPatience patience("\"the change\"");
      for (int i = 0; i < signals; ++i) {
        ::kill(::getpid(), SIGHUP);
        ::usleep(200'000);  // two that wait together are one
      }
    }
    const sigset_t held = EndSignals();
    const timespec now{};
    std::_Exit(::sigtimedwait(&held, nullptr, &now));
  };
  EXPECT_EXIT(hang(1), testing::ExitedWithCode(SIGHUP), "^$") << "the first is kept for who comes behind";
  EXPECT_EXIT(hang(3), testing::KilledBySignal(SIGHUP), "waiting for the kernel to answer \"the change\"");
}

}  // namespace
