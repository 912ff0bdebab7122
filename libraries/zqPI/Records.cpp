// The framework's records: their special members are here so that every module shares one virtual table.
#include "PI/Object.h"
#include "PI/Operation.h"
#include "PI/PluginApi.h"
#include "PI/Property.h"

INotificationTarget::~INotificationTarget() = default;
IPLUGINAPI::IPLUGINAPI() = default;
IPLUGINAPI::~IPLUGINAPI() = default;

namespace PI {

CObject::CObject() = default;
CObject::~CObject() = default;
CObject::CObject(const CObject&) = default;
CObject& CObject::operator=(const CObject&) = default;

CAdapterID::CAdapterID() = default;
CAdapterID::~CAdapterID() = default;
CAdapterID::CAdapterID(const CAdapterID&) = default;
CAdapterID& CAdapterID::operator=(const CAdapterID&) = default;

CEvent::CEvent() = default;
CEvent::~CEvent() = default;
CEvent::CEvent(const CEvent&) = default;
CEvent& CEvent::operator=(const CEvent&) = default;

COperation::COperation() = default;
COperation::COperation(const Row& row)
    : m_Code(row[0]),
      m_SecondCode(row[0]),
      m_Category(row[1]),
      m_Attributes{row[2], row[3], row[4], row[5], row[6], row[7]},
      m_ConfirmationCode(row[8]) {}
COperation::~COperation() = default;
COperation::COperation(const COperation&) = default;
COperation& COperation::operator=(const COperation&) = default;

CProperty::CProperty(_PROPERTY_ID id, bool writable) : m_ID(id), m_Writable(writable) {}
CProperty::~CProperty() = default;
CProperty::CProperty(const CProperty&) = default;
CProperty& CProperty::operator=(const CProperty&) = default;

void CProperty::SetValue(const char* text) { m_Value.emplace<std::string>(text); }
void CProperty::SetValue(const std::string& text) { m_Value.emplace<std::string>(text); }
void CProperty::SetValue(unsigned long number) { m_Value.emplace<unsigned long>(number); }
void CProperty::SetValue(float number) { m_Value.emplace<float>(number); }
void CProperty::SetValue(int value, int minimum, int maximum, unsigned int step) {
  m_Value = SRange{value, minimum, maximum, step};
}
void CProperty::SetValue(int selected, const std::vector<int>& choices) {
  m_Value = SChoice{selected, choices};
}
void CProperty::SetValue(const std::vector<int>& values, const std::vector<int>& second) {
  m_Value = SNumberLists{values, second};
}
void CProperty::SetValue(const KVT::XML::CMarkup& document) { m_Value.emplace<KVT::XML::CMarkup>(document); }

bool CProperty::GetValue(int& value, int& minimum, int& maximum, unsigned int& step) const {
  const auto* range = std::get_if<SRange>(&m_Value);
  if (range == nullptr) return false;
  value = range->m_Value;
  minimum = range->m_Minimum;
  maximum = range->m_Maximum;
  step = range->m_Step;
  return true;
}

bool CProperty::GetValue(unsigned long& number) const {
  const auto* stored = std::get_if<unsigned long>(&m_Value);
  if (stored != nullptr) number = *stored;
  return stored != nullptr;
}

}  // namespace PI
