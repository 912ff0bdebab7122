// What the walks over md's disk numbers find. A number that md refuses is none.

#include <gtest/gtest.h>

#include "Src/md/Members.h"
#include "Src/piRVXTrace.h"

using namespace NAMESPACE_piRVX;

namespace {

TEST(Members, AsMdTellsOfThemDecideWhatWalksFind) {
  std::vector<mdu_disk_info_s> full;
  for (int number = 0; number < Md::MAX_MEMBERS; ++number) full.push_back({number, 8, 16, 1, 6});
  // How many md counts, what it tells of each (number, major, minor, slot, state), and what that is: numbers
  // of the faulty and the rebuilding member, minor of a working one, the free number, and whether 8:32 has no
  // slot.
  const std::tuple<int, std::vector<mdu_disk_info_s>, const char*> cases[] = {
      {2, {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 1}}, "faulty 1, rebuilding 1, working 0, free 2, 0"},
      {2, {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}, "faulty 1, rebuilding -, working 0, free 2, 0"},
      {2, {{0, 8, 32, 0, 1}, {1, 8, 16, 1, 1}}, "faulty 0, rebuilding 0, working 16, free 2, 0"},
      // Beyond the count, behind a removed one, and one that is rebuilt.
      {2,
       {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 6}, {2, 8, 32, 2, 1}},
       "faulty -, rebuilding -, working 0, free 3, 0"},
      {2,
       {{0, 8, 0, -1, 9}, {1, 8, 0, 0, 6}, {2, 8, 16, 1, 1}},
       "faulty 2, rebuilding 2, working 0, free 0, 0"},
      {2, {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 0}}, "faulty -, rebuilding 1, working 0, free 2, 0"},
      {2, {{0, 8, 0, 0, 8}, {1, 8, 16, 1, 6}}, "faulty -, rebuilding -, working 16, free 0, 0"},
      // A write-mostly member is no working one; spares do not count.
      {2, {{0, 8, 176, 0, 6 + 512}, {1, 8, 16, 1, 6}}, "faulty -, rebuilding -, working 16, free 2, 0"},
      {1, {{0, 8, 176, -1, 0}, {1, 8, 0, 0, 6}}, "faulty -, rebuilding -, working 0, free 2, 0"},
      // The count ends on one that is not in sync; one without a device; one without a slot.
      {1, {{0, 8, 16, 0, 0}}, "faulty -, rebuilding 0, working 16, free 1, 0"},
      {2, {{0, 0, 0, 0, 6}}, "faulty -, rebuilding -, working -, free 0, 0"},
      {2, {{0, 8, 0, -1, 6}}, "faulty -, rebuilding -, working -, free 1, 0"},
      {2, full, "faulty -, rebuilding -, working 16, free -, 0"},
      // The disk is a spare, a member first, was a member; a partition of it is a spare.
      {2, {{0, 8, 0, 0, 6}, {1, 8, 32, -1, 0}}, "faulty -, rebuilding -, working 0, free 2, 1"},
      {2, {{0, 8, 32, 0, 6}, {1, 8, 32, -1, 0}}, "faulty -, rebuilding -, working 32, free 2, 0"},
      {2, {{0, 8, 32, 0, 8}, {1, 8, 32, -1, 0}}, "faulty -, rebuilding -, working -, free 0, 1"},
      {2, {{0, 8, 33, -1, 0}}, "faulty -, rebuilding -, working -, free 1, 0"},
      {2, {{383, 8, 0, 0, 6}}, "faulty -, rebuilding -, working 0, free 0, 0"},
      {2, {{383, 8, 32, 0, 1}}, "faulty 383, rebuilding 383, working -, free 0, 0"}};
  for (const auto& [count, told, found] : cases) {
    std::vector<Md::TDisk> disks(Md::MAX_MEMBERS);
    for (const mdu_disk_info_s& disk : told) disks[static_cast<std::size_t>(disk.number)] = disk;
    std::string seen;
    const auto look = [&](const mdu_disk_info_s& disk) { seen += Text("%d ", disk.number); };
    const auto name = [](const char* what, const std::optional<int>& number) {
      return number ? Text("%s %d, ", what, *number) : Text("%s -, ", what);
    };
    const auto number = [](const Md::TDisk& disk) {
      return disk ? std::optional(disk->number) : std::nullopt;
    };
    const Md::TDisk working = Md::FindWorkingMember(disks, count);
    EXPECT_EQ(name("faulty", number(Md::FindFaultyMember(disks, count, look))) +
                  name("rebuilding", number(Md::FindRebuildingMember(disks, count, look))) +
                  name("working", working ? std::optional(working->minor) : std::nullopt) +
                  name("free", Md::FindFreeNumber(disks)) + Text("%d", Md::IsWithoutSlot(disks, 8, 32)),
              found);
    EXPECT_FALSE(seen.empty());
  }
}

}  // namespace
