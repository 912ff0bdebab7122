#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "KVT/Api.h"
#include "PI/LogicalDrive.h"
#include "PI/Property.h"

namespace PI {

/// Something that happened. A plain value.
class ZQ_API CEvent {
 public:
  CEvent();
  ~CEvent();
  CEvent(const CEvent&);
  CEvent& operator=(const CEvent&);

  void SetPlaceHolder1(const std::string& text) { m_PlaceHolder1 = text; }
  void SetPlaceHolder2(const std::string& text) { m_PlaceHolder2 = text; }

  unsigned long m_ObjectID{0};  ///< what it is about; of a deleted array first its number
  unsigned long m_SourceID{0};  ///< the object that reports it: the adapter; 0: none named
  unsigned int m_Code{0};
  unsigned int m_Severity{SEV_DEFAULT};
  unsigned long m_Time{0};  ///< milliseconds since 1970-01-01 00:00 UTC
  std::string m_PlaceHolder1;
  std::string m_PlaceHolder2;
};

/// An operation that an object offers, and the record in which it is asked for and answered. A plain value;
/// the request behind m_pRequest belongs to the caller and must live until the call returns.
class ZQ_API COperation {
 public:
  /// A constant row: code, category, the six attribute words, confirmation or label code.
  using Row = std::array<std::uint32_t, 9>;

  COperation();
  explicit COperation(const Row& row);
  virtual ~COperation();
  COperation(const COperation&);
  COperation& operator=(const COperation&);

  unsigned int m_Code{0};
  unsigned int m_SecondCode{0};  ///< the same as the code
  unsigned int m_Category{0};
  std::array<std::uint32_t, 6> m_Attributes{};  ///< constant per operation; the framework's own
  bool m_Flag{false};
  unsigned int m_ConfirmationCode{0};          ///< text to confirm or label it with; a check may raise it
  std::vector<CProperty> m_Parameters;         ///< what the caller fills in
  CLogicalDrive* m_pRequest{nullptr};          ///< description of the array to create
  std::vector<CEvent> m_Events;                ///< answer of OP_GET_EVENTS
  std::vector<CLogicalDrive> m_LogicalDrives;  ///< answer of OP_GET_CONFIGURATION
  std::vector<CLevel> m_Levels;                ///< answer of OP_GET_RAID_LEVEL_INFORMATION
};

}  // namespace PI
