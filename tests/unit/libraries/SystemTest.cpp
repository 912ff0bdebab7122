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
      {"true", "", 1, {}},
      {"echo out; echo err >&2", "", 1, {"out"}},
      {"echo out; echo err >&2", "2>&1", 1, {"out", "err"}},
      {"echo $#-$1-$2", "  a \t b  2>&1 ", 1, {"2-a-b"}},
      {"echo \"$1\"", "$HOME;`id`|'x'>f", 1, {"$HOME;`id`|'x'>f"}},  // no shell looks at arguments
      {"echo; printf 'a\\r\\n\\nlast'", "", 1, {"", "a", "", "last"}},
      {"echo partly; exit 3", "", 2, {"partly"}},
      {"echo partly; kill -TERM $$", "", 2, {"partly"}},
      {"cat; echo $?", "", 1, {"0"}},  // standard input is empty
      {"echo $LC_ALL:$PATH:$SECRET", "", 1, {"C:/usr/sbin:/usr/bin:/sbin:/bin:"}},
  };
  const CEnvironmentVariable secret("SECRET", "not for children");
  for (const auto& test : cases) {
    const SCommandResult result = Run(test.m_Script, test.m_Arguments);
    EXPECT_EQ(result.m_Result, test.m_Result) << test.m_Script;
    EXPECT_EQ(result.m_Lines, test.m_Lines) << test.m_Script;
  }
  EXPECT_TRUE(NoChildIsLeft());
}

TEST_F(Command, WhatCannotBeStartedGivesZero) {
  const std::string noProgram = m_Folder.Write("no-program", "text");
  std::vector<std::string> lines{"old"};
  for (const std::string& path : {std::string("/no/such/program"), m_Folder.Path(), noProgram}) {
    EXPECT_EQ(CSystem::ExecuteCommand(path, "x", lines), 0) << path;
    EXPECT_THAT(lines, IsEmpty());
  }
  EXPECT_EQ(CSystem::ExecuteCommand("/bin/echo", "x", lines), 1);
  EXPECT_THAT(lines, ElementsAre("x"));
  EXPECT_TRUE(NoChildIsLeft());
}

TEST_F(Command, ManyLinesArriveInFull) {
  const SCommandResult result = Run("i=0; while [ $i -lt 20000 ]; do echo line $i; i=$((i+1)); done");
  ASSERT_EQ(result.m_Result, 1);
  ASSERT_EQ(result.m_Lines.size(), 20000U);
  EXPECT_EQ(result.m_Lines.back(), "line 19999");
}

TEST_F(Command, LimitsEndAProgramWithItsChildren) {
  const SCommandLimits shortTime{std::chrono::milliseconds(300), 1 << 20};
  const struct {
    const char* m_Name;
    std::string m_Script;
    SCommandLimits m_Limits;
  } cases[] = {
      {"hangs", "echo partly; sleep 1000", shortTime},
      {"closed its output and hangs", "echo partly; exec >&- 2>&-; sleep 1000", shortTime},
      {"will not be asked", "trap '' TERM HUP INT; echo partly; sleep 1000", shortTime},
      {"prints for ever",
       "echo partly; while :; do echo again; done",
       {std::chrono::milliseconds(DEADLINE), 1 << 16}},
  };
  for (const auto& test : cases) {
    const std::string ids = m_Folder.Path("id");
    std::filesystem::remove(ids);
    const SCommandResult result =
        Run("sleep 1000 & echo $! > " + ids + '\n' + test.m_Script, {}, test.m_Limits);
    EXPECT_EQ(result.m_Result, 2) << test.m_Name;
    ASSERT_FALSE(result.m_Lines.empty()) << test.m_Name;
    EXPECT_EQ(result.m_Lines.front(), "partly") << test.m_Name;
    EXPECT_TRUE(IsGone(ReadID("id"))) << test.m_Name;
    EXPECT_TRUE(NoChildIsLeft()) << test.m_Name;
  }
}

TEST_F(Command, AGrandchildThatHoldsTheOutputDelaysNothing) {
  const auto start = std::chrono::steady_clock::now();
  const SCommandResult result = Run("sleep 1000 & echo $!");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(DEADLINE));
  EXPECT_EQ(result.m_Result, 1);
  ASSERT_EQ(result.m_Lines.size(), 1U);
  kill(std::stoi(result.m_Lines[0]), SIGKILL);
}

