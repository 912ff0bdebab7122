// What the built library offers to the process that loads it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

/// Names of the dynamic symbols that a library defines, as the linker sees them.
std::vector<std::string> ExportsOf(const std::string& library) {
  const std::string command = "nm -D --defined-only --format=just-symbols '" + library + "'";
  const auto close = [](std::FILE* pipe) { pclose(pipe); };
  const std::unique_ptr<std::FILE, decltype(close)> pipe(popen(command.c_str(), "r"), close);
  std::vector<std::string> names;
  std::array<char, 4096> line{};
  while (pipe && std::fgets(line.data(), static_cast<int>(line.size()), pipe.get()) != nullptr) {
    names.emplace_back(line.data());
    if (names.back().ends_with('\n')) names.back().pop_back();
  }
  return names;
}

TEST(Exports, AreTheTwoEntriesAndTheThreeMembersOfTheFramework) {
  EXPECT_THAT(ExportsOf(RVX_BINARY_DIR "/Src/libpiRVX.so"),
              testing::UnorderedElementsAre(
                  "createIf", "releaseIf",
                  "_ZN15NAMESPACE_piRVX15IPLUGINAPI_IMPL18CreateMissingDriveERNS_17CRVXPhysicalDriveEi",
                  "_ZN15NAMESPACE_piRVX15IPLUGINAPI_IMPL27FindPhysicalDriveForRebuildEiRi",
                  "_ZN15NAMESPACE_piRVX15IPLUGINAPI_IMPL27FindRebuildingPhysicalDriveEiRi"));
}

}  // namespace
