/// @file
/// What the documents tell people to type.

#include <gmock/gmock.h>

#include <sstream>

#include "Program.h"

namespace {

/// Commands that ask are answered, and a machine is simulated where none is named.
constexpr char PREAMBLE[] = R"(
rvxctl() {
    local more=()
    case " $* " in *' --simulate='*) ;; *) more=(--simulate=machine.json --save) ;; esac
    case " $* " in *' array create '* | *' array delete '* | *' spare '*) more+=(--yes) ;; esac
    case " $* " in *' playground '*) rm -f machine.json ;; esac
    "$RVXCTL" "$@" "${more[@]}"
}
)";

/// The script that a page's blocks make: a comment before them says on which machine they run; those of an
/// installed one are run by tests/vm/install.sh. What a block of text shows behind a command must be what the
/// command says.
std::string ScriptOf(const std::string& page, std::size_t& blocks) {
  std::istringstream text(page);
  std::string script = PREAMBLE;
  std::string block;  // the language of the one that is open
  bool isElsewhere = false;
  for (std::string line; std::getline(text, line);) {
    if (const std::string mark = "<!-- playground: "; line.starts_with(mark))
      script += "rvxctl --simulate=machine.json playground " +
                line.substr(mark.size(), line.find(' ', mark.size()) - mark.size()) + "\n";
    isElsewhere |= line == "<!-- machine: installed -->";
    if (isElsewhere) {
      isElsewhere = line != "```";
    } else if (line.starts_with("```")) {
      if (block == "text") script += "END\n";
      block = block.empty() ? line.substr(3) : "";
      EXPECT_TRUE(block.empty() || block == "sh" || block == "text") << "nobody runs " << line;
      ++blocks;
    } else if (block == "text" && line.starts_with("$ ")) {
      script += line.substr(2) + " >shown; diff shown - <<'END'\n";
    } else if (!block.empty()) {
      script += line + "\n";
    }
  }
  return script;
}

TEST(Guide, EveryCommandBlockOfThePagesRuns) {
  for (const auto& [page, least] : {std::pair{"docs/operator.md", 12U}, {"README.md", 4U}}) {
    const CTemporaryFolder folder;
    folder.Write("piRVX.ini", "PollInterval=2\n");
    std::size_t blocks = 0;
    const std::string script = ScriptOf(ReadFile(std::string(RVX_SOURCE_DIR "/") + page), blocks);
    const std::string path = RvxctlWords({}).back();
    const SResult result =
        ResultOf({"env", "--chdir=" + folder.Path(), "RVXCTL=" + path, "ZQ_CONFIG_DIR=" + folder.Path(),
                  "bash", "-euxo", "pipefail", "-c", script});
    EXPECT_EQ(result.m_Status, 0) << page << result.m_Out << result.m_Err;
    EXPECT_GE(blocks, least) << page;
  }
}

}  // namespace
