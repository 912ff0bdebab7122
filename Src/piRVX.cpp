/// @file
/// Exported entries, command dispatch and the module-wide records.

#include <new>

#include "KVT/Language.h"
#include "Src/piRVXLock.h"
#include "Src/piRVXPlugin.h"
#include "system/TheSystem.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVX";

const std::vector<KVT::Misc::SErrorMessage> ErrorMsgList = {
    {PI::ERR_GENERAL, "ERR_GENERAL"},
    {PI::ERR_SCAN_FAILED, "ERR_SCAN_FAILED"},
    {PI::COMMAND_ERROR, "COMMAND_ERROR"},
    {PI::ERR_DEVICE_IO, "ERR_DEVICE_IO"},
    {PI::ERR_PROPERTY_NOT_SETTABLE, "ERR_PROPERTY_NOT_SETTABLE"},
    {PI::ERR_OPERATION_NOT_SUPPORTED, "ERR_OPERATION_NOT_SUPPORTED"},
    {PI::ERR_INVALID_CONFIGURATION, "ERR_INVALID_CONFIGURATION"},
    {PI::ERR_OUT_OF_MEMORY, "ERR_OUT_OF_MEMORY"},
    {PI::INVALID_OBJECT_ID, "INVALID_OBJECT_ID"},
    {PI::ERR_WRONG_PARAMETER_TYPE, "ERR_WRONG_PARAMETER_TYPE"},
    {PI::ERR_LOCK_INITIALIZATION_FAILED, "ERR_LOCK_INITIALIZATION_FAILED"},
    {PI::ERR_WRITE_FAILED, "ERR_WRITE_FAILED"},
    {PI::ERR_BUSY, "ERR_BUSY"},
    {PI::ERR_NO_REDUNDANCY, "ERR_NO_REDUNDANCY"},
    {PI::ERR_STATE_FORBIDS_REBUILD, "ERR_STATE_FORBIDS_REBUILD"},
    {PI::ERR_NO_REBUILD_RUNNING, "ERR_NO_REBUILD_RUNNING"},
    {PI::ERR_OPEN_FAILED, "ERR_OPEN_FAILED"},
    {PI::ERR_DRIVE_NOT_FOUND, "ERR_DRIVE_NOT_FOUND"},
    {PI::ERR_NOT_AVAILABLE, "ERR_NOT_AVAILABLE"},
    {PI::ERR_NO_FREE_SLOT, "ERR_NO_FREE_SLOT"},
    {PI::ERR_MISSING_DRIVE_PENDING, "ERR_MISSING_DRIVE_PENDING"},
    {PI::ERR_DRIVE_NOT_MISSING, "ERR_DRIVE_NOT_MISSING"},
};

/// Two characters in one 16-bit value, the first in the low byte.
constexpr std::uint16_t LanguageCode(char first, char second) {
  return static_cast<std::uint16_t>(first | second << 8);
}

const KVT::Language_Support::CLanguageSupport::CLngFile LanguageFile(
    "piRVX.nls", LanguageCode('e', 'n'), "utf-8",
    {"General error in piRVX plugin", "No information available for this error"});

}  // namespace

KVT::Misc::CModuleInfo KVT_MODULE_INFO_piRVX(295, "piRVX", "P:" RVX_VERSION " F:" RVX_VERSION, LanguageFile,
                                             ErrorMsgList);

IPLUGINAPI_IMPL* g_p_IPLUGINAPI_IMPL = nullptr;

/// Empties an output list when its handler failed, so that no caller sees half a list with an error.
template <class TList>
static unsigned int EmptyOnFailure(unsigned int status, TList& list) {
  if (status != PI::OK) list.clear();
  return status;
}

unsigned int IPLUGINAPI_IMPL::Execute(PI::_COMMAND command, unsigned long objectID, void* data) {
  const auto adapterIDs = static_cast<std::vector<PI::CAdapterID>*>(data);
  const auto objects = static_cast<std::vector<PI::CObject>*>(data);
  const auto properties = static_cast<std::vector<PI::CProperty>*>(data);
  const auto operations = static_cast<std::vector<PI::COperation>*>(data);
  const auto property = static_cast<PI::CProperty*>(data);
  const auto operation = static_cast<PI::COperation*>(data);
  switch (command) {
    case PI::CMD_INITIALIZE:
      return EmptyOnFailure(Initialize(*adapterIDs), *adapterIDs);
    case PI::CMD_SET_ADAPTER_IDS:
      return SetAdapterIDs(*adapterIDs);
    case PI::CMD_DEINITIALIZE:
      return DeInitialize();
    case PI::CMD_GET_TOPOLOGY:
      return EmptyOnFailure(GetTopology(*objects), *objects);
    case PI::CMD_GET_PROPERTIES:
      return EmptyOnFailure(GetProperties(objectID, *properties), *properties);
    case PI::CMD_GET_PROPERTY:
      return GetProperty(objectID, *property);
    case PI::CMD_SET_PROPERTY:
      return SetProperty(objectID, *property);
    case PI::CMD_GET_OPERATIONS:
      return EmptyOnFailure(GetOperations(objectID, *operations), *operations);
    case PI::CMD_CHECK_OPERATION:
      return CheckOperation(objectID, *operation);
    case PI::CMD_EXECUTE_OPERATION:
      return ExecuteOperation(objectID, *operation);
  }
  return PI::COMMAND_ERROR;
}

