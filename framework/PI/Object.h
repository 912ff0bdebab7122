#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KVT/Api.h"
#include "PI/Operation.h"
#include "PI/Property.h"

namespace PI {

/// An object of the topology. A plain value. The lists of properties and operations are filled in topologies
/// only.
class ZQ_API CObject {
 public:
  CObject();
  virtual ~CObject();
  CObject(const CObject&);
  CObject& operator=(const CObject&);

  unsigned long m_ID{0};  ///< module number in the top 16 bits, a counter below
  unsigned int m_Kind{OBJ_NONE};
  std::vector<unsigned long> m_Parents;
  std::vector<unsigned long> m_Children;
  unsigned long m_UpdateCounter{0};  ///< rises whenever a front end should read the object again
  bool m_Busy{false};
  std::vector<CProperty> m_Properties;
  std::vector<COperation> m_Operations;
};

/// Tells the framework which adapter is meant, and the plug-in which number it was given.
class ZQ_API CAdapterID {
 public:
  static constexpr std::int32_t NO_ADAPTER_NUMBER = -1;

  CAdapterID();
  virtual ~CAdapterID();
  CAdapterID(const CAdapterID&);
  CAdapterID& operator=(const CAdapterID&);

  std::string m_Text;
  std::int32_t m_First{0};
  std::int32_t m_Location1{0};
  std::int32_t m_Location2{0};
  std::int32_t m_Location3{0};
  std::int32_t m_Fifth{0};
  std::int32_t m_AdapterNumber{NO_ADAPTER_NUMBER};
};

}  // namespace PI
