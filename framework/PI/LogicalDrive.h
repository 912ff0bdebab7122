#pragma once
/// @file
/// The description of an array: request of a creation, answer of a configuration query.

#include <cstdint>
#include <vector>

#include "KVT/Api.h"
#include "KVT/Markup.h"
#include "PI/Numbers.h"

namespace PI {

/// A member of a container. Plain values, as are the records below.
struct ZQ_API CDrive {
  CDrive() = default;
  explicit CDrive(unsigned long objectID) : m_ObjectID(objectID) {}

  unsigned long m_ObjectID{0};      ///< identifier of the physical drive
  unsigned long m_StartAddress{0};  ///< 512-byte sectors; 0: from the beginning
  unsigned long m_UsedSize{0};      ///< 512-byte sectors; 0: all of it
};

/// The drives that one span of an array lies on.
struct ZQ_API CContainer {
  std::vector<CDrive> m_Drives;
};

/// An array as the framework describes it.
struct ZQ_API CLogicalDrive {
  CLogicalDrive() = default;
  /// Reads a configuration document (root "LogicalDriveConfiguration"); what is missing or no number stays
  /// at its default.
  explicit CLogicalDrive(KVT::XML::CMarkup document);
  /// The configuration document of this description: the attributes of the root, "Containers" when there are
  /// some, "DedicatedHotSpares" when there are some. Numbers in decimal.
  KVT::XML::CMarkup ToDocument() const;

  unsigned long m_Size{0};       ///< MiB; 0: all there is
  unsigned int m_Units{0};       ///< unit of the size, 0: MiB
  unsigned int m_RaidLevel{0};   ///< choice value
  unsigned int m_StripeSize{0};  ///< choice value
  unsigned int m_SpanCount{0};
  unsigned int m_SpanSize{0};  ///< drives in a span
  std::vector<CContainer> m_Containers;
  std::vector<unsigned long> m_DedicatedHotSpares;  ///< identifiers of physical drives
};

/// What a RAID level needs and offers.
struct ZQ_API CLevel {
  unsigned int m_Level{0};  ///< choice value
  unsigned int m_MinimumDrives{0};
  unsigned int m_MaximumDrives{0};
  std::vector<unsigned int> m_StripeSizes;  ///< choice values
  unsigned int m_DefaultStripeSize{0};      ///< choice value, 0: none
  unsigned int m_Unit{0};                   ///< text number of what the limits count
  unsigned int m_MinimumSpans{0};
  unsigned int m_MaximumSpans{0};
};

}  // namespace PI
