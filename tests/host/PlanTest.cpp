/// @file
/// What a person is shown before data is destroyed, and told when md left something behind.

#include <gmock/gmock.h>

#include "Program.h"
#include "host/MdStat.h"
#include "host/Plan.h"
#include "host/Reasons.h"
#include "system/Linux.h"

namespace {

using namespace Host;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(Plan, TellsWhatIsOnADisk) {
  const CTemporaryFolder folder;
  const std::string path = folder.Write("disk", std::string(1 << 20, '\0'));
  OS::CLinux here;
  const auto plan = [&] {
    return PlanText({{"sda", "", {}, "", "", {}, CMachine(here, true).Contents(path)}}, 0);
  };
  EXPECT_THAT(plan(), HasSubstr("nothing known"));
  // A label may hold what moves a terminal's cursor.
  ASSERT_EQ(ResultOf({"/sbin/mkswap", "--label", "a\033[Ab", path}).m_Status, 0);
  const std::string entry("\x80\0\0\0\x83\0\0\0\1\0\0\0\1\0\0\0", 16);
  std::fstream(path, std::ios::in | std::ios::out).seekp(446) << entry << std::string(48, '\0') << "\x55\xAA";
  EXPECT_THAT(plan(), HasSubstr("swap signature labelled \"a"));
  EXPECT_THAT(plan(), AllOf(HasSubstr("[Ab\"; dos partition table"), Not(HasSubstr("\033"))));
}

TEST(MdStat, EachMembersTaskIsItsMark) {
  const auto arrays = ParseMdStat(
      "md0 : active raid5 sdf[6](F) sde[5](S) sdd[4](J) sdc[3](R) sdb[1](W)(F) sda[0](W)\n      9 blocks "
      "[2/1] [U_]\n");
  std::string marks;
  for (const SMdMember& member : arrays.at(0).m_Members) marks += member.m_Mark == 0 ? '-' : member.m_Mark;
  EXPECT_EQ(marks, "FSJRF-");
}

TEST(Plan, AHalfBuiltArrayIsNamed) {
  const std::string mdstat =
      "Personalities : [raid0]\nmd_d1 : inactive sdc[0]\nmd7 : inactive sdd[0]\nmd_d0 : active\n";
  const std::string hint = HintForExecution(mdstat, PI::OP_CREATE_LOGICAL_DRIVE, PI::ERR_DEVICE_IO, "raid1");
  EXPECT_THAT(hint, AllOf(HasSubstr("modprobe raid1"), HasSubstr("--stop /dev/md_d1"), Not(HasSubstr("md7")),
                          Not(HasSubstr("md_d0"))));
}

}  // namespace
