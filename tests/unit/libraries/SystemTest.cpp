// The extended toolkit: programs, partitions, time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <csignal>
#include <thread>

#include "KVT/Misc.h"
#include "KVTX/System.h"
#include "TemporaryFolder.h"
#include "libraries/zqKVTX/CommandRunner.h"
#include "libraries/zqKVTX/Partitions.h"

namespace {

using KVTX::CPartition;
using KVTX::CSystem;
using KVTX::CSystemPartitionTable;
using KVTX::CSystemTime_Lx;
using KVTX::Internal::RunCommand;
using KVTX::Internal::SCommandLimits;
using KVTX::Internal::SCommandResult;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long DEADLINE = 30'000;

/// Runs shell scripts, as programs with known behaviour.
class Command : public testing::Test {
 protected:
  SCommandResult Run(const std::string& script, const std::string& arguments = {},
                     const SCommandLimits& limits = {}) {
    return RunCommand("/bin/sh", m_Folder.Write("script", script) + ' ' + arguments, limits);
  }
  static bool NoChildIsLeft() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }
  /// Waits until the process is gone.
  static bool IsGone(pid_t id) {
    for (unsigned long waited = 0; waited < DEADLINE; waited += 10) {
      if (kill(id, 0) != 0 || IsZombie(id)) return true;
      KVT::Misc::msleep(10);
    }
    return false;
  }
  /// Waits until a file holds a line, and returns it as a number.
  pid_t ReadID(const std::string& name) const {
    for (unsigned long waited = 0; waited < DEADLINE; waited += 10) {
      const std::string text = m_Folder.Read(name);
      if (text.ends_with('\n')) return std::stoi(text);
      KVT::Misc::msleep(10);
    }
    throw std::runtime_error("the program did not start");
  }

  CTemporaryFolder m_Folder;

 private:
  static bool IsZombie(pid_t id) {
    std::ifstream stream("/proc/" + std::to_string(id) + "/stat");
    std::string text;
    std::getline(stream, text);
    return text.empty() || text.find(") Z") != std::string::npos;
  }
};

TEST_F(Command, ResultTellsHowItEnded) {
  const struct {
    const char* m_Script;
    const char* m_Arguments;
    int m_Result;
    std::vector<std::string> m_Lines;
  } cases[] = {
      {"echo out; echo err >&2", "", 1, {"out"}},
      {"echo $#-$1-$2; echo err >&2", "  a \t b  2>&1 ", 1, {"2-a-b", "err"}},
      {"echo \"$1\"", "$HOME;`id`|'x'>f", 1, {"$HOME;`id`|'x'>f"}},  // no shell looks at arguments
      {"echo; printf 'a\\r\\n\\nlast'", "", 1, {"", "a", "", "last"}},
      {"echo partly; exit 3", "", 2, {"partly"}},
      {"cat; echo $?", "", 1, {"0"}},  // standard input is empty
      {"echo $LC_ALL:$PATH:$SECRET", "", 1, {"C:/usr/sbin:/usr/bin:/sbin:/bin:"}},
      // the server's signal set-up ends at the child
      {"kill -TERM $$; echo survived", "", 2, {}},
      {"kill -HUP $$; echo survived", "", 2, {}},
  };
  const CEnvironmentVariable secret("SECRET", "not for children");
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto handler = std::signal(SIGHUP, SIG_IGN);
  for (const auto& test : cases) {
    const SCommandResult result = Run(test.m_Script, test.m_Arguments);
    EXPECT_EQ(result.m_Result, test.m_Result) << test.m_Script;
    EXPECT_EQ(result.m_Lines, test.m_Lines) << test.m_Script;
  }
  std::signal(SIGHUP, handler);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_TRUE(NoChildIsLeft());
}

// The kernel reaps the children of a server that ignores SIGCHLD; a program's success must not look like a
// failure.
TEST_F(Command, SucceedsInAServerThatTakesTheExitStatusAway) {
  const auto handler = std::signal(SIGCHLD, SIG_IGN);
  const SCommandResult result = Run("echo out", "");
  std::signal(SIGCHLD, handler);
  EXPECT_EQ(result.m_Result, 1);
  EXPECT_EQ(result.m_Lines, std::vector<std::string>{"out"});
}

TEST_F(Command, WhatCannotBeStartedGivesZero) {
  for (const std::string& path :
       {std::string("/no/such/program"), m_Folder.Path(), m_Folder.Write("no-program", "text")}) {
    std::vector<std::string> lines{"old"};
    EXPECT_EQ(CSystem::ExecuteCommand(path, "x", lines), 0) << path;
    EXPECT_THAT(lines, IsEmpty());
  }
}

TEST_F(Command, LimitsEndAProgramWithItsChildren) {
  const SCommandLimits shortTime{std::chrono::milliseconds(300), 1 << 20};
  const std::pair<const char*, SCommandLimits> cases[] = {
      {"echo partly; exec >&- 2>&-; sleep 1000", shortTime},
      {"trap '' TERM HUP INT; echo partly; sleep 1000", shortTime},
      {"echo partly; while :; do echo again; done", {std::chrono::milliseconds(DEADLINE), 1 << 16}},
  };
  const std::string ids = m_Folder.Path("id");
  for (const auto& [script, limits] : cases) {
    std::filesystem::remove(ids);
    const SCommandResult result = Run("sleep 1000 & echo $! > " + ids + '\n' + script, {}, limits);
    EXPECT_EQ(result.m_Result, 2) << script;
    ASSERT_FALSE(result.m_Lines.empty()) << script;
    EXPECT_EQ(result.m_Lines.front(), "partly") << script;
    EXPECT_TRUE(IsGone(ReadID("id"))) << script;
    EXPECT_TRUE(NoChildIsLeft()) << script;
  }
}

