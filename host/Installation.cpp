#include "host/Installation.h"

#include <boost/filesystem.hpp>
#include <cstdlib>

#include "host/Error.h"
#include "libraries/common/Environment.h"

namespace Host {

namespace {

namespace fs = boost::filesystem;
using KVT::Internal::FindVariable;

constexpr char CATALOG_VARIABLE[] = "ZQ_CATALOG_DIR";

/// The folder of this program; sets the error when the system does not tell.
fs::path OwnFolder(boost::system::error_code& error) {
  return fs::read_symlink("/proc/self/exe", error).parent_path();
}

}  // namespace

std::string PluginPath(const SOptions& options) {
  fs::path path = options.m_Plugin;
  if (const char* const variable = FindVariable("RVX_PLUGIN");
      path.empty() && variable != nullptr && !options.m_Simulate)
    path = variable;
  boost::system::error_code error;
  if (!path.empty()) {
    if (path.is_absolute()) return path.string();
    // Code that runs with the rights of root comes from no folder that somebody happens to stand in.
    throw CannotLoad("\"" + path.string() + "\" does not begin with a slash; write " +
                     (fs::current_path(error) / path).lexically_normal().string());
  }
  const fs::path folder = OwnFolder(error);
  if (error)
    throw CannotLoad("/proc/self/exe does not tell where this program is (" + error.message() +
                     "); say with --plugin where the plug-in is");
  return (folder / RVX_PLUGIN_DIR / (options.m_Simulate ? "libpiRVXsim.so" : "libpiRVX.so"))
      .lexically_normal()
      .string();
}

std::string NotifierPath() {
  boost::system::error_code error;
  return (OwnFolder(error) / RVX_NOTIFIER).lexically_normal().string();
}

void FindCatalog() {
  boost::system::error_code error;
  const fs::path folder = OwnFolder(error) / RVX_CATALOG_DIR;
  if (!error && FindVariable(CATALOG_VARIABLE) == nullptr && fs::exists(folder / "piRVX.nls", error))
    ::setenv(CATALOG_VARIABLE, folder.c_str(), 1);
}

}  // namespace Host
