/// @file
/// What is shipped beside the programs: installation, man page, completion.

#include <gmock/gmock.h>

#include <regex>

#include "Program.h"

namespace rvxctl_test {

namespace {

using testing::HasSubstr;

/// Every command that is none of others ({"disk", "list"}), as --help tells.
void CollectCommands(const Words& above, std::vector<Words>& commands) {
  Words words = above;
  words.push_back("--help");
  const std::string help = Rvxctl(words).m_Out;
  const std::size_t list = help.find("Subcommands:\n");
  if (list == std::string::npos) return commands.push_back(above);
  const std::regex name(R"(\n  ([a-z-]+) )");
  const std::string text = help.substr(list, help.find("\n\n", list) - list);
  for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match) {
    words.back() = (*match)[1];
    CollectCommands(words, commands);
  }
}

TEST(Package, ManPageAndCompletionKnowEveryCommand) {
  std::vector<Words> commands;
  CollectCommands({}, commands);
  EXPECT_GT(commands.size(), 20U);
  const std::string manual = ReadFile(RVX_SOURCE_DIR "/docs/rvxctl.8");
  for (const Words& command : commands) {
    std::string above;
    for (std::size_t i = 0; i + 1 < command.size(); ++i) above += command[i] + " ";
    EXPECT_THAT(manual, HasSubstr(".It Cm " + above + command.back()));
    // Asks the completion for the last word of the command.
    CProgram completion({"bash", "-c",
                         "source \"$0\"; COMP_WORDS=(rvxctl --simulate = machine $1 \"\"); "
                         "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _rvxctl; echo \" ${COMPREPLY[*]} \"",
                         RVX_SOURCE_DIR "/packaging/rvxctl.bash", above});
    EXPECT_EQ(completion.Wait(), 0);
    EXPECT_THAT(completion.Out(), HasSubstr(" " + command.back() + " ")) << above;
  }
}

TEST(Package, InstalledPiecesFindEachOther) {
  const CTemporaryFolder folder;
  CProgram install({"cmake", "--install", RVX_BINARY_DIR, "--prefix", folder.Path("usr")});
  ASSERT_EQ(install.Wait(), 0) << install.Err();
  for (const char* file : {"share/zq/piRVX.nls", "share/man/man8/rvxctl.8"})
    EXPECT_TRUE(std::filesystem::exists(folder.Path("usr/") + file)) << file;
  CProgram program({folder.Path("usr/bin/rvxctl"), "--simulate", "--trace", "2", "levels"});
  EXPECT_EQ(program.Wait(), 0) << program.Err();
  EXPECT_THAT(program.Out(), HasSubstr("RAID 1 (mirror)"));
}

}  // namespace

}  // namespace rvxctl_test