/// The four handlers of one request, by kind of object.
template <class... TArguments>
struct IPLUGINAPI_IMPL::SHandlers {
  unsigned int (IPLUGINAPI_IMPL::*m_Plugin)(CRVXPlugin&, TArguments...);
  unsigned int (IPLUGINAPI_IMPL::*m_Adapter)(CRVXAdapter&, TArguments...);
  unsigned int (IPLUGINAPI_IMPL::*m_PhysicalDrive)(CRVXPhysicalDrive&, TArguments...);
  unsigned int (IPLUGINAPI_IMPL::*m_LogicalDrive)(CRVXLogicalDrive&, TArguments...);
  const char* m_CountingRequest{nullptr};  ///< its name, when it traces how many drives there are
};

/// Calls the handler for the object with this identifier, then adds `counterStep` to the object's update
/// counter.
template <class... TArguments>
unsigned int IPLUGINAPI_IMPL::Route(const SHandlers<TArguments...>& handlers, unsigned long id,
                                    unsigned long counterStep,
                                    std::type_identity_t<TArguments>... arguments) {
  const CTracedLock lock(m_DataLock, KVT::Threading::INFINITE_WAIT, DATA_LOCK_OF_REQUEST, TRACE_SOURCE);
  const auto call = [&](auto& object, auto handler) {
    const unsigned int status = (this->*handler)(object, std::forward<TArguments>(arguments)...);
    object.m_UpdateCounter += counterStep;
    return status;
  };
  if (handlers.m_CountingRequest != nullptr)
    RVX_TRACE(TRACE_INFORMATION, "%s m_PhysicalDrives=%d", handlers.m_CountingRequest,
              m_PhysicalDrives.size());
  if (m_Plugin.m_ID == id) return call(m_Plugin, handlers.m_Plugin);
  if (m_Adapter.m_ID == id) return call(m_Adapter, handlers.m_Adapter);
  for (CRVXPhysicalDrive& drive : m_PhysicalDrives)
    if (drive.m_ID == id) return call(drive, handlers.m_PhysicalDrive);
  for (CRVXLogicalDrive& array : m_LogicalDrives)
    if (array.m_ID == id) return call(array, handlers.m_LogicalDrive);
  return PI::INVALID_OBJECT_ID;
}

unsigned int IPLUGINAPI_IMPL::GetProperties(unsigned long id, std::vector<PI::CProperty>& properties) {
  static constexpr SHandlers<std::vector<PI::CProperty>&, PI::_PROPERTY_ID> HANDLERS{
      &IPLUGINAPI_IMPL::GetPluginProperties, &IPLUGINAPI_IMPL::GetAdapterProperties,
      &IPLUGINAPI_IMPL::GetPhysicalDriveProperties, &IPLUGINAPI_IMPL::GetLogicalDriveProperties,
      "GetProperties"};
  // Only the reading of a single property counts as a change of the object (oddity 1).
  return Route(HANDLERS, id, 0, properties, PI::PROP_ALL);
}

