// What the built library offers to the process that loads it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KVTX/System.h"

namespace {

TEST(Exports, AreTheTwoEntriesAndTheThreeMembersOfTheFramework) {
  std::vector<std::string> names;
  ASSERT_EQ(KVTX::CSystem::ExecuteCommand("/usr/bin/nm",
                                          "-D --defined-only --format=just-symbols " RVX_PLUGIN, names),
            1);
  EXPECT_THAT(names,
              testing::UnorderedElementsAre(
                  "createIf", "releaseIf",
                  "_ZN15NAMESPACE_piRVX15IPLUGINAPI_IMPL18CreateMissingDriveERNS_17CRVXPhysicalDriveEi",
                  "_ZN15NAMESPACE_piRVX15IPLUGINAPI_IMPL27FindPhysicalDriveForRebuildEiRi",
                  "_ZN15NAMESPACE_piRVX15IPLUGINAPI_IMPL27FindRebuildingPhysicalDriveEiRi"));
}

}  // namespace
