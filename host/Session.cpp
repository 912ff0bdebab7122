#include "host/Session.h"

#include <dlfcn.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "host/Error.h"
#include "host/Installation.h"
#include "host/Signals.h"
#include "host/Texts.h"
#include "libraries/common/Environment.h"

namespace Host {

namespace {

using KVT::Internal::FindVariable;

constexpr char CONFIG_VARIABLE[] = "ZQ_CONFIG_DIR";
/// What the simulated build exports beside the plug-in's entries: null is success, else what is wrong.
using MachineFunction = const char*(const char* file);
using SystemFunction = OS::COperatingSystem*();

bool IsFile(const std::string& path) {
  boost::system::error_code error;
  return boost::filesystem::is_regular_file(path, error);
}

/// A folder for the settings of a simulated machine, which are not those of this machine. The simulated build
/// would make one by itself, for all of its run: this one is there for the one setting, so that a run that is
/// killed leaves nothing behind. Its owner alone can enter it. It goes with what is in it, and no signal ends
/// the program before.
class CSettingsFolder {
 public:
  static void HaveNone() { ::setenv(CONFIG_VARIABLE, "/dev/null", 1); }

  CSettingsFolder() {
    const char* const parent = FindVariable("TMPDIR");
    const std::string folder = parent == nullptr ? "/tmp" : parent;
    m_Path = folder + "/rvxctl-XXXXXX";
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &m_SignalsBefore);
    if (::mkdtemp(m_Path.data()) == nullptr) {
      const int error = errno;
      ::pthread_sigmask(SIG_SETMASK, &m_SignalsBefore, nullptr);
      throw CError(EXIT_PLUGIN_ERROR, "cannot make a temporary folder in " + folder + ": " +
                                          std::strerror(error) + "; TMPDIR says where it is made");
    }
    ::setenv(CONFIG_VARIABLE, m_Path.c_str(), 1);
  }
  ~CSettingsFolder() {
    HaveNone();
    boost::system::error_code error;
    boost::filesystem::remove_all(m_Path, error);
    ::pthread_sigmask(SIG_SETMASK, &m_SignalsBefore, nullptr);
  }
  CSettingsFolder(const CSettingsFolder&) = delete;
  CSettingsFolder& operator=(const CSettingsFolder&) = delete;

 private:
  std::string m_Path;
  sigset_t m_SignalsBefore{};
};

/// An answer that must be OK.
void Require(unsigned int status, const char* what) {
  if (status != PI::OK) throw PluginError(status, what);
}

}  // namespace

CSession::CSession(const SOptions& options) : m_Options(options) {
  FindCatalog();
  m_HasSettings = !options.m_Simulate || FindVariable(CONFIG_VARIABLE) != nullptr;
  if (!m_HasSettings) CSettingsFolder::HaveNone();
  const std::string path = PluginPath(options);
  m_Library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_Library == nullptr)
    throw CannotLoad(std::string(::dlerror()) +
                     (options.m_Simulate && options.m_Plugin.empty() && !IsFile(path)
                          ? "; machines in memory are a package of their own, pirvx-sim: install it"
                          : ""));
  // What another plug-in needs is its own business.
  if (!options.m_Simulate && ::geteuid() != 0 && Texts::Module() != nullptr)
    throw CError(
        EXIT_NO_RIGHTS,
        "the plug-in opens disks and md devices, which needs the rights of root: run it with sudo, or try "
        "--simulate");
  m_Create = reinterpret_cast<CreateIfFunction*>(::dlsym(m_Library, "createIf"));
  m_Release = reinterpret_cast<ReleaseIfFunction*>(::dlsym(m_Library, "releaseIf"));
  if (m_Create == nullptr || m_Release == nullptr)
    throw CannotLoad(path + " exports no createIf and releaseIf");
  if (auto* const module = Texts::Module()) module->SetTraceClasses(options.m_Trace);
  if (options.m_Simulate) {
    const auto load = reinterpret_cast<MachineFunction*>(::dlsym(m_Library, "rvxLoadMachine"));
    if (load == nullptr) throw CannotLoad(path + " is no simulated build");
    if (const char* const why = load(options.m_Machine.empty() ? nullptr : options.m_Machine.c_str()))
      throw CError(EXIT_USAGE,
                   std::string(why) + (IsFile(options.m_Machine)
                                           ? ""
                                           : "; 'rvxctl --simulate=FILE playground demo' writes a machine"));
  }
  Open();
}

void CSession::Open() {
  if (const unsigned int status = m_Create(&m_Plugin); status != PI::OK || m_Plugin == nullptr)
    throw CannotLoad("createIf answered " + Texts::OfStatus(status), status);
  Texts::ModuleIs(m_Plugin->m_ModuleNumber);
  m_Plugin->m_pNotificationTarget = this;
  m_Plugin->m_pNotification = static_cast<IPLUGINAPI::Notification>(&CSession::Notify);
  if (const unsigned int status = Execute(PI::CMD_INITIALIZE, 0, &m_AdapterIDs); status != PI::OK) {
    m_Release(&m_Plugin);
    throw PluginError(status, "initialise");
  }
}

