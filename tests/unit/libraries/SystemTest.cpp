// The extended toolkit: programs, partitions, time.
#include <gmock/gmock.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

#include <csignal>
#include <thread>

#include "KVT/Threading.h"
#include "libraries/zqKVTX/CommandRunner.h"
#include "libraries/zqKVTX/Partitions.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using namespace KVTX;
using namespace KVTX::Internal;
using NAMESPACE_piRVX::CFailingCall;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto DEADLINE = 10s;

/// Runs shell scripts, as programs with known behaviour.
class Command : public testing::Test {
 protected:
  SCommandResult Run(const std::string& script, const SCommandLimits& limits = {.m_Time = DEADLINE},
                     const std::string& arguments = {}) const {
    return RunCommand("/bin/sh", m_Folder.Write("script", script) + ' ' + arguments, limits);
  }
  static bool NoChildIsLeft() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }
  /// The process whose number a script wrote to the file.
  pid_t ID() const { return std::stoi(m_Folder.Read("id")); }
  bool IsGone() const {
    std::string status;
    std::ifstream stream("/proc/" + std::to_string(ID()) + "/stat");
    return !std::getline(stream, status) || status.find(") Z") != std::string::npos;
  }

  const CTemporaryFolder m_Folder;
  const std::string m_ToFile = " > " + m_Folder.Path("id") + "\n";
};

TEST_F(Command, ResultTellsHowItEnded) {
  // A script, its arguments, the result and the lines.
  const std::tuple<const char*, const char*, int, std::vector<std::string>> cases[] = {
      {"echo out; echo err >&2", "", 1, {"out"}},
      {"echo $#-$1-$2; echo err >&2", "  a \t b  2>&1 ", 1, {"2-a-b", "err"}},
      {"echo \"$1\"", "$HOME;`id`|'x'>f", 1, {"$HOME;`id`|'x'>f"}},  // no shell looks at arguments
      {"echo; printf 'a\\r\\n\\nlast'", "", 1, {"", "a", "", "last"}},
      {"echo partly; exit 3", "", 2, {"partly"}},
      {"cat; echo $?", "", 1, {"0"}},  // standard input is empty
      {"echo $LC_ALL:$PATH:$SECRET", "", 1, {"C:/usr/sbin:/usr/bin:/sbin:/bin:"}},
      // the server's descriptors and its signal set-up end at the child
      {"exec ls /proc/self/fd", "", 1, {"0", "1", "2", "3"}},
      {"kill -TERM $$; echo survived", "", 2, {}},
      {"kill -HUP $$; echo survived", "", 2, {}},
  };
  const CEnvironmentVariable secret("SECRET", "not for children");
  using std::filesystem::directory_iterator;
  const auto count = [] { return std::distance(directory_iterator("/proc/self/fd"), directory_iterator()); };
  const int inherited = dup(STDERR_FILENO);
  const auto before = count();
  sigset_t all, former;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &former);
  std::signal(SIGHUP, SIG_IGN);
  for (const bool taken : {false, true}) {  // where SIGCHLD is ignored, the kernel takes the status away
    std::signal(SIGCHLD, taken ? SIG_IGN : SIG_DFL);
    for (const auto& [script, arguments, status, lines] : cases) {
      const SCommandResult result = Run(script, {.m_Time = DEADLINE}, arguments);
      EXPECT_EQ(result.m_Result, taken ? 1 : status) << script;
      EXPECT_EQ(result.m_Lines, lines) << script;
    }
  }
  for (const int signal : {SIGCHLD, SIGHUP}) std::signal(signal, SIG_DFL);
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
  EXPECT_TRUE(NoChildIsLeft());
  EXPECT_EQ(count(), before) << "descriptors";
  close(inherited);
}

TEST_F(Command, ThatCannotBeStartedGivesZeroAndOneThatRunsOnIsGivenThreeSeconds) {
  std::vector<std::string> lines{"old"};
  EXPECT_EQ(CSystem::ExecuteCommand(m_Folder.Write("no-program", "text"), "x", lines), 0);
  EXPECT_TRUE(lines.empty());
  const auto start = steady_clock::now();
  EXPECT_EQ(CSystem::ExecuteCommand("/bin/sleep", "12", lines), 130);
  EXPECT_TRUE(steady_clock::now() >= start + 3s && steady_clock::now() < start + 10s);
}

/// Leaves its process group, and prints more than a limit.
const std::string DESERTER =
    "exec perl -e 'setpgrp 0, getpgrp getppid; syswrite STDOUT, \"partly\\n\" x 999; sleep 20'";
const SCommandLimits LITTLE{DEADLINE, 1 << 10, 1s, 1};

TEST_F(Command, LimitsEndAProgramWithItsChildren) {
  const std::tuple<std::string, SCommandLimits, int> cases[] = {
      {"echo partly; exec >&- 2>&-; sleep 1000", SCommandLimits{500ms}, 130},
      {"trap '' TERM HUP INT; echo partly; sleep 1000", SCommandLimits{500ms}, 130},
      {"echo partly; while :; do echo again; done", LITTLE, 2},
      {DESERTER, LITTLE, 2}};
  for (const auto& [script, limits, expected] : cases) {
    const SCommandResult result = Run("sleep 1000 & echo $!" + m_ToFile + script, limits);
    EXPECT_EQ(result.m_Result, expected) << script;
    EXPECT_THAT(result.m_Lines, testing::Contains("partly")) << script;
    ASSERT_TRUE(Eventually([&] { return IsGone(); })) << script;
    EXPECT_TRUE(NoChildIsLeft()) << script;
  }
}

