#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "KVT/Threading.h"
#include "simulator/SimulatedSystem.h"
#include "system/Descriptor.h"
#include "system/Linux.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;

namespace {

TEST(Linux, WaitingTakesDescriptorsThatNoSetHolds) {
  OS::CLinux os;
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 100);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0) << "the hard limit is below what select() itself takes";
  const OS::CDescriptor file(os, "/proc/self/stat", O_RDONLY);
  EXPECT_NE(::fcntl(file.Get(), F_GETFD) & FD_CLOEXEC, 0);
  const int high = ::fcntl(file.Get(), F_DUPFD_CLOEXEC, FD_SETSIZE + 50);
  EXPECT_EQ(os.WaitExceptional(high, 1), 0);
  EXPECT_EQ(os.Close(high), 0);
  for (const int closed : {high, -1}) {
    EXPECT_EQ(os.WaitExceptional(closed, 1), -1);
    EXPECT_EQ(errno, EBADF);
  }
}

TEST(Linux, ASignalDoesNotEndAReading) {
  static int s_Ends[2];
  ASSERT_EQ(::pipe2(s_Ends, O_CLOEXEC), 0);
  struct sigaction action {
  }, previous{};  // and no SA_RESTART: the call comes back with EINTR
  action.sa_handler = [](int) {
    static int s_Count = 0;
    if (++s_Count == 3 && ::write(s_Ends[1], "x", 1) != 1) std::abort();
  };
  ::sigaction(SIGALRM, &action, &previous);
  ::ualarm(1000, 1000);
  char byte = 0;
  EXPECT_EQ(OS::CLinux().Read(s_Ends[0], &byte, 1), 1);
  ::ualarm(0, 0);
  ::sigaction(SIGALRM, &previous, nullptr);
  for (const int end : s_Ends) ::close(end);
}

// Destructors do both: a thread that is cancelled in one takes the server down.
TEST(Linux, ClosingAndTracingAreNoCancellationPoints) {
  const CTraceCapture trace(TRACE_INFORMATION);
  std::string passed;
  const auto body = [&passed] {
    pthread_cancel(pthread_self());
    OS::CLinux().Close(::dup(STDERR_FILENO));
    KVT::Trace::Write(KVT_MODULE_INFO_piRVX, TRACE_INFORMATION, "", 1, "");
    passed = "both";
    OS::CLinux().Sleep(1);
    passed = "Sleep too";
  };
  ASSERT_EQ(KVT::Threading::CThread::Create(body, 0)->Wait(20000), KVT::Threading::WAIT_OK);
  EXPECT_EQ(passed, "both");
}

TEST(ReadText, StopsAtAMebibyteAndClosesTheFile) {
  Simulation::CSimulatedSystem machine(Simulation::CSimulatedSystem::DemoDescription());
  EXPECT_EQ(OS::ReadText(machine, "/dev/sdf")->size(), 1024U * 1024);
  EXPECT_EQ(machine.OpenDescriptors(), 0U);
}

}  // namespace
