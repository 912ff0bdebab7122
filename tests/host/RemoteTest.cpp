/// @file
/// rvxctl by way of rvxd: it says what it says without.

#include <gmock/gmock.h>
#include <signal.h>

#include <regex>
#include <sstream>

#include "Program.h"

namespace {

using testing::HasSubstr;

/// rvxd on a machine that belongs to the tests, or on a file.
class CDaemon {
 public:
  explicit CDaemon(const std::string& machine)
      : m_Program({RVXD, machine, "--socket", Socket(), "--state", m_Folder.Path() + "/state"}) {
    EXPECT_TRUE(Eventually([&] {
      return Rvxctl({"--socket", Socket(), "status"}).m_Status == 0;
    })) << m_Program.Err();
  }
  ~CDaemon() {
    ::kill(m_Program.Process(), SIGTERM);
    EXPECT_EQ(m_Program.Wait(), 0) << m_Program.Err();
  }
  CDaemon(const CDaemon&) = delete;
  CDaemon& operator=(const CDaemon&) = delete;

  std::string Socket() const { return m_Folder.Path() + "/rvxd.sock"; }

 private:
  const CTemporaryFolder m_Folder;
  CProgram m_Program;
};

Words WordsOf(const std::string& line) {
  std::istringstream stream(line);
  Words words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

/// All that a person or script has of it; counters are each program's own.
std::string SaidBy(const Words& machine, const std::string& command) {
  Words words = machine;
  for (const std::string& word : WordsOf(command)) words.push_back(word);
  const SResult result = Rvxctl(words);
  return "exit " + std::to_string(result.m_Status) + "\n" +
         std::regex_replace(result.m_Out, std::regex("\"updateCounter\": \\d+"), "") + result.m_Err;
}

class RemoteMachine : public testing::TestWithParam<const char*> {};

TEST_P(RemoteMachine, EveryViewAndPlanIsTheSameBothWays) {
  constexpr const char* COMMANDS[] = {"topology",
                                      "status",
                                      "status --only-problems",
                                      "disk list --ready",
                                      "disk list --failed",
                                      "disk list --columns name,array --no-headings --bytes",
                                      "disk list --columns bogus",
                                      "disk list --array md_d1",
                                      "array list",
                                      "adapter show",
                                      "plugin show",
                                      "disk show sda",
                                      "disk show nosuch",
                                      "array show md_d1",
                                      "operations md_d1",
                                      "operations sda",
                                      "operations adapter",
                                      "prop get sda",
                                      "prop get plugin 30005",
                                      "prop get sda 4",
                                      "levels",
                                      "check",
                                      "check --warn-smart 50",
                                      "array watch nosuch",
                                      "array create --level raid1 sda sdb --dry-run",
                                      "array create --level raid1 sda --dry-run",
                                      "array create --level raid9 sda sdb --dry-run",
                                      "array create --level raid0 --stripe 16 sdb sda --dry-run",
                                      "array delete md_d1 --dry-run",
                                      "array delete --all --dry-run",
                                      "spare add sdc md_d1 --dry-run",
                                      "spare release sda --dry-run",
                                      "rebuild start md_d1 --dry-run",
                                      "rebuild cancel md_d1 --dry-run",
                                      "array create --level raid1 sda sdb --yes --if-unchanged other"};
  const CDaemon daemon(Simulate(GetParam()));
  for (const std::string command : COMMANDS)
    for (const std::string& words : {command, "--json " + command})
      EXPECT_EQ(SaidBy({"--socket", daemon.Socket()}, words), SaidBy({Simulate(GetParam())}, words)) << words;
}
INSTANTIATE_TEST_SUITE_P(Machines, RemoteMachine, testing::Values("arrays", "plain", "rules", "lost"),
                         [](const auto& machine) { return std::string(machine.param); });

TEST(Remote, ChangesAreTheSameBothWays) {
  const CTemporaryFolder folder;
  const std::string machine = ReadFile(RVX_SOURCE_DIR "/tests/host/machines/plain.json");
  const std::string direct = "--simulate=" + folder.Write("direct.json", machine);
  const CDaemon daemon("--simulate=" + folder.Write("remote.json", machine));
  for (const std::string command :
       {"array create --level raid1 sda sdb --yes", "array create --level raid1 sda sdc --yes", "rescan",
        "spare add sdc md_d0 --yes", "spare release sda --yes", "--json spare release sdc --yes",
        "array delete --yes", "--json array delete md_d0 --yes", "array delete md_d0 --yes"})
    EXPECT_EQ(SaidBy({"--socket", daemon.Socket()}, command), SaidBy({direct, "--save"}, command)) << command;
}

TEST(Remote, WhoFollowsMissesNothing) {
  const CDaemon daemon(Simulate("short_resync"));
  const auto at = [&](const std::string& command) { return SaidBy({"--socket", daemon.Socket()}, command); };
  EXPECT_THAT(at("array watch md_d0"), HasSubstr("md_d0: completed"));
  const SResult all = Rvxctl({"--socket", daemon.Socket(), "events", "--json"});
  const auto events = all.Json()["data"];
  ASSERT_GE(events.size(), 2U);
  const SResult rest = Rvxctl({"--socket", daemon.Socket(), "events", "--json", "--since", events[0]["id"]});
  EXPECT_EQ(rest.Json()["data"], nlohmann::json(events.begin() + 1, events.end()));
  CProgram follower(
      RvxctlWords({"--socket", daemon.Socket(), "events", "--follow", "--since", events[0]["id"]}));
  EXPECT_TRUE(follower.ReadUntil(events.back()["text"])) << follower.Err();
  EXPECT_THAT(at("array delete md_d0 --yes"), HasSubstr("Deleted md_d0."));
  EXPECT_TRUE(follower.ReadUntil("md_d0 is gone")) << follower.Out();
  ::kill(follower.Process(), SIGTERM);
  EXPECT_EQ(follower.Wait(), -SIGTERM);
  EXPECT_THAT(at("events --since 00000000-7"), HasSubstr("exit 3"));
}

TEST(Remote, AnyAnswerIsPrinted) {
  const CDaemon daemon(Simulate("plain"));
  const auto api = [&](Words words) {
    words.insert(words.begin(), {"--socket", daemon.Socket(), "api"});
    return Rvxctl(words);
  };
  EXPECT_EQ(api({"GET", "/v1/arrays"}).Json()["arrays"], nlohmann::json::array());
  const SResult none = api({"GET", "/v1/arrays/md_d0"});
  EXPECT_EQ(none.m_Status, 3);
  EXPECT_EQ(none.Json()["status"], 404);
  EXPECT_EQ(api({"POST", "/v1/plans", "--data", "{}"}).m_Status, 2);
  const SResult away = Rvxctl({"--socket", daemon.Socket() + ".not", "status"});
  EXPECT_EQ(away.m_Status, 9);
  EXPECT_THAT(away.m_Err, HasSubstr("No such file or directory; --direct looks at the machine without it"));
}

}  // namespace
