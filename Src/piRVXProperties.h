#pragma once
/// @file
/// Property lists as tables: a row says all that is constant of a property, its function puts the value in.

#include <cstddef>
#include <vector>

#include "PI/Property.h"

namespace NAMESPACE_piRVX {

/// One property of an object; TView is what the values are taken from.
template <class TView>
struct SPropertyRow {
  PI::_PROPERTY_ID m_ID;
  unsigned int m_LabelTextID;
  /// Sets the value and what depends on it; false leaves the property out.
  bool (*m_Fill)(TView& view, PI::CProperty& property);
  unsigned int m_UnitTextID{0};
  unsigned int m_DisplayKind{0};
  unsigned int m_Group{PI::CProperty::NO_GROUP};
  unsigned int m_AttributeWord{PI::CProperty::SHOWN};
  bool m_Writable{false};
};

/// Appends the wanted property, or all of them for PROP_ALL, in the table's order.
template <class TView, std::size_t COUNT>
void AppendProperties(const SPropertyRow<TView> (&rows)[COUNT], TView view, PI::_PROPERTY_ID which,
                      std::vector<PI::CProperty>& out) {
  for (const SPropertyRow<TView>& row : rows) {
    if (which != PI::PROP_ALL && which != row.m_ID) continue;
    PI::CProperty property(row.m_ID, row.m_Writable);
    property.m_LabelTextID = row.m_LabelTextID;
    property.m_UnitTextID = row.m_UnitTextID;
    property.m_DisplayKind = row.m_DisplayKind;
    property.m_Group = row.m_Group;
    property.m_AttributeWord = row.m_AttributeWord;
    if (row.m_Fill(view, property)) out.push_back(property);
  }
}

/// Sets a value that is always there.
template <class TValue>
bool Put(PI::CProperty& property, const TValue& value) {
  property.SetValue(value);
  return true;
}
inline bool PutChoice(PI::CProperty& property, std::uint32_t selected, const std::vector<int>& choices) {
  property.SetValue(static_cast<int>(selected), choices);
  return true;
}
inline bool PutPercent(PI::CProperty& property, std::uint32_t percent) {
  property.SetValue(static_cast<int>(percent), 0, 100, 1);
  return true;
}

}  // namespace NAMESPACE_piRVX