TEST_F(Command, TheServersSignalSetUpEndsAtTheChild) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto handler = std::signal(SIGHUP, SIG_IGN);
  const SCommandResult blockedOne = Run("kill -TERM $$; echo survived");
  const SCommandResult ignoredOne = Run("kill -HUP $$; echo survived");
  std::signal(SIGHUP, handler);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_THAT(blockedOne.m_Lines, IsEmpty());
  EXPECT_THAT(ignoredOne.m_Lines, IsEmpty());
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
  const std::pair<const char*, const char*> partitions[] = {
      {"md_d0p10", "10"}, {"md_d0p2", "2"}, {"cciss!c0d0p1", "1"}};
  for (const auto& [name, number] : partitions) {
    sysfs.Write(std::string(name) + "/partition", std::string(number) + "\n");
    sysfs.Write(std::string(name) + "/dev", std::string("253:") + number + "\n");
  }
  sysfs.Write("queue/rotational", "0\n");
  sysfs.Write("broken/partition", "x\n");
  sysfs.Write("half/partition", "3\n");
  std::vector<std::string> found;
  for (const auto& node : KVTX::Internal::ReadPartitions(sysfs.Path()))
    found.push_back(node.m_Device + " " + std::to_string(major(node.m_Number)) + ":" +
                    std::to_string(minor(node.m_Number)));
  EXPECT_THAT(found, ElementsAre("/dev/cciss/c0d0p1 253:1", "/dev/md_d0p2 253:2", "/dev/md_d0p10 253:10"));
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
  const std::string nothing = folder.Write("nothing", "");
  const std::vector<KVTX::Internal::SBlockNode> nodes{{"/dev/md_d0", makedev(253, 0)},
                                                      {"/dev/md_d0p1", makedev(253, 1)},
                                                      {"/dev/md_d0p2", makedev(253, 2)},
                                                      {"/dev/md_d0p3", makedev(253, 3)},
                                                      {"/dev/md_d0p4", makedev(253, 4)}};
  const auto find = [&nodes](const std::string& mountInfo, const std::string& swapFile) {
    std::vector<std::string> found;
    for (const CPartition& partition : KVTX::Internal::FindMountPoints(nodes, mountInfo, swapFile)) {
      EXPECT_EQ(partition.m_DriveLetter, "");
      found.push_back(partition.m_Device + ' ' + partition.m_MountPoint);
    }
    return found;
  };
  EXPECT_THAT(find(mounts, swaps), ElementsAre("/dev/md_d0 /whole", "/dev/md_d0p1 /with blank",
                                               "/dev/md_d0p2 /pool", "/dev/md_d0p3 [SWAP]", "/dev/md_d0p4 "));
  for (const std::string& none : {nothing, folder.Path("missing")})
    EXPECT_THAT(find(none, none),
                ElementsAre("/dev/md_d0p1 ", "/dev/md_d0p2 ", "/dev/md_d0p3 ", "/dev/md_d0p4 "));
}

TEST(Partitions, OfWhatIsNoBlockDeviceAreNone) {
  for (const char* device : {"/dev/null", "/no/such/device", "", "/proc"})
    EXPECT_THAT(CSystemPartitionTable::GetPartitions(device), IsEmpty()) << device;
}

TEST(SystemTime, DatesAreLocalCalendarDates) {
  const struct {
    const char* m_Zone;
    std::uint64_t m_Milliseconds;
    std::array<std::int32_t, 8> m_Date;
  } cases[] = {
      {"UTC0", 0, {1970, 1, 1, 4, 1, 0, 0, 0}},
      {"UTC0", 951'868'799'999, {2000, 2, 29, 2, 60, 23, 59, 59}},
      {"UTC0", 1'735'689'599'000, {2024, 12, 31, 2, 366, 23, 59, 59}},
      {"XST-2", 1'735'689'599'000, {2025, 1, 1, 3, 1, 1, 59, 59}},  // two hours ahead
      {"UTC0", 4'102'444'800'000, {2100, 1, 1, 5, 1, 0, 0, 0}},
  };
  for (const auto& test : cases) {
    const CEnvironmentVariable zone("TZ", test.m_Zone);
    tzset();
    const KVTX::CDate date = CSystemTime_Lx::GetDate(test.m_Milliseconds);
    EXPECT_EQ((std::array{date.m_Year, date.m_Month, date.m_Day, date.m_Weekday, date.m_DayOfYear,
                          date.m_Hour, date.m_Minute, date.m_Second}),
              test.m_Date)
        << test.m_Milliseconds;
  }
  tzset();
  const std::uint64_t now = CSystemTime_Lx::Now();
  EXPECT_GT(now, 1'700'000'000'000U);  // milliseconds, not seconds
  EXPECT_LT(now, 100'000'000'000'000U);
}

}  // namespace
