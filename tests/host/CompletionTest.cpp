/// @file
/// What the shells offer behind rvxctl, and where the names come from.

#include <gmock/gmock.h>

#include <map>

#include "Program.h"
#include "rvxctl/Completion.h"

namespace {

/// A shell with a terminal that knows rvxctl's completion.
class CShell : public CProgram {
 public:
  CShell(const CTemporaryFolder& folder, Words shell, const std::string& setup)
      : CProgram(
            [&] {
              Words words{
                  "env", "TERM=dumb", "PS1=$ ", "HOME=" + folder.Path(),
                  "PATH=" + std::filesystem::path(RVXCTL).parent_path().string() + ":" + std::getenv("PATH")};
              words.insert(words.end(), shell.begin(), shell.end());
              return words;
            }(),
            true) {
    Resize(24, 250);
    Type(setup + "; echo rea''dy\n");
  }
};

TEST(Completion, ThreeShellsCompleteTheSame) {
  const CTemporaryFolder folder;
  const std::string packaging = RVX_SOURCE_DIR "/packaging/rvxctl.";
  folder.Write("_rvxctl", ReadFile(packaging + "zsh"));
  folder.Write("machine.json", "{}");
  const std::pair<Words, std::string> shells[] = {
      {{"bash", "--norc", "--noprofile", "-i"},
       ". /usr/share/bash-completion/bash_completion; . " + packaging + "bash"},
      {{"zsh", "-f", "-i"}, "fpath=(" + folder.Path() + " $fpath); autoload -Uz compinit; compinit -u -D"},
      {{"fish", "-i"}, "source " + packaging + "fish"}};
  const std::pair<std::string, const char*> lines[] = {
      {"rvxctl --simulate spare release ", "sde"},
      {"rvxctl --simulate array create --level=li", "near"},
      {"rvxctl --simulate=" + folder.Path("mach"), "ine.json"},
      {"sudo rvxctl --simulate spare release ", "sde"}};
  for (const auto& [words, setup] : shells) {
    CShell shell(folder, words, setup);
    ASSERT_TRUE(shell.ReadUntil("ready\r")) << words.front() << shell.Out();
    for (const auto& [line, inserted] : lines) {
      shell.Type(line + "\t");
      ASSERT_TRUE(shell.ReadUntil(line + inserted)) << words.front() << shell.Out();
      shell.Type("\x15");
    }
  }
}

TEST(Completion, OffersWhatTheOperationCanTake) {
  const std::pair<const char*, const char*> cases[] = {
      {"spare add ''", "sdf\nsdg\nsdh\n"},
      {"spare add sdf ''", "md_d1\n"},
      {"array create --level raid0 sdg ''", "sdf\nsdh\n"},
      {"array create --stripe 3", "32\n"},
      {"array create --if", "--if-unchanged\n"},
      {"rebuild cancel ''", ""},
      {"disk list --array ''", "md_d0\nmd_d1\n"},
      {"disk list --columns name,s", "name,serial\nname,size\nname,status\n"},
      {"array list --columns=size,s", "--columns=size,status\n"},
      {"disk locate sda o", "off\non\n"},
      {"playground dem", "demo\n"},
      {"operations p", "plugin\n"},
      {"help array sh", "show\n"},
      {"--simulate=/nowhere spare add ''", ""}};
  for (const auto& [words, names] : cases) {
    const SResult result =
        ResultOf({"bash", "-c", std::string("\"$0\" complete --simulate ") + words, RVXCTL});
    EXPECT_EQ(result.m_Out, names) << words;
    EXPECT_EQ(result.m_Status, 0) << words;
    EXPECT_EQ(result.m_Err, "") << words;
  }
}

TEST(Completion, OfThisMachineReadsWhatEverybodyMayRead) {
  const CTemporaryFolder folder;
  const std::string script = R"(cd "$1"; mkdir -p proc/self
disk() { mkdir -p "sys/block/$1/device" "sys/block/$1/holders"; echo "$2" > "sys/block/$1/dev"; echo 9 > "sys/block/$1/size"; }
disk sda 8:0; disk sdb 8:16; disk sdc 8:32; disk sdd 8:48; disk sde 8:64; disk sr0 11:0
echo 0 > sys/block/sr0/size; mkdir -p sys/block/md_d0 sys/block/sda/sda1 sys/block/sdd/sdd2 sys/block/sd{b,c}/holders/md_d0
echo 1 > sys/block/sda/sda1/partition; echo 8:1 > sys/block/sda/sda1/dev; echo 2 > sys/block/sdd/sdd2/partition
echo '21 1 8:1 / / rw - ext4 /dev/sda1 rw' > proc/self/mountinfo; echo '/dev/sdd2 partition 1 0 -2' > proc/swaps
printf 'Personalities : [raid1]\nmd_d0 : active raid1 sdc[2](S) sdb[0]\n      9 blocks [2/1] [U_]\n' > proc/mdstat)";
  ASSERT_EQ(ResultOf({"bash", "-c", script, "", folder.Path()}).m_Status, 0);
  using T = Host::SCandidate;
  std::map<std::string, unsigned int> traits;
  for (const T& one : Host::KernelCandidates(folder.Path())) traits[one.m_Name] = one.m_Traits;
  const std::map<std::string, unsigned int> expected{{"adapter", T::WHOLE_MODEL},
                                                     {"plugin", T::WHOLE_MODEL},
                                                     {"sda", T::DISK},
                                                     {"sdb", T::DISK},
                                                     {"sdd", T::DISK},
                                                     {"sde", T::DISK | T::READY},
                                                     {"sdc", T::DISK | T::RELEASABLE},
                                                     {"md_d0", T::ARRAY | T::REDUNDANT | T::DEGRADED}};
  EXPECT_EQ(traits, expected) << "mounted, a member, swapped to, a spare, free, without a medium";
}

}  // namespace
