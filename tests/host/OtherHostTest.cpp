/// @file
/// The simulated build under a host that is not rvxctl.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "KVT/Misc.h"
#include "PI/Object.h"
#include "PI/PluginApi.h"
#include "PI/Property.h"
#include "tests/support/TemporaryFolder.h"

namespace {

/// Sets the poll interval as any host may. The statuses of making, initialising and setting, or where the
/// setting would have gone when that is not a folder below `allowed`.
std::string SetPollInterval(const std::string& allowed) {
  void* const library = ::dlopen(RVX_SIMULATED, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return ::dlerror();
  const auto create = reinterpret_cast<CreateIfFunction*>(::dlsym(library, "createIf"));
  const auto release = reinterpret_cast<ReleaseIfFunction*>(::dlsym(library, "releaseIf"));
  IPLUGINAPI* plugin = nullptr;
  const unsigned int made = create(&plugin);
  const boost::filesystem::path folder = KVT::Misc::CKvtApplication::GetConfigDirectory();
  if (folder.parent_path() != allowed) return folder.string();
  std::vector<PI::CAdapterID> adapters;
  PI::CProperty interval(PI::PROP_POLL_INTERVAL);
  interval.SetValue(7, 2, 255, 1U);
  const unsigned int begun = plugin->Execute(PI::CMD_INITIALIZE, 0, &adapters);
  const unsigned int set = plugin->Execute(PI::CMD_SET_PROPERTY, 295UL << 48, &interval);
  const std::string kept = ReadFile((folder / "piRVX.ini").string());
  plugin->Execute(PI::CMD_DEINITIALIZE, 0, nullptr);
  release(&plugin);
  return std::to_string(made) + " " + std::to_string(begun) + " " + std::to_string(set) + " " + kept;
}

TEST(OtherHost, WhatItSetsOnASimulatedMachineStaysOffThisOne) {
  const CTemporaryFolder folder;
  const CEnvironmentVariable temporary("TMPDIR", folder.Path()), none("ZQ_CONFIG_DIR", "");
  EXPECT_EXIT(
      {
        const std::string result = SetPollInterval(folder.Path());
        std::fprintf(stderr, "result %s\n", result.c_str());
        const bool isAlone = folder.CountFiles() == 1;
        if (::fork() == 0) std::exit(0);  // a child that ends takes nothing along
        ::wait(nullptr);
        std::exit(isAlone && folder.CountFiles() == 1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "result 0 0 0 PollInterval=7\n");
  EXPECT_EQ(folder.CountFiles(), 0U) << "nothing is left";
  const CEnvironmentVariable nowhere("TMPDIR", folder.Path("none"));
  EXPECT_EXIT({ std::exit(SetPollInterval(folder.Path()) == "/dev/null" ? 0 : 1); },
              testing::ExitedWithCode(0), "");
}

}  // namespace