TEST_F(Command, ManyLinesArriveAndAGrandchildThatHoldsTheOutputDelaysNothing) {
  const SCommandResult result = Run("seq 20000; sleep 1000 & echo $!");
  EXPECT_EQ(result.m_Result, 1) << "not ended by the limit";
  ASSERT_EQ(result.m_Lines.size(), 20001U);
  kill(std::stoi(result.m_Lines.back()), SIGKILL);
}

TEST_F(Command, LeaksNoDescriptorIntoTheChildOrHere) {
  const auto count = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = count();
  const int leaky = dup(STDERR_FILENO);  // inheritable, as a careless server leaves them
  EXPECT_THAT(RunCommand("/bin/ls", "/proc/self/fd", {}).m_Lines, ElementsAre("0", "1", "2", "3"));
  close(leaky);
  EXPECT_EQ(RunCommand("/no/such/program", "", {}).m_Result, 0);
  EXPECT_EQ(count(), before);
}

TEST_F(Command, CancellationKillsAndReaps) {
  std::string script = m_Folder.Write("script", "echo $$ > " + m_Folder.Path("id") + "; sleep 1000");
  const auto run = [](void* argument) -> void* {
    RunCommand("/bin/sh", *static_cast<std::string*>(argument), {});
    return nullptr;
  };
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, nullptr, run, &script), 0);
  const pid_t id = ReadID("id");
  pthread_cancel(thread);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_TRUE(IsGone(id));
  EXPECT_TRUE(NoChildIsLeft());
}

TEST(Partitions, AreReadFromSysfsByNumber) {
  const CTemporaryFolder sysfs;
  for (const std::string name : {"md_d0p10", "md_d0p2", "cciss!c0d0p1"}) {
    const std::string number = name.substr(name.rfind('p') + 1) + "\n";
    sysfs.Write(name + "/partition", number);
    sysfs.Write(name + "/dev", "253:" + number);
  }
  sysfs.Write("queue/rotational", "0\n");
  sysfs.Write("broken/partition", "x\n");
  sysfs.Write("half/partition", "3\n");
  std::vector<std::string> found;
  for (const auto& node : KVTX::Internal::ReadPartitions(sysfs.Path()))
    found.push_back(node.m_Device + " " + std::to_string(minor(node.m_Number)));
  EXPECT_THAT(found, ElementsAre("/dev/cciss/c0d0p1 1", "/dev/md_d0p2 2", "/dev/md_d0p10 10"));
  EXPECT_THAT(CSystemPartitionTable::GetPartitions("/dev/null"), IsEmpty());
}

TEST(Partitions, TellWhereTheyAreInUse) {
  const CTemporaryFolder folder;
  const std::string mounts = folder.Write("mountinfo",
                                          "20 1 8:1 / / rw - ext4 /dev/root rw\n"
                                          "21 20 253:0 / /whole rw - ext4 /dev/md_d0 rw\n"
                                          "22 20 253:1 / /with\\040blank rw - xfs /dev/disk/by-id/x rw\n"
                                          "23 20 253:1 / /second rw - xfs /dev/md_d0p1 rw\n"
                                          "24 20 0:55 / /pool rw - btrfs /dev/md_d0p2 rw\n");
  const std::string swaps =
      folder.Write("swaps",
                   "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n"
                   "/dev/md_d0p3                            partition\t1023996\t\t0\t\t-2\n");
  const std::vector<KVTX::Internal::SBlockNode> nodes{{"/dev/md_d0", makedev(253, 0)},
                                                      {"/dev/md_d0p1", makedev(253, 1)},
                                                      {"/dev/md_d0p2", makedev(253, 2)},
                                                      {"/dev/md_d0p3", makedev(253, 3)}};
  const auto find = [&nodes](const std::string& mountInfo, const std::string& swapFile) {
    std::vector<std::string> found;
    for (const CPartition& partition : KVTX::Internal::FindMountPoints(nodes, mountInfo, swapFile))
      found.push_back(partition.m_Device + ' ' + partition.m_MountPoint);
    return found;
  };
  EXPECT_THAT(find(mounts, swaps), ElementsAre("/dev/md_d0 /whole", "/dev/md_d0p1 /with blank",
                                               "/dev/md_d0p2 /pool", "/dev/md_d0p3 [SWAP]"));
  const std::string missing = folder.Path("missing");
  EXPECT_THAT(find(missing, missing), ElementsAre("/dev/md_d0p1 ", "/dev/md_d0p2 ", "/dev/md_d0p3 "));
}

TEST(SystemTime, DatesAreLocalCalendarDates) {
  const CEnvironmentVariable zone("TZ", "XST-2");  // two hours ahead
  tzset();
  const KVTX::CDate date = CSystemTime_Lx::GetDate(1'735'689'599'000);
  EXPECT_EQ((std::array{date.m_Year, date.m_Month, date.m_Day, date.m_Weekday, date.m_DayOfYear, date.m_Hour,
                        date.m_Minute, date.m_Second}),
            (std::array{2025, 1, 1, 3, 1, 1, 59, 59}));
  EXPECT_GT(CSystemTime_Lx::Now(), 1'700'000'000'000U) << "milliseconds, not seconds";
}

}  // namespace
