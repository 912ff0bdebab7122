/// @file
/// A host from the first call to the last: loads a plug-in, shows what there is, has the adapter look at its
/// disks again, collects what happened meanwhile, and lets go of everything.
///
///     host [PLUGIN]
///
/// Without an argument it takes the simulated machine, which needs no rights and has nothing to lose.

#include <dlfcn.h>

#include <chrono>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <thread>

#include "KVT/Misc.h"
#include "PI/Object.h"
#include "PI/PluginApi.h"

namespace {

constexpr std::chrono::seconds PATIENCE{30};

/// The texts behind the numbers. Each plug-in names a catalogue; a number without a text stands for itself.
class CTexts {
 public:
  explicit CTexts(unsigned int module) {
    if (const auto* const known = KVT::Misc::CModuleInfo::Find(module)) m_File = known->GetLanguageFile();
    if (m_File) m_File->Load();  // without the file, the few texts that are built in remain
  }
  std::string Of(unsigned int number) const {
    return (m_File ? m_File->GetText(number) : std::nullopt).value_or(std::to_string(number));
  }

 private:
  std::optional<KVT::Language_Support::CLanguageSupport::CLngFile> m_File;
};

/// A property's value for people, by the kind of value that it holds.
struct SValue {
  const CTexts& m_Texts;
  std::string operator()(std::monostate) const { return ""; }
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(const PI::SRange& range) const { return std::to_string(range.m_Value); }
  std::string operator()(const PI::SChoice& choice) const {
    return m_Texts.Of(static_cast<unsigned int>(choice.m_Selected));
  }
  std::string operator()(float number) const { return std::to_string(number); }
  std::string operator()(unsigned long number) const { return std::to_string(number); }
  std::string operator()(const PI::SNumberLists& lists) const {
    return std::to_string(lists.m_Values.size()) + " numbers";
  }
  std::string operator()(const KVT::XML::CMarkup& document) const { return document.GetDoc(); }
};

void Print(const CTexts& texts, const PI::CObject& object) {
  std::cout << texts.Of(object.m_Kind) << '\n';
  for (const PI::CProperty& property : object.m_Properties) {
    if (property.m_AttributeWord == 0) continue;  // hidden: there is nothing to tell
    // A property has a number of its own; its label, its unit, and sometimes its value have texts of their
    // own.
    std::cout << "  " << texts.Of(property.m_LabelTextID != 0 ? property.m_LabelTextID : property.m_ID)
              << ": "
              << (property.m_ValueTextID != 0 ? texts.Of(property.m_ValueTextID)
                                              : std::visit(SValue{texts}, property.m_Value));
    if (property.m_UnitTextID != 0) std::cout << ' ' << texts.Of(property.m_UnitTextID);
    std::cout << '\n';
  }
}

/// What the plug-in calls when the machine has been changed by it. The call comes on a thread of the
/// plug-in's: do nothing there but leave word for a thread of your own.
class CTarget : public INotificationTarget {
 public:
  void Changed(IPLUGINAPI*) { m_Changes.fetch_add(1); }
  unsigned int Changes() const { return m_Changes; }

