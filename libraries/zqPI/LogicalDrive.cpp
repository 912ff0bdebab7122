#include "PI/LogicalDrive.h"

#include <charconv>
#include <string>

namespace PI {
namespace {

/// A numeric attribute of the current element; `fallback` when it is missing, no number or too large.
template <class TNumber>
TNumber ReadNumber(const KVT::XML::CMarkup& document, const char* name, TNumber fallback) {
  const std::string text = document.GetAttrib(name);
  const char* end = text.data() + text.size();
  TNumber number{};
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? number : fallback;
}

CDrive ReadDrive(const KVT::XML::CMarkup& document) {
  CDrive drive(ReadNumber(document, "ObjectID", 0UL));
  drive.m_StartAddress = ReadNumber(document, "StartAddress", drive.m_StartAddress);
  drive.m_UsedSize = ReadNumber(document, "UsedSize", drive.m_UsedSize);
  return drive;
}

/// The "Drive" elements below the current one.
std::vector<CDrive> ReadDrives(KVT::XML::CMarkup& document) {
  std::vector<CDrive> drives;
  document.IntoElem();
  while (document.FindElem("Drive")) drives.push_back(ReadDrive(document));
  document.OutOfElem();
  return drives;
}

void AddNumber(KVT::XML::CMarkup& document, const char* name, unsigned long number) {
  document.SetAttrib(name, std::to_string(number));
}

void AddContainer(KVT::XML::CMarkup& document, const CContainer& container) {
  document.AddElem("Container");
  document.IntoElem();
  for (const CDrive& drive : container.m_Drives) {
    document.AddElem("Drive");
    AddNumber(document, "ObjectID", drive.m_ObjectID);
    AddNumber(document, "StartAddress", drive.m_StartAddress);
    AddNumber(document, "UsedSize", drive.m_UsedSize);
  }
  document.OutOfElem();
}

}  // namespace

CLogicalDrive::CLogicalDrive(KVT::XML::CMarkup document) {
  document.ResetPos();
  if (!document.FindElem("LogicalDriveConfiguration")) return;
  m_Size = ReadNumber(document, "Size", m_Size);
  m_Units = ReadNumber(document, "Units", m_Units);
  m_SpanCount = ReadNumber(document, "SpanCount", m_SpanCount);
  m_SpanSize = ReadNumber(document, "SpanSize", m_SpanSize);

  document.IntoElem();
  if (document.FindElem("Containers")) {
    document.IntoElem();
    while (document.FindElem("Container")) m_Containers.push_back({ReadDrives(document)});
    document.OutOfElem();
  }
  document.OutOfElem();
  document.IntoElem();  // back before the first child: the two may stand in any order
  if (document.FindElem("DedicatedHotSpares")) {
    for (const CDrive& drive : ReadDrives(document)) m_DedicatedHotSpares.push_back(drive.m_ObjectID);
  }
}

KVT::XML::CMarkup CLogicalDrive::ToDocument() const {
  KVT::XML::CMarkup document;
  document.AddElem("LogicalDriveConfiguration");
  AddNumber(document, "Size", m_Size);
  AddNumber(document, "Units", m_Units);
  AddNumber(document, "SpanCount", m_SpanCount);
  AddNumber(document, "SpanSize", m_SpanSize);
  document.IntoElem();
  if (!m_Containers.empty()) {
    document.AddElem("Containers");
    document.IntoElem();
    for (const CContainer& container : m_Containers) AddContainer(document, container);
    document.OutOfElem();
  }
  if (!m_DedicatedHotSpares.empty()) {
    document.AddElem("DedicatedHotSpares");
    document.IntoElem();
    for (const unsigned long spare : m_DedicatedHotSpares) {
      document.AddElem("Drive");
      AddNumber(document, "ObjectID", spare);
    }
    document.OutOfElem();
  }
  document.ResetPos();
  return document;
}

}  // namespace PI
