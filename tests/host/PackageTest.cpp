/// @file
/// What is shipped beside the programs: installation, man page, completion, catalogue.

#include <gmock/gmock.h>

#include <regex>
#include <set>

#include "Program.h"

namespace {

using testing::HasSubstr;

std::set<std::string> Matches(const std::string& text, const char* form) {
  const std::regex regex(form);
  std::set<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
    found.insert((*match)[1]);
  return found;
}

/// Every command that is none of others (" disk list"), as --help tells.
void CollectCommands(const std::string& above, Words& commands) {
  const std::string help = ResultOf({"bash", "-c", "\"$0\"" + above + " --help", RVXCTL}).m_Out;
  const std::size_t list = help.find("Subcommands:\n");
  if (list == std::string::npos) return commands.push_back(above);
  for (const std::string& name :
       Matches(help.substr(list, help.find("\n\n", list) - list), R"(\n  ([a-z-]+) )"))
    CollectCommands(above + " " + name, commands);
}

TEST(Package, TheManPageKnowsEveryCommand) {
  Words commands;
  CollectCommands("", commands);
  EXPECT_GT(commands.size(), 20U);
  const std::string manual = ReadFile(RVX_SOURCE_DIR "/docs/rvxctl.8");
  for (const std::string& command : commands) {
    EXPECT_THAT(manual, HasSubstr(".It Cm" + command));
  }
}

TEST(Package, EveryHelpHasAnExampleThatRunsAndFitsTheTerminal) {
  const CTemporaryFolder folder;
  Words commands;
  CollectCommands("", commands);
  for (const std::string& command : commands) {
    const std::string script = "set -o pipefail; \"$0\" help" + command +
                               " | awk 'length > 80 {exit 9} /^  rvxctl / {print substr($0, 9)}'";
    const SResult example = ResultOf({"bash", "-c", script, RVXCTL});
    EXPECT_EQ(example.m_Status, 0) << command << " has a line that is too long";
    EXPECT_THAT(example.m_Out, HasSubstr(command)) << command;
    const std::string run = "cd '" + folder.Path() + "'; \"$0\"" +
                            (example.m_Out.find("--simulate") == std::string::npos ? " --simulate" : "") +
                            example.m_Out;
    const int status = ResultOf({"bash", "-c", run, RVXCTL}).m_Status;
    // Those that are asked about end as not confirmed; the demonstration is busy, and its kernel rebuilds by
    // itself. rvxd does not run here.
    const bool isOfRvxd = std::regex_search(command, std::regex("^ (api|condition|notify|spare expect)"));
    EXPECT_THAT(status, isOfRvxd ? testing::Matcher<int>(9) : testing::AnyOf(0, 4, 5, 6)) << command;
  }
}

TEST(Package, TheCatalogueHasATextForEveryNumber) {
  const std::string root = RVX_SOURCE_DIR;
  const auto texts = Matches(ReadFile(root + "/catalog/piRVX.nls"), R"((?:^|\n)(\d+) = \S)");
  auto numbers = Matches(ReadFile(root + "/framework/PI/Numbers.h"), R"(\b[A-Z_0-9]+ = ([1-5]\d{4})\b)");
  // Labels, confirmations and texts of states stand in the tables of the plug-in.
  for (const auto& entry : std::filesystem::directory_iterator(root + "/Src"))
    if (entry.path().extension() == ".cpp")
      numbers.merge(Matches(std::regex_replace(ReadFile(entry.path()), std::regex("//[^\n]*"), ""),
                            R"(\b(2[0-4]\d{3})\b)"));
  EXPECT_GT(numbers.size(), 190U);
  numbers.erase("22006");  // where the confirmations that are warnings begin
  numbers.erase("24999");  // a time in ms
  for (const std::string& number : numbers) EXPECT_TRUE(texts.contains(number)) << number;
}

TEST(Package, InstalledPiecesFindEachOther) {
  const CTemporaryFolder folder;
  const SResult install = ResultOf({"cmake", "--install", RVX_BINARY_DIR, "--prefix", folder.Path("usr")});
  ASSERT_EQ(install.m_Status, 0) << install.m_Err;
  for (const char* file :
       {"share/zq/piRVX.nls", "share/man/man8/rvxctl.8", "share/bash-completion/completions/rvxctl",
        "share/zsh/vendor-completions/_rvxctl", "share/fish/vendor_completions.d/rvxctl.fish"})
    EXPECT_TRUE(std::filesystem::exists(folder.Path("usr/") + file)) << file;
  const SResult result = ResultOf({folder.Path("usr/bin/rvxctl"), "--simulate", "levels"});
  EXPECT_THAT(result.m_Out, HasSubstr("RAID 1 (mirror)")) << result.m_Err;
  EXPECT_EQ(ResultOf({"find", folder.Path("usr"), "-name", "libpiRVXsim.so", "-delete"}).m_Status, 0);
  EXPECT_THAT(ResultOf({folder.Path("usr/bin/rvxctl"), "--simulate", "levels"}).m_Err,
              HasSubstr("pirvx-sim: install it"));
}

}  // namespace