TEST_F(Command, ThatDoesNotDieIsLeftButNotForgotten) {
  const CFailingCall lost(CFailingCall::SIGNAL_PROCESS);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Run("echo $$" + m_ToFile + DESERTER, LITTLE).m_Result, 2);
  EXPECT_EQ(Run("echo the same script").m_Result, 130);
  for (const char* word : {"first", "second"}) EXPECT_EQ(RunCommand("/bin/echo", word, LITTLE).m_Result, 0);
  EXPECT_EQ(RunCommand("/bin/echo", "third", {}).m_Result, 1);
  const std::string log = testing::internal::GetCapturedStderr(),
                    told = "no other is started (/bin/echo first)";
  EXPECT_THAT(log, testing::HasSubstr(told));
  EXPECT_EQ(log.find("no other is started"), log.rfind("no other is started"));
  kill(ID(), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return Run("echo out", LITTLE).m_Result == 1; }));
  EXPECT_TRUE(NoChildIsLeft());
}

TEST_F(Command, ManyLinesArriveAndAGrandchildThatHoldsTheOutputDelaysNothing) {
  const SCommandResult result = Run("seq 20000; sleep 1000 & echo $!");
  EXPECT_EQ(result.m_Result, 1) << "not ended by the limit";
  ASSERT_EQ(result.m_Lines.size(), 20001U);
  kill(std::stoi(result.m_Lines.back()), SIGKILL);
}

TEST_F(Command, CancellationKillsAndReaps) {
  // Joined by the C library: the thread sanitizer loses what a thread does after it was cancelled in poll().
  std::string script = m_Folder.Write("script", "echo $$" + m_ToFile + "sleep 1000");
  const auto run = [](void* arguments) -> void* {
    RunCommand("/bin/sh", *static_cast<std::string*>(arguments), {});
    return nullptr;
  };
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, nullptr, run, &script), 0);
  EXPECT_TRUE(Eventually([&] { return m_Folder.Read("id").ends_with('\n'); }));
  pthread_cancel(thread);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_TRUE(IsGone());
  EXPECT_TRUE(NoChildIsLeft());
}

TEST(Partitions, AreListedByNumberWithTheirUse) {
  const CTemporaryFolder folder;
  for (const std::string name : {"md_d0p10", "md_d0p2", "md_d0p3", "cciss!c0d0p1"}) {
    const std::string number = name.substr(name.rfind('p') + 1) + "\n";
    folder.Write("sysfs/" + name + "/partition", number);
    folder.Write("sysfs/" + name + "/dev", "253:" + number);
  }
  folder.Write("sysfs/queue/rotational", "0\n");
  folder.Write("sysfs/broken/partition", "x\n");
  folder.Write("sysfs/half/partition", "3\n");
  folder.Write("mounts",
               "20 1 8:1 / / rw - ext4 /dev/root rw\n"
               "21 20 253:0 / /whole rw - ext4 /dev/md_d0 rw\n"
               "22 20 253:1 / /with\\040blank rw - xfs /dev/disk/by-id/x rw\n"
               "23 20 253:1 / /second rw - xfs /dev/cciss/c0d0p1 rw\n"
               "24 20 0:55 / /pool rw - btrfs /dev/md_d0p2 rw\n");
  folder.Write("swaps", "Filename Type Size Used Priority\n/dev/md_d0p3 partition 1023996 0 -2\n");
  auto nodes = ReadPartitions(folder.Path("sysfs"));
  nodes.insert(nodes.begin(), {"/dev/md_d0", makedev(253, 0)});
  const auto find = [&](const std::string& mounts, const std::string& swaps) {
    std::string found;
    for (const CPartition& partition : FindMountPoints(nodes, folder.Path(mounts), folder.Path(swaps)))
      found += partition.m_Device.substr(5) + '=' + partition.m_MountPoint + ' ';
    return found;
  };
  EXPECT_EQ(find("mounts", "swaps"),
            "md_d0=/whole cciss/c0d0p1=/with blank md_d0p2=/pool md_d0p3=[SWAP] md_d0p10= ");
  EXPECT_EQ(find("none", "none"), "cciss/c0d0p1= md_d0p2= md_d0p3= md_d0p10= ");
}

TEST(SystemTime, DatesAreLocalCalendarDates) {
  const CEnvironmentVariable zone("TZ", "XST-2");  // two hours ahead
  tzset();
  const CDate date = CSystemTime_Lx::GetDate(1'735'689'599'000);
  EXPECT_EQ((std::array{date.m_Year, date.m_Month, date.m_Day, date.m_Weekday, date.m_DayOfYear, date.m_Hour,
                        date.m_Minute, date.m_Second}),
            (std::array{2025, 1, 1, 3, 1, 1, 59, 59}));
  EXPECT_GT(CSystemTime_Lx::Now(), 1'700'000'000'000U) << "milliseconds, not seconds";
}

}  // namespace
