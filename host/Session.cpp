#include "host/Session.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "KVT/Language.h"
#include "KVT/Misc.h"
#include "libraries/common/Environment.h"

namespace rvxctl {

namespace {

namespace fs = boost::filesystem;
using KVT::Internal::FindVariable;

constexpr char CATALOG_VARIABLE[] = "ZQ_CATALOG_DIR";
constexpr char CONFIG_VARIABLE[] = "ZQ_CONFIG_DIR";
constexpr unsigned int MODULE_NUMBER = 295;
/// Where the simulated build's own functions differ from the plug-in's: null is success, else what is wrong.
using MachineFunction = const char*(const char* file);

CError CannotLoad(const std::string& why, unsigned int status = PI::OK) {
  return {EXIT_NO_PLUGIN, "cannot load the plug-in: " + why, status};
}

/// The folder of this program; sets the error when the system does not tell.
fs::path OwnFolder(boost::system::error_code& error) {
  return fs::read_symlink("/proc/self/exe", error).parent_path();
}

/// Where the plug-in is: where the person says, else in the installation that this program belongs to. Code
/// that runs with the rights of root comes from no folder that somebody happens to stand in.
fs::path PluginPath(const SOptions& options) {
  fs::path path = options.m_Plugin;
  if (const char* const variable = FindVariable("RVX_PLUGIN");
      path.empty() && variable != nullptr && !options.m_Simulate)
    path = variable;
  boost::system::error_code error;
  if (!path.empty()) {
    if (path.is_absolute()) return path;
    throw CannotLoad("\"" + path.string() + "\" does not begin with a slash; write " +
                     (fs::current_path(error) / path).lexically_normal().string());
  }
  const fs::path folder = OwnFolder(error);
  if (error)
    throw CannotLoad("/proc/self/exe does not tell where this program is (" + error.message() +
                     "); say with --plugin where the plug-in is");
  return (folder / RVX_PLUGIN_DIR / (options.m_Simulate ? "libpiRVXsim.so" : "libpiRVX.so"))
      .lexically_normal();
}

/// Tells the toolkit where the catalogue is when this program runs from a build tree or was moved.
void FindCatalog() {
  boost::system::error_code error;
  const fs::path folder = OwnFolder(error) / RVX_CATALOG_DIR;
  if (!error && FindVariable(CATALOG_VARIABLE) == nullptr && fs::exists(folder / "piRVX.nls", error))
    ::setenv(CATALOG_VARIABLE, folder.c_str(), 1);
}

/// A folder for the settings of a simulated machine, which are not those of this machine. Its owner alone can
/// enter it. It goes with what is in it, and no signal ends the program before.
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
    fs::remove_all(m_Path, error);
    ::pthread_sigmask(SIG_SETMASK, &m_SignalsBefore, nullptr);
  }
  CSettingsFolder(const CSettingsFolder&) = delete;
  CSettingsFolder& operator=(const CSettingsFolder&) = delete;

 private:
  std::string m_Path;
  sigset_t m_SignalsBefore{};
};

const KVT::Misc::CModuleInfo* Module() { return KVT::Misc::CModuleInfo::Find(MODULE_NUMBER); }

/// The module's catalogue, read once.
const KVT::Language_Support::CLanguageSupport::CLngFile& Catalog() {
  static const auto catalog = [] {
    auto file = Module() != nullptr ? Module()->GetLanguageFile()
                                    : KVT::Language_Support::CLanguageSupport::CLngFile(
                                          "piRVX.nls", 'e' | 'n' << 8, "utf-8", {});
    file.Load();
    return file;
  }();
  return catalog;
}

int ExitStatusOf(unsigned int status) {
  switch (status) {
    case PI::ERR_BUSY:
      return EXIT_BUSY;
    case PI::INVALID_OBJECT_ID:
      return EXIT_NO_OBJECT;
    case PI::ERR_PROPERTY_NOT_SETTABLE:
    case PI::ERR_OPERATION_NOT_SUPPORTED:
    case PI::ERR_NO_REDUNDANCY:
    case PI::ERR_STATE_FORBIDS_REBUILD:
    case PI::ERR_NO_REBUILD_RUNNING:
    case PI::ERR_MISSING_DRIVE_PENDING:
    case PI::ERR_DRIVE_NOT_MISSING:
      return EXIT_NOT_ALLOWED;
    default:
      return EXIT_PLUGIN_ERROR;
  }
}

sigset_t EndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void Replace(std::string& text, const std::string& mark, const std::string& with) {
  for (std::size_t place = 0; (place = text.find(mark, place)) != std::string::npos; place += with.size())
    text.replace(place, mark.size(), with);
}

}  // namespace

COutput::COutput(bool tracing) {
  int spare = ::open("/dev/null", O_RDWR);
  while (spare >= 0 && spare <= STDERR_FILENO) spare = ::open("/dev/null", O_RDWR);
  if (spare >= 0) ::close(spare);
  m_IsTerminal = ::isatty(STDOUT_FILENO) == 1;
  const int own = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  m_File = own < 0 ? nullptr : ::fdopen(own, "w");
  const int other = tracing ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (other >= 0) {
    ::dup2(other, STDOUT_FILENO);
    ::close(other);
  }
}

COutput::~COutput() {
  if (m_File != nullptr) std::fclose(m_File);
}

void COutput::Print(const std::string& text) {
  m_HasPrinted = true;
  errno = EBADF;
  if (m_File != nullptr && std::fwrite(text.data(), 1, text.size(), m_File) == text.size() &&
      std::fflush(m_File) == 0)
    return;
  const int error = errno;
  throw CError(error == EPIPE ? EXIT_SIGNAL + SIGPIPE : EXIT_PLUGIN_ERROR,
               std::string("cannot write to standard output: ") + std::strerror(error));
}

