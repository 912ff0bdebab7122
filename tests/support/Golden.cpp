#include <boost/algorithm/string/join.hpp>

#include "KVTX/System.h"
#include "tests/support/TestInstance.h"

namespace NAMESPACE_piRVX {

std::string GoldenText(const std::string& file) { return ReadFile(RVX_GOLDEN_FOLDER + file); }

void ExpectGolden(const std::string& file, const std::string& text) {
  if (std::getenv("RVX_RENEW_GOLDEN") != nullptr) std::ofstream(RVX_GOLDEN_FOLDER + file) << text;
  if (text == GoldenText(file)) return;
  const CTemporaryFolder folder;
  std::vector<std::string> lines;
  KVTX::CSystem::ExecuteCommand("/usr/bin/diff", RVX_GOLDEN_FOLDER + file + " " + folder.Write("is", text),
                                lines);
  ADD_FAILURE()
      << file << " differs:\n"
      << boost::join(lines, "\n")
      << "\nIf that is wanted, run these tests once with RVX_RENEW_GOLDEN=1 and commit what changed.";
}

}  // namespace NAMESPACE_piRVX
