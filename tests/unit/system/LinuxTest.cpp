#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

#include "KVT/Threading.h"
#include "simulator/SimulatedMachine.h"
#include "system/Descriptor.h"
#include "system/Linux.h"

namespace NAMESPACE_piRVX {
namespace {

/// Both ends of a pipe, closed at the end.
struct SPipe {
  SPipe() { EXPECT_EQ(::pipe2(m_Ends.data(), O_CLOEXEC), 0); }
  ~SPipe() {
    for (const int end : m_Ends) ::close(end);
  }
  SPipe(const SPipe&) = delete;
  SPipe& operator=(const SPipe&) = delete;
  std::array<int, 2> m_Ends{};
};

TEST(Linux, FilesAreReadAndClosedOnExec) {
  CLinux os;
  const CDescriptor file(os, "/proc/self/stat", O_RDONLY);
  ASSERT_TRUE(file.IsOpen());
  EXPECT_NE(::fcntl(file.Get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_THAT(*ReadText(os, "/proc/self/stat"), testing::StartsWith(std::to_string(::getpid()) + " ("));
  EXPECT_FALSE(os.ReadLink("/proc/self/stat"));
  EXPECT_TRUE(os.ReadLink("/proc/self/exe"));
  EXPECT_EQ(os.WaitExceptional(-1, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(Linux, WaitingTakesDescriptorsThatNoSetHolds) {
  CLinux os;
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit raised{std::max<rlim_t>(limit.rlim_cur, FD_SETSIZE + 100), limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0) << "the hard limit is below what select() itself takes";
  const SPipe pipe;
  const int high = ::fcntl(pipe.m_Ends[0], F_DUPFD_CLOEXEC, FD_SETSIZE + 50);
  ASSERT_GE(high, FD_SETSIZE + 50);
  EXPECT_EQ(os.WaitExceptional(high, 1), 0);
  EXPECT_EQ(os.Close(high), 0);
  EXPECT_EQ(os.WaitExceptional(high, 1), -1);
  EXPECT_EQ(errno, EBADF);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(Linux, ASignalDoesNotEndAReading) {
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_handler = [](int) {};  // and no SA_RESTART: the call comes back with EINTR
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
  const SPipe pipe;
  const pthread_t reader = pthread_self();
  std::thread writer([&] {
    for (int i = 0; i < 50; ++i) {
      pthread_kill(reader, SIGUSR1);
      std::this_thread::yield();
    }
    EXPECT_EQ(::write(pipe.m_Ends[1], "x", 1), 1);
  });
  char byte = 0;
  CLinux os;
  EXPECT_EQ(os.Read(pipe.m_Ends[0], &byte, 1), 1);
  writer.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Linux, ClosingIsNoCancellationPoint) {
  const SPipe pipe;
  const int copy = ::dup(pipe.m_Ends[0]);
  std::string passed;
  const auto body = [&] {
    pthread_cancel(pthread_self());
    CLinux().Close(copy);
    passed += "closed";
    pthread_testcancel();
    passed += " and outlived";
  };
  ASSERT_EQ(KVT::Threading::CThread::Create(body, 0)->Wait(60000), KVT::Threading::WAIT_OK);
  EXPECT_EQ(passed, "closed");
}

TEST(ReadText, StopsAtAMebibyteAndClosesTheFile) {
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  EXPECT_EQ(ReadText(machine, "/dev/sdf")->size(), 1024U * 1024);
  EXPECT_EQ(machine.OpenDescriptors(), 0U);
}

}  // namespace
}  // namespace NAMESPACE_piRVX
