#include "KVT/Misc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <mutex>

#include "KVT/Threading.h"
#include "libraries/common/Environment.h"

namespace KVT::Misc {
namespace {

struct SRegistry {
  std::mutex m_Lock;
  std::vector<CModuleInfo*> m_Modules;
};

/// Never destroyed: a module may be unloaded after the toolkit's own static objects are gone.
SRegistry& Registry() {
  static auto* const registry = new SRegistry;
  return *registry;
}

struct SConfigDirectory {
  std::mutex m_Lock;
  std::string m_Path{"/etc/zq"};
};

/// Never destroyed either: the threads of a module may outlive main().
SConfigDirectory& ConfigDirectory() {
  static auto* const directory = new SConfigDirectory;
  return *directory;
}

bool IsProgram(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

}  // namespace

CModuleInfo::CModuleInfo(unsigned int number, std::string name, std::string version,
                         const Language_Support::CLanguageSupport::CLngFile& language,
                         std::vector<SErrorMessage> errors)
    : m_Number(number),
      m_Name(std::move(name)),
      m_Version(std::move(version)),
      m_Language(language),
      m_Errors(std::move(errors)) {
  const std::lock_guard guard(Registry().m_Lock);
  Registry().m_Modules.push_back(this);
}

CModuleInfo::~CModuleInfo() {
  const std::lock_guard guard(Registry().m_Lock);
  std::erase(Registry().m_Modules, this);
}

CModuleInfo* CModuleInfo::Find(unsigned int number) {
  const std::lock_guard guard(Registry().m_Lock);
  const auto& modules = Registry().m_Modules;
  const auto found = std::find_if(modules.begin(), modules.end(),
                                  [number](const auto* module) { return module->GetNumber() == number; });
  return found == modules.end() ? nullptr : *found;
}

void msleep(unsigned long milliseconds) {
  Threading::CEvent
      never;  // rather than nanosleep: the thread sanitizer loses track of a thread cancelled there
  never.Wait(milliseconds);
}

int CKvtApplication::GetCommandPath(const std::string& name, boost::filesystem::path& path) {
  constexpr std::array DIRECTORIES{"/usr/sbin", "/usr/bin", "/sbin", "/bin"};
  if (name.find('/') != std::string::npos) return 0;
  for (const char* directory : DIRECTORIES) {
    const std::string candidate = std::string(directory) + '/' + name;
    if (IsProgram(candidate)) {
      path = candidate;
      return 1;
    }
  }
  return 0;
}

boost::filesystem::path CKvtApplication::GetConfigDirectory() {
  if (const char* const directory = Internal::FindVariable("ZQ_CONFIG_DIR")) return directory;
  const std::lock_guard guard(ConfigDirectory().m_Lock);
  return ConfigDirectory().m_Path;
}

}  // namespace KVT::Misc

void KVT::Internal::SetConfigDirectory(const std::string& folder) {
  const std::lock_guard guard(Misc::ConfigDirectory().m_Lock);
  Misc::ConfigDirectory().m_Path = folder;
}
