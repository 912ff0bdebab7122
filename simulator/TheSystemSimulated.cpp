#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <functional>
#include <memory>

#include "libraries/common/Environment.h"
#include "simulator/SimulatedSystem.h"
#include "simulator/SimulatorApi.h"
#include "simulator/description/DescriptionFile.h"
#include "system/TheSystem.h"

using namespace Simulation;

namespace {

std::unique_ptr<CSimulatedSystem> s_Machine;
bool s_InUse = false;

/// Takes the place of this machine's folder of settings, whoever the host is: what is set on a simulated
/// machine must not rule the real one. A private folder that goes with the process; none where somebody chose
/// one, or where none can be made: then no setting is kept.
class CSettingsFolder {
 public:
  CSettingsFolder() {
    using KVT::Internal::FindVariable;
    if (FindVariable("ZQ_CONFIG_DIR") == nullptr) {
      const char* const parent = FindVariable("TMPDIR");
      std::string path = (parent == nullptr ? std::string("/tmp") : parent) + "/piRVXsim-XXXXXX";
      if (::mkdtemp(path.data()) != nullptr) m_Path = path;
    }
    KVT::Internal::SetConfigDirectory(m_Path.empty() ? "/dev/null" : m_Path);
  }
  ~CSettingsFolder() {
    // A child that was forked off ends earlier, and the folder is not its own.
    if (m_Path.empty() || ::getpid() != m_Owner) return;
    boost::system::error_code ignored;
    boost::filesystem::remove_all(m_Path, ignored);
  }
  CSettingsFolder(const CSettingsFolder&) = delete;
  CSettingsFolder& operator=(const CSettingsFolder&) = delete;

 private:
  std::string m_Path;
  const pid_t m_Owner{::getpid()};
};

void Load(const std::string& description) {
  if (s_InUse) throw CMachineError("the machine is in use already");
  s_Machine = std::make_unique<CSimulatedSystem>(description, CSimulatedSystem::EClock::Real);
}

/// Runs a call of the C interface; the message is kept for the caller.
const char* Answer(const std::function<void()>& call) {
  static std::string message;
  try {
    call();
    return nullptr;
  } catch (const std::exception& error) {
    message = error.what();
    return message.c_str();
  }
}

}  // namespace

OS::COperatingSystem& OS::TheSystem() {
  static const CSettingsFolder settings;
  if (s_Machine == nullptr) Load(CSimulatedSystem::DemoDescription());
  s_InUse = true;
  return *s_Machine;
}

const char* rvxLoadMachine(const char* file) {
  return Answer([file] {
    if (file == nullptr) return Load(CSimulatedSystem::DemoDescription());
    const std::string description = ReadDescription(file);
    try {
      Load(description);
    } catch (const CMachineError& error) {
      throw CMachineError(std::string(file) + ": " + error.what());
    }
  });
}

const char* rvxSaveMachine(const char* file) {
  return Answer([file] {
    if (s_Machine == nullptr) throw CMachineError("no machine is loaded");
    ReplaceDescription(file, s_Machine->Describe());
  });
}

OS::COperatingSystem* rvxMachine() { return s_Machine.get(); }
