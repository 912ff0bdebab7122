#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "KVT/Api.h"
#include "KVT/Markup.h"
#include "PI/Numbers.h"

namespace PI {

/// A number with its limits.
struct SRange {
  int m_Value;
  int m_Minimum;
  int m_Maximum;
  unsigned int m_Step;
};

/// A selected item out of numbered ones.
struct SChoice {
  int m_Selected;
  std::vector<int> m_Choices;
};

/// A list of numbers with a second list beside it.
struct SNumberLists {
  std::vector<int> m_Values;
  std::vector<int> m_Second;
};

/// Kind of a property's value.
enum _DATA_TYPE : std::uint32_t {
  DATA_NONE = 0,          ///< no value
  DATA_TEXT = 1,          ///< UTF-8
  DATA_RANGE = 2,         ///< a number and its limits
  DATA_CHOICE = 3,        ///< one of several numbers, each of which has a text
  DATA_FLOAT = 4,         ///< 32 bits
  DATA_UNSIGNED = 5,      ///< unsigned 64-bit number
  DATA_NUMBER_LISTS = 6,  ///< two lists of numbers
  DATA_XML = 7            ///< a document
};

/// A property of an object. A plain value.
class ZQ_API CProperty {
 public:
  /// Attribute word of a property that every view shows; 0 hides it.
  static constexpr unsigned int SHOWN = 0xFFFFFFFFU;
  /// Group of a property that stands by itself.
  static constexpr unsigned int NO_GROUP = 0xFFFFFFFFU;

  explicit CProperty(_PROPERTY_ID id, bool writable = false);
  virtual ~CProperty();
  CProperty(const CProperty&);
  CProperty& operator=(const CProperty&);

  void SetValue(const char* text);
  void SetValue(const std::string& text);
  void SetValue(unsigned long number);
  void SetValue(float number);
  void SetValue(int value, int minimum, int maximum, unsigned int step);
  void SetValue(int selected, const std::vector<int>& choices);
  void SetValue(const std::vector<int>& values, const std::vector<int>& second);
  void SetValue(const KVT::XML::CMarkup& document);

  /// Reads a range; false (and the arguments stay) when the value is of another kind.
  bool GetValue(int& value, int& minimum, int& maximum, unsigned int& step) const;
  /// Reads an unsigned number; false (and the argument stays) when the value is of another kind.
  bool GetValue(unsigned long& number) const;

  _DATA_TYPE GetDataType() const { return static_cast<_DATA_TYPE>(m_Value.index()); }

  _PROPERTY_ID m_ID;
  bool m_Writable;
  unsigned int m_LabelTextID{0};        ///< 0: no label
  unsigned int m_UnitTextID{0};         ///< 0: no unit
  unsigned int m_ValueTextID{0};        ///< text that describes the value; 0: none
  unsigned int m_AttributeWord{SHOWN};  ///< views that show the property, a bit each
  unsigned int m_DisplayFormat{0};      ///< 8: a number with a fraction
  unsigned int m_DisplayKind{0};        ///< 35xxx, how a front end draws it; 0: as its data type
  unsigned int m_Group{NO_GROUP};       ///< properties of one group are shown together
  unsigned int m_TrailingFlags{1};      ///< 0: changes by itself, do not cache
  /// The value; the index of the alternative is the _DATA_TYPE.
  std::variant<std::monostate, std::string, SRange, SChoice, float, unsigned long, SNumberLists,
               KVT::XML::CMarkup>
      m_Value;
};

}  // namespace PI