// The library stays loaded: its trace and catalogue may be needed until the program ends.
CSession::~CSession() { Release(); }

void CSession::Release() {
  if (m_Plugin == nullptr) return;
  if (m_Started) Execute(PI::CMD_DEINITIALIZE, 0, nullptr);  // it waits, also where no thread runs
  m_Release(&m_Plugin);
  m_Plugin = nullptr;
}

void CSession::Renew() {
  Release();
  m_AdapterIDs.clear();
  Open();
}

void CSession::End() {
  Release();
  if (!m_Options.m_Save) return;
  const auto save = reinterpret_cast<MachineFunction*>(::dlsym(m_Library, "rvxSaveMachine"));
  const char* const why = save == nullptr ? "this build cannot save" : save(m_Options.m_Machine.c_str());
  if (why != nullptr)
    throw CError(EXIT_PLUGIN_ERROR, std::string("the simulated machine is not saved: ") + why);
}

OS::COperatingSystem& CSession::SimulatedMachine() const {
  const auto machine = reinterpret_cast<SystemFunction*>(::dlsym(m_Library, "rvxMachine"));
  OS::COperatingSystem* const system = machine == nullptr ? nullptr : machine();
  if (system == nullptr) throw CannotLoad("this build has no simulated machine");
  return *system;
}

void CSession::Start() {
  if (m_Started) return;
  m_Started = true;
  HoldEndSignals();
  for (PI::CAdapterID& id : m_AdapterIDs) id.m_AdapterNumber = 0;
  Execute(PI::CMD_SET_ADAPTER_IDS, 0, &m_AdapterIDs);
}

unsigned int CSession::Execute(PI::_COMMAND command, unsigned long id, void* data) {
  return m_Plugin->Execute(command, id, data);
}

std::vector<PI::CObject> CSession::Topology() {
  std::vector<PI::CObject> objects;
  Require(Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), "topology");
  if (objects.size() < 2) throw CError(EXIT_PLUGIN_ERROR, "the plug-in's topology has no adapter");
  m_PluginID = objects.front().m_ID;
  return objects;
}

std::vector<PI::CProperty> CSession::Properties(unsigned long id) {
  std::vector<PI::CProperty> properties;
  Require(Execute(PI::CMD_GET_PROPERTIES, id, &properties), "properties");
  return properties;
}

PI::CProperty CSession::Property(unsigned long id, PI::_PROPERTY_ID property) {
  PI::CProperty result(property);
  const unsigned int status = Execute(PI::CMD_GET_PROPERTY, id, &result);
  if (status == PI::ERR_GENERAL) throw NoProperty(property);
  Require(status, "property");
  return result;
}

std::vector<PI::CEvent> CSession::FetchEvents() {
  PI::COperation fetch;
  fetch.m_Code = fetch.m_SecondCode = PI::OP_GET_EVENTS;
  Require(Run(m_PluginID, fetch), "events");
  return fetch.m_Events;
}

unsigned int CSession::Check(unsigned long id, PI::COperation& operation) {
  return Execute(PI::CMD_CHECK_OPERATION, id, &operation);
}

unsigned int CSession::Run(unsigned long id, PI::COperation& operation) {
  return Execute(PI::CMD_EXECUTE_OPERATION, id, &operation);
}

unsigned int CSession::Change(unsigned long id, PI::COperation& operation, const std::string& what) {
  HoldEndSignals();
  const CPatience patience(what);
  return Run(id, operation);
}

unsigned int CSession::Set(unsigned long id, PI::CProperty& property) {
  std::optional<CSettingsFolder> folder;
  if (!m_HasSettings) folder.emplace();
  return Execute(PI::CMD_SET_PROPERTY, id, &property);
}

CError NoProperty(unsigned int property) {
  return {EXIT_NO_OBJECT,
          "the object has no property " + std::to_string(property) +
              "; 'rvxctl prop get OBJECT' lists those it has",
          PI::ERR_GENERAL};
}

void SetPollInterval(CSession& session, int seconds) {
  const unsigned long plugin = session.Topology().front().m_ID;
  PI::CProperty property = session.Property(plugin, PI::PROP_POLL_INTERVAL);
  int value = 0;
  int minimum = 0;
  int maximum = 0;
  unsigned int step = 0;
  property.GetValue(value, minimum, maximum, step);
  if (seconds < minimum || seconds > maximum)
    throw CError(EXIT_USAGE, "the poll interval lies between " + std::to_string(minimum) + " and " +
                                 std::to_string(maximum) + " seconds");
  property.SetValue(seconds, minimum, maximum, step);
  if (const unsigned int status = session.Set(plugin, property); status != PI::OK)
    throw PluginError(
        status, "set the poll interval",
        "The new interval counts until the server ends, but could not be written to piRVX.ini.");
}

}  // namespace Host
