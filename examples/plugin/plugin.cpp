/// @file
/// The smallest plug-in that a host can show: an adapter with one disk, and a temperature that the framework
/// knows nothing of.

#include <new>

#include "KVT/Misc.h"
#include "PI/Object.h"
#include "PI/PluginApi.h"

namespace {

/// Of your own choice, and no other plug-in's of the same host. It stands in the top 16 bits of every
/// identifier.
constexpr unsigned int MODULE = 4711;

/// Numbers that are this plug-in's own. Properties may have any that the framework does not use; texts are
/// those of the catalogue below, where the first two have a meaning for every plug-in.
constexpr auto PROP_TEMPERATURE = static_cast<PI::_PROPERTY_ID>(39000);
constexpr unsigned int TEXT_TEMPERATURE = 2;
constexpr unsigned int TEXT_DEGREES = 3;

/// Texts that are there without a file. "example.nls" in the folder of catalogues would come first.
const KVT::Language_Support::CLanguageSupport::CLngFile CATALOGUE("example.nls", 'e' | 'n' << 8, "utf-8",
                                                                  {"General error", "No information",
                                                                   "Temperature", "degrees Celsius"});
const KVT::Misc::CModuleInfo INFORMATION(MODULE, "example", "1.0", CATALOGUE, {});

PI::CObject MakeObject(unsigned int kind, unsigned long number, const char* name) {
  PI::CObject object;
  object.m_ID = static_cast<unsigned long>(MODULE) << 48 | number;
  object.m_Kind = kind;
  object.m_Properties.emplace_back(PI::PROP_NAME).SetValue(name);
  return object;
}

/// Parents and children name each other.
void Link(PI::CObject& parent, PI::CObject& child) {
  parent.m_Children.push_back(child.m_ID);
  child.m_Parents.push_back(parent.m_ID);
}

class CExample : public IPLUGINAPI {
 public:
  CExample()
      : m_Objects{MakeObject(PI::OBJ_PLUGIN, 0, "Example"), MakeObject(PI::OBJ_ADAPTER, 1, "Example adapter"),
                  MakeObject(PI::OBJ_PHYSICAL_DRIVE, 2, "Example disk")} {
    m_ModuleNumber = MODULE;
    Link(m_Objects[0], m_Objects[1]);
    Link(m_Objects[1], m_Objects[2]);
    std::vector<PI::CProperty>& properties = m_Objects[2].m_Properties;
    properties.emplace_back(PI::PROP_DEVICE_PATH).SetValue("/dev/example0");
    properties.emplace_back(PI::PROP_STATUS).SetValue(PI::STATUS_READY, {PI::STATUS_READY});
    PI::CProperty& temperature = properties.emplace_back(PROP_TEMPERATURE);
    temperature.SetValue(31, 0, 100, 1);
    temperature.m_LabelTextID = TEXT_TEMPERATURE;
    temperature.m_UnitTextID = TEXT_DEGREES;
    // Its one operation is the one that every plug-in has.
    m_Objects[0].m_Operations.emplace_back().m_Code = PI::OP_GET_EVENTS;
  }

  /// May be called by several threads at once. What never changes needs no lock.
  unsigned int Execute(PI::_COMMAND command, unsigned long id, void* data) override {
    switch (command) {
      case PI::CMD_INITIALIZE:
        static_cast<std::vector<PI::CAdapterID>*>(data)->emplace_back();
        return PI::OK;
      case PI::CMD_SET_ADAPTER_IDS:  // threads would be started here
      case PI::CMD_DEINITIALIZE:     // and ended here
        return PI::OK;
      case PI::CMD_GET_TOPOLOGY:  // the plug-in, its adapter, then disks and arrays
        *static_cast<std::vector<PI::CObject>*>(data) = m_Objects;
        return PI::OK;
      default:  // the others ask an object
        if (command < PI::CMD_GET_PROPERTIES || command > PI::CMD_EXECUTE_OPERATION) return PI::COMMAND_ERROR;
    }
    for (const PI::CObject& object : m_Objects)
      if (object.m_ID == id) return OfObject(object, command, data);
    return PI::INVALID_OBJECT_ID;
  }

 private:
  static unsigned int OfObject(const PI::CObject& object, PI::_COMMAND command, void* data) {
    switch (command) {
      case PI::CMD_GET_PROPERTIES:
        *static_cast<std::vector<PI::CProperty>*>(data) = object.m_Properties;
        return PI::OK;
      case PI::CMD_GET_PROPERTY: {
        PI::CProperty& wanted = *static_cast<PI::CProperty*>(data);
        for (const PI::CProperty& property : object.m_Properties)
          if (property.m_ID == wanted.m_ID) return wanted = property, PI::OK;
        return PI::ERR_GENERAL;
      }
      case PI::CMD_SET_PROPERTY:
        return PI::ERR_PROPERTY_NOT_SETTABLE;
      case PI::CMD_GET_OPERATIONS:
        *static_cast<std::vector<PI::COperation>*>(data) = object.m_Operations;
        return PI::OK;
      default: {  // the check and the execution of an operation
        PI::COperation& operation = *static_cast<PI::COperation*>(data);
        if (object.m_Kind != PI::OBJ_PLUGIN || operation.m_Code != PI::OP_GET_EVENTS)
          return PI::ERR_OPERATION_NOT_SUPPORTED;
        operation.m_Events.clear();  // nothing ever happens
        return PI::OK;
      }
    }
  }

  std::vector<PI::CObject> m_Objects;
};

}  // namespace

// All that leaves the library. A host destroys what it got from createIf with releaseIf alone.
extern "C" ZQ_API unsigned int createIf(IPLUGINAPI** out) {
  *out = new (std::nothrow) CExample;
  return *out == nullptr ? PI::ERR_OUT_OF_MEMORY : PI::OK;
}

extern "C" ZQ_API void* releaseIf(IPLUGINAPI** inout) {
  delete *inout;
  *inout = nullptr;
  return nullptr;
}