 private:
  std::atomic<unsigned int> m_Changes{0};
};

/// The plug-in between its first call and its last.
class CPlugin {
 public:
  explicit CPlugin(const char* path) {
    // The library is never unloaded: what it made (texts, threads that could not be ended) may outlive the
    // instance.
    void* const library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) throw std::runtime_error(::dlerror());
    const auto create = reinterpret_cast<CreateIfFunction*>(::dlsym(library, "createIf"));
    m_Release = reinterpret_cast<ReleaseIfFunction*>(::dlsym(library, "releaseIf"));
    if (create == nullptr || m_Release == nullptr)
      throw std::runtime_error("it exports no createIf and releaseIf");
    if (create(&m_Plugin) != PI::OK) throw std::runtime_error("there is not enough memory");
    // Before any command: the plug-in calls it without looking whether it is there.
    m_Plugin->m_pNotificationTarget = &m_Target;
    m_Plugin->m_pNotification = static_cast<IPLUGINAPI::Notification>(&CTarget::Changed);
    // The first look at the machine. It has to succeed before anything else is asked.
    std::vector<PI::CAdapterID> adapters;
    if (const unsigned int status = m_Plugin->Execute(PI::CMD_INITIALIZE, 0, &adapters); status != PI::OK) {
      m_Release(&m_Plugin);
      throw std::runtime_error("it does not begin: status " + std::to_string(status));
    }
    // The host numbers the adapters of all its plug-ins. From here on the plug-in watches by itself.
    std::int32_t number = 0;
    for (PI::CAdapterID& adapter : adapters) adapter.m_AdapterNumber = number++;
    m_Plugin->Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapters);
  }

  /// First its threads, which may take seconds, then the instance.
  ~CPlugin() {
    m_Plugin->Execute(PI::CMD_DEINITIALIZE, 0, nullptr);
    m_Release(&m_Plugin);
  }
  CPlugin(const CPlugin&) = delete;
  CPlugin& operator=(const CPlugin&) = delete;

  unsigned int Module() const { return m_Plugin->m_ModuleNumber; }
  unsigned int Changes() const { return m_Target.Changes(); }

  /// The plug-in itself first, then the adapter, then disks and arrays. All that is handed out is a copy.
  std::vector<PI::CObject> Topology() {
    std::vector<PI::CObject> objects;
    Require(m_Plugin->Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), "the topology");
    return objects;
  }

  /// What happened since the last call. Each event is told once.
  std::vector<PI::CEvent> Events(const PI::CObject& plugin) {
    PI::COperation fetch;
    fetch.m_Code = fetch.m_SecondCode = PI::OP_GET_EVENTS;
    Require(m_Plugin->Execute(PI::CMD_EXECUTE_OPERATION, plugin.m_ID, &fetch), "the events");
    return fetch.m_Events;
  }

  /// Whether the object allows the operation now; then it is carried out. What the check wants a person to be
  /// asked stands in m_ConfirmationCode between the two.
  void Run(const PI::CObject& object, PI::COperation operation) {
    Require(m_Plugin->Execute(PI::CMD_CHECK_OPERATION, object.m_ID, &operation), "the check");
    Require(m_Plugin->Execute(PI::CMD_EXECUTE_OPERATION, object.m_ID, &operation), "the operation");
  }

 private:
  static void Require(unsigned int status, const char* what) {
    if (status != PI::OK)
      throw std::runtime_error(std::string(what) + " ended with status " + std::to_string(status));
  }

  CTarget m_Target;
  IPLUGINAPI* m_Plugin{nullptr};
  ReleaseIfFunction* m_Release{nullptr};
};

void Tour(const char* path) {
  CPlugin plugin(path);
  const CTexts texts(plugin.Module());
  const std::vector<PI::CObject> objects = plugin.Topology();
  for (const PI::CObject& object : objects) Print(texts, object);

  // An object offers its operations with the topology. This one changes nothing.
  const PI::CObject& adapter = objects.at(1);
  for (const PI::COperation& operation : adapter.m_Operations)
    if (operation.m_Code == PI::OP_RESCAN_ADAPTER) {
      plugin.Run(adapter, operation);
      std::cout << texts.Of(operation.m_Code) << ": done\n";
      // The plug-in has finished with it when it calls.
      const auto end = std::chrono::steady_clock::now() + PATIENCE;
      while (plugin.Changes() == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

  for (const PI::CEvent& event : plugin.Events(objects.front())) {
    std::string text = texts.Of(event.m_Code);
    for (const auto& [mark, name] : {std::pair("%1", event.m_PlaceHolder1), {"%2", event.m_PlaceHolder2}})
      if (const std::size_t place = text.find(mark); place != std::string::npos) text.replace(place, 2, name);
    std::cout << "event " << event.m_Code << ": " << text << '\n';
  }
}

}  // namespace

int main(int count, char** arguments) {
  try {
    // A name without a slash is looked for where the libraries are.
    Tour(count > 1 ? arguments[1] : "libpiRVXsim.so");
    std::cout << "released\n";
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "host: " << error.what() << '\n';
    return 1;
  }
}
