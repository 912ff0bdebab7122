#include "tests/support/TestInstance.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "system/TheMachine.h"

namespace NAMESPACE_piRVX {

namespace {
COperatingSystem* s_Machine = nullptr;
}

void UseMachine(COperatingSystem* machine) { s_Machine = machine; }

COperatingSystem& TheMachine() {
  if (s_Machine == nullptr) throw std::logic_error("a test calls createIf without a machine");
  return *s_Machine;
}

CConfigFolder::CConfigFolder()
    : m_Folder(boost::filesystem::temp_directory_path() / boost::filesystem::unique_path("rvx-%%%%%%%%")) {
  boost::filesystem::create_directory(m_Folder);
  ::setenv("ZQ_CONFIG_DIR", m_Folder.c_str(), 1);
}

CConfigFolder::~CConfigFolder() {
  ::unsetenv("ZQ_CONFIG_DIR");
  boost::filesystem::remove_all(m_Folder);
}

void CConfigFolder::Write(const std::string& text) const { std::ofstream(File().string()) << text; }

std::string CConfigFolder::Read() const {
  std::ostringstream text;
  text << std::ifstream(File().string()).rdbuf();
  return text.str();
}

bool CTestInstance::IsFree(KVT::Threading::Native_OS::CFastMutex& lock) {
  bool free = false;
  std::thread([&] {
    free = lock.Wait(0) == KVT::Threading::WAIT_OK;
    if (free) lock.Release();
  }).join();
  return free;
}

CRVXPhysicalDrive& CTestInstance::Drive(const std::string& name) {
  for (CRVXPhysicalDrive& drive : m_PhysicalDrives)
    if (drive.m_KernelName == name) return drive;
  throw std::out_of_range("no drive " + name);
}

CRVXLogicalDrive& CTestInstance::Array(const std::string& name) {
  for (CRVXLogicalDrive& array : m_LogicalDrives)
    if (array.m_KernelName == name) return array;
  throw std::out_of_range("no array " + name);
}

std::vector<PI::CEvent> CTestInstance::TakeEvents() {
  std::vector<PI::CEvent> events;
  events.swap(m_EventQueue);
  return events;
}

std::vector<unsigned int> CTestInstance::TakeEventCodes() {
  std::vector<unsigned int> codes;
  for (const PI::CEvent& event : TakeEvents()) codes.push_back(event.m_Code);
  return codes;
}

void CNotificationCounter::Attach(IPLUGINAPI& plugin) {
  plugin.m_pNotificationTarget = this;
  plugin.m_pNotification = static_cast<IPLUGINAPI::Notification>(&CNotificationCounter::Notify);
}

void CNotificationCounter::Notify(IPLUGINAPI*) { ++m_Count; }

SRig::SRig(const std::string& description) : m_Machine(description), m_Door(m_Machine), m_Plugin(m_Door) {
  m_Notifications.Attach(m_Plugin);
  std::vector<PI::CAdapterID> adapterIDs;
  if (m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs) != PI::OK)
    throw std::runtime_error("the plug-in does not initialise");
}

const PI::CProperty* Find(const std::vector<PI::CProperty>& list, PI::_PROPERTY_ID id) {
  for (const PI::CProperty& property : list)
    if (property.m_ID == id) return &property;
  return nullptr;
}

}  // namespace NAMESPACE_piRVX