std::optional<std::string> CTexts::Find(unsigned int number) const { return Catalog().GetText(number); }

std::string CTexts::Of(unsigned int number) const { return Find(number).value_or(std::to_string(number)); }

std::string CTexts::StatusName(unsigned int status) const {
  if (Module() != nullptr)
    for (const KVT::Misc::SErrorMessage& error : Module()->GetErrors())
      if (error.m_Status == status) return error.m_Name;
  return "status " + std::to_string(status);
}

std::string CTexts::OfStatus(unsigned int status) const {
  const std::string number = std::to_string(status);
  const std::string name = StatusName(status);
  const auto text = Find(status);
  return (name.ends_with(number) ? number : number + " " + name) + (text ? ": " + *text : "");
}

std::string CTexts::OfEvent(const PI::CEvent& event) const {
  std::string text = Of(event.m_Code);
  Replace(text, "%1", event.m_PlaceHolder1);
  Replace(text, "%2", event.m_PlaceHolder2);
  return text;
}

CError PluginError(const CTexts& texts, unsigned int status, const std::string& what,
                   const std::string& hint) {
  std::string message = what + ": the plug-in answered " + texts.OfStatus(status);
  if (!hint.empty()) message += "\n" + hint;
  return {ExitStatusOf(status), message, status};
}

CSession::CSession(const SOptions& options) : m_Options(options) {
  if (!options.m_Simulate && ::geteuid() != 0)
    throw CError(
        EXIT_NO_RIGHTS,
        "the plug-in opens disks and md devices, which needs the rights of root: run it with sudo, or try "
        "--simulate");
  FindCatalog();
  m_HasSettings = !options.m_Simulate || FindVariable(CONFIG_VARIABLE) != nullptr;
  if (!m_HasSettings) CSettingsFolder::HaveNone();
  const std::string path = PluginPath(options).string();
  m_Library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_Library == nullptr) throw CannotLoad(::dlerror());
  m_Create = reinterpret_cast<CreateIfFunction*>(::dlsym(m_Library, "createIf"));
  m_Release = reinterpret_cast<ReleaseIfFunction*>(::dlsym(m_Library, "releaseIf"));
  if (m_Create == nullptr || m_Release == nullptr)
    throw CannotLoad(path + " exports no createIf and releaseIf");
  if (auto* const module = KVT::Misc::CModuleInfo::Find(MODULE_NUMBER))
    module->SetTraceClasses(options.m_Trace);
  if (options.m_Simulate) {
    const auto load = reinterpret_cast<MachineFunction*>(::dlsym(m_Library, "rvxLoadMachine"));
    if (load == nullptr) throw CannotLoad(path + " is no simulated build");
    if (const char* const why = load(options.m_Machine.empty() ? nullptr : options.m_Machine.c_str()))
      throw CError(EXIT_USAGE, why);
  }
  Open();
}

void CSession::Open() {
  if (const unsigned int status = m_Create(&m_Plugin); status != PI::OK || m_Plugin == nullptr)
    throw CannotLoad("createIf answered " + m_Texts.OfStatus(status), status);
  m_Plugin->m_pNotificationTarget = this;
  m_Plugin->m_pNotification = static_cast<IPLUGINAPI::Notification>(&CSession::Notify);
  if (const unsigned int status = Execute(PI::CMD_INITIALIZE, 0, &m_AdapterIDs); status != PI::OK) {
    m_Release(&m_Plugin);
    throw PluginError(m_Texts, status, "initialise");
  }
  m_PluginID = Topology().front().m_ID;
}

// The library stays loaded: its trace and catalogue may be needed until the program ends.
CSession::~CSession() { Release(); }

void CSession::Release() {
  if (m_Plugin == nullptr) return;
  Execute(PI::CMD_DEINITIALIZE, 0, nullptr);
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

void CSession::HoldSignals() {
  const sigset_t signals = EndSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void CSession::Start() {
  if (m_Started) return;
  m_Started = true;
  HoldSignals();
  for (PI::CAdapterID& id : m_AdapterIDs) id.m_AdapterNumber = 0;
  Execute(PI::CMD_SET_ADAPTER_IDS, 0, &m_AdapterIDs);
}

void CSession::Pause(std::chrono::milliseconds time) const {
  const sigset_t signals = EndSignals();
  const timespec limit{time.count() / 1000, (time.count() % 1000) * 1000000};
  if (const int signal = ::sigtimedwait(&signals, nullptr, &limit); signal > 0)
    throw CError(EXIT_SIGNAL + signal, std::string("ended by ") + ::strsignal(signal));
}

unsigned int CSession::Execute(PI::_COMMAND command, unsigned long id, void* data) {
  return m_Plugin->Execute(command, id, data);
}

void CSession::Require(unsigned int status, const char* what) const {
  if (status != PI::OK) throw PluginError(m_Texts, status, what);
}

std::vector<PI::CObject> CSession::Topology() {
  std::vector<PI::CObject> objects;
  Require(Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), "topology");
  if (objects.size() < 2) throw CError(EXIT_PLUGIN_ERROR, "the plug-in's topology has no adapter");
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
  if (status == PI::ERR_GENERAL)
    throw CError(EXIT_NO_OBJECT,
                 "the object has no property " + std::to_string(property) +
                     "; 'rvxctl prop get OBJECT' lists those it has",
                 status);
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

unsigned int CSession::Set(unsigned long id, PI::CProperty& property) {
  std::optional<CSettingsFolder> folder;
  if (!m_HasSettings) folder.emplace();
  return Execute(PI::CMD_SET_PROPERTY, id, &property);
}

}  // namespace rvxctl
