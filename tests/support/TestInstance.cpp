#include "tests/support/TestInstance.h"

#include <thread>

#include "system/TheSystem.h"

namespace {
OS::COperatingSystem* s_Machine = nullptr;
}

OS::COperatingSystem& OS::TheSystem() { return *s_Machine; }

namespace NAMESPACE_piRVX {

void UseMachine(OS::COperatingSystem* machine) { s_Machine = machine; }

bool CTestInstance::IsFree(KVT::Threading::Native_OS::CFastMutex& lock) {
  bool free = false;
  std::thread([&] {
    free = lock.Wait(0) == KVT::Threading::WAIT_OK;
    if (free) lock.Release();
  }).join();
  return free;
}

unsigned int CTestInstance::Begin() {
  std::vector<PI::CAdapterID> adapterIDs;
  return Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
}

unsigned int CTestInstance::StartThreads(std::vector<PI::CAdapterID> adapterIDs) {
  return Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapterIDs);
}

std::vector<PI::CObject> CTestInstance::Topology() {
  std::vector<PI::CObject> objects(3);  // what was in it does not stay
  EXPECT_EQ(Execute(PI::CMD_GET_TOPOLOGY, 0, &objects), PI::OK);
  return objects;
}

std::vector<PI::CProperty> CTestInstance::Properties(unsigned long id) {
  std::vector<PI::CProperty> properties;
  EXPECT_EQ(Execute(PI::CMD_GET_PROPERTIES, id, &properties), PI::OK);
  return properties;
}

PI::CProperty CTestInstance::Property(unsigned long id, PI::_PROPERTY_ID which) {
  PI::CProperty property(which);
  EXPECT_EQ(Execute(PI::CMD_GET_PROPERTY, id, &property), PI::OK) << which;
  return property;
}

std::vector<PI::CEvent> CTestInstance::TakeEvents() {
  const std::vector<PI::CEvent> events(m_EventQueue.begin(), m_EventQueue.end());
  m_EventQueue.clear();
  return events;
}

std::vector<unsigned long> CTestInstance::TakeObjects(unsigned int code) {
  std::vector<unsigned long> objects;
  for (const PI::CEvent& event : TakeEvents())
    if (event.m_Code == code) objects.push_back(event.m_ObjectID);
  return objects;
}

std::string CTestInstance::TakeEventText(unsigned long object) {
  std::string text;
  for (const PI::CEvent& event : TakeEvents()) {
    EXPECT_EQ(event.m_SourceID, m_Adapter.m_ID);
    EXPECT_EQ(event.m_Time, m_OS.Now());
    if (event.m_ObjectID != object) text += Text("of %d ", event.m_ObjectID);
    text += Text("%d/%d %s%s%s ", event.m_Code, event.m_Severity, event.m_PlaceHolder1,
                 event.m_PlaceHolder1.empty() ? "" : ",", event.m_PlaceHolder2);
  }
  return text;
}

std::vector<PI::CEvent> CTestInstance::FetchEvents() {
  PI::COperation fetch;
  fetch.m_Code = PI::OP_GET_EVENTS;
  fetch.m_Events.resize(1);  // does not stay
  EXPECT_EQ(Execute(PI::CMD_EXECUTE_OPERATION, PLUGIN_ID, &fetch), PI::OK);
  return fetch.m_Events;
}

const PI::CProperty* Find(const std::vector<PI::CProperty>& list, PI::_PROPERTY_ID id) {
  for (const PI::CProperty& property : list)
    if (property.m_ID == id) return &property;
  return nullptr;
}

std::string Shown(const PI::CProperty& property) {
  if (const auto* text = std::get_if<std::string>(&property.m_Value)) return *text;
  if (const auto* number = std::get_if<unsigned long>(&property.m_Value)) return std::to_string(*number);
  if (const auto* number = std::get_if<float>(&property.m_Value)) return std::to_string(*number);
  if (const auto* range = std::get_if<PI::SRange>(&property.m_Value))
    return Text("%d of %d to %d by %d", range->m_Value, range->m_Minimum, range->m_Maximum, range->m_Step);
  if (const auto* document = std::get_if<KVT::XML::CMarkup>(&property.m_Value)) return document->GetDoc();
  const auto* lists = std::get_if<PI::SNumberLists>(&property.m_Value);
  const auto* choice = std::get_if<PI::SChoice>(&property.m_Value);
  if (lists == nullptr && choice == nullptr) return "";
  std::string text = choice != nullptr ? Text("%d of", choice->m_Selected) : std::string("list of");
  for (const int one : choice != nullptr ? choice->m_Choices : lists->m_Values) text += Text(" %d", one);
  return text;
}

}  // namespace NAMESPACE_piRVX