unsigned int IPLUGINAPI_IMPL::GetProperty(unsigned long& id, PI::CProperty& property) {
  static constexpr SHandlers<std::vector<PI::CProperty>&, PI::_PROPERTY_ID> HANDLERS{
      &IPLUGINAPI_IMPL::GetPluginProperties, &IPLUGINAPI_IMPL::GetAdapterProperties,
      &IPLUGINAPI_IMPL::GetPhysicalDriveProperties, &IPLUGINAPI_IMPL::GetLogicalDriveProperties,
      "GetProperty"};
  std::vector<PI::CProperty> found;
  const unsigned int status = Route(HANDLERS, id, 1, found, property.m_ID);
  if (status != PI::OK) return status;
  if (found.empty()) return PI::ERR_GENERAL;
  property = found.front();
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::SetProperty(unsigned long& id, PI::CProperty& property) {
  static constexpr SHandlers<PI::CProperty&> HANDLERS{
      &IPLUGINAPI_IMPL::SetPluginProperty, &IPLUGINAPI_IMPL::SetAdapterProperty,
      &IPLUGINAPI_IMPL::SetPhysicalDriveProperty, &IPLUGINAPI_IMPL::SetLogicalDriveProperty};
  return Route(HANDLERS, id, 0, property);
}

unsigned int IPLUGINAPI_IMPL::GetOperations(unsigned long& id, std::vector<PI::COperation>& operations) {
  static constexpr SHandlers<std::vector<PI::COperation>&> HANDLERS{
      &IPLUGINAPI_IMPL::GetPluginOperations, &IPLUGINAPI_IMPL::GetAdapterOperations,
      &IPLUGINAPI_IMPL::GetPhysicalDriveOperations, &IPLUGINAPI_IMPL::GetLogicalDriveOperations};
  RVX_TRACE(TRACE_THREADS, "ENTER GetOperations object=0x%x", id);
  const unsigned int status = Route(HANDLERS, id, 0, operations);
  RVX_TRACE(TRACE_THREADS, "LEAVE GetOperations ret=%d", status);
  return status;
}

unsigned int IPLUGINAPI_IMPL::CheckOperation(unsigned long& id, PI::COperation& operation) {
  static constexpr SHandlers<PI::COperation&> HANDLERS{
      &IPLUGINAPI_IMPL::CheckPluginOperation, &IPLUGINAPI_IMPL::CheckAdapterOperation,
      &IPLUGINAPI_IMPL::CheckPhysicalDriveOperation, &IPLUGINAPI_IMPL::CheckLogicalDriveOperation};
  RVX_TRACE(TRACE_LOCKS, "ENTER CheckOperation operation=%d", operation.m_Code);
  const unsigned int status = Route(HANDLERS, id, 0, operation);
  RVX_TRACE(TRACE_LOCKS, "LEAVE CheckOperation(%d)", operation.m_Code);
  return status;
}

unsigned int IPLUGINAPI_IMPL::ExecuteOperation(unsigned long& id, PI::COperation& operation) {
  static constexpr SHandlers<PI::COperation&> HANDLERS{
      &IPLUGINAPI_IMPL::ExecutePluginOperation, &IPLUGINAPI_IMPL::ExecuteAdapterOperation,
      &IPLUGINAPI_IMPL::ExecutePhysicalDriveOperation, &IPLUGINAPI_IMPL::ExecuteLogicalDriveOperation};
  RVX_TRACE(TRACE_LOCKS, "ENTER ExecuteOperation operation=%d", operation.m_Code);
  const unsigned int status = Route(HANDLERS, id, 0, operation);
  RVX_TRACE(TRACE_LOCKS, "LEAVE ExecuteOperation(%d)", operation.m_Code);
  return status;
}

}  // namespace NAMESPACE_piRVX

extern "C" {

ZQ_API unsigned int createIf(IPLUGINAPI** out) {
  using NAMESPACE_piRVX::IPLUGINAPI_IMPL;
  auto* const instance = new (std::nothrow) IPLUGINAPI_IMPL(OS::TheSystem());
  *out = instance;
  if (instance == nullptr) return PI::ERR_OUT_OF_MEMORY;
  instance->m_ModuleNumber = NAMESPACE_piRVX::KVT_MODULE_INFO_piRVX.GetNumber();
  NAMESPACE_piRVX::g_p_IPLUGINAPI_IMPL = instance;
  return PI::OK;
}

ZQ_API void* releaseIf(IPLUGINAPI** inout) {
  using NAMESPACE_piRVX::IPLUGINAPI_IMPL;
  // Only createIf makes instances.
  auto* const instance = static_cast<IPLUGINAPI_IMPL*>(*inout);
  // A cancelled thread may have a program to wait for. One that is there still hangs in the kernel, where no
  // cancellation reaches it, and will come back to the instance's memory.
  if (instance != nullptr && instance->HasRunningThread(2000))
    NAMESPACE_piRVX::ErrorLine(NAMESPACE_piRVX::TRACE_SOURCE, __LINE__,
                               "releaseIf() a thread still runs: its instance is left in place");
  else
    delete instance;
  *inout = nullptr;
  // Cleared also when it points to another instance: the server has one at a time.
  NAMESPACE_piRVX::g_p_IPLUGINAPI_IMPL = nullptr;
  return static_cast<void*>(&NAMESPACE_piRVX::g_p_IPLUGINAPI_IMPL);
}

}  // extern "C"
