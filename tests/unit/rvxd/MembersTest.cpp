/// @file
/// Which disk somebody is told to pull.

#include <gmock/gmock.h>

#include "../../support/TemporaryFolder.h"
#include "rvxd/Members.h"

namespace Rvxd {

namespace {

Json Disk(const char* name, const char* serial, const char* path) {
  return {{"name", name},     {"id", name},   {"serial", serial},
          {"model", nullptr}, {"path", path}, {"state", "ready"}};
}

/// A mirror, of which these members are there: names and states.
Json Mirror(unsigned int missing, const std::vector<std::array<const char*, 2>>& there) {
  Json members = Json::array();
  for (const auto& [name, state] : there)
    members.push_back({{"name", name}, {"whole", name}, {"state", state}});
  return Json::array(
      {{{"name", "md0"}, {"uuid", nullptr}, {"redundancy", {{"missing", missing}}}, {"members", members}}});
}

/// "name serial path state" of those that the mirror lacks when sda alone works.
std::string Told(const CMembers& members, const Json& disks) {
  std::string told;
  for (const Json& disk : members.Concerned("md0", Mirror(1, {{"sda", "active"}}), disks))
    for (const char* const key : {"name", "serial", "path", "state"})
      told += disk[key].get<std::string>() + " ";
  return told;
}

TEST(Members, WhatHasGoneIsNamedWithThePlaceThatItHasNow) {
  const CTemporaryFolder folder;
  const Json sda = Disk("sda", "A", "0:0:0:0");
  CMembers members(folder.Path());
  members.Learn(Mirror(0, {{"sda", "active"}, {"sdb", "active"}}), {sda, Disk("sdb", "B", "0:0:1:0")});
  EXPECT_EQ(Told(members, Json::array({sda})), "sdb B 0:0:1:0 gone ") << "pulled: where it was";
  EXPECT_EQ(Told(members, {sda, Disk("sdc", "B", "0:0:9:0"), Disk("sdb", "C", "0:0:1:0")}),
            "sdc B 0:0:9:0 gone ")
      << "its old place is another one's";
  EXPECT_EQ(Told(members, {sda, Disk("sdc", "B", "0:0:8:0"), Disk("sdd", "B", "0:0:9:0")}),
            "sdb B 0:0:1:0 gone ")
      << "two disks tell that number";
}

TEST(Members, OneThatFailedBeforeAnybodyLookedIsKnownAfterItsRelease) {
  const CTemporaryFolder folder;
  const Json disks = {Disk("sda", "A", "0:0:0:0"), Disk("sdb", "B", "0:0:1:0")};
  {
    CMembers members(folder.Path());
    for (int look = 0; look < 2; ++look)
      members.Learn(Mirror(1, {{"sda", "active"}, {"sdb", "failed"}}), disks);
  }
  CMembers members(folder.Path());
  members.Learn(Mirror(1, {{"sda", "active"}}), disks);
  EXPECT_EQ(Told(members, disks), "sdb B 0:0:1:0 gone ");
  const Json after = {disks[0], Disk("sdc", "C", "0:0:1:0")};
  members.Learn(Mirror(0, {{"sda", "active"}, {"sdc", "active"}}), after);
  EXPECT_EQ(Told(members, after), "sdc C 0:0:1:0 gone ") << "whole again without it";
}

}  // namespace

}  // namespace Rvxd
