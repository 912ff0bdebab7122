#pragma once
/// @file
/// Operations as tables: a row is all that there is of an operation.

#include <vector>

#include "PI/Operation.h"

namespace NAMESPACE_piRVX {

class IPLUGINAPI_IMPL;

/// One operation of a kind of object. What has no execution is refused as not supported.
template <class TObject>
struct SOperationRow {
  using Handler = unsigned int(IPLUGINAPI_IMPL& plugin, TObject& object, PI::COperation& operation);
  PI::COperation::Row m_Record;
  Handler* m_Check{nullptr};
  Handler* m_Execute{nullptr};

  unsigned int Code() const { return m_Record[0]; }
};

/// The first row of an operation; null when there is none.
template <class TObject, std::size_t COUNT>
const SOperationRow<TObject>* FindOperation(const SOperationRow<TObject> (&rows)[COUNT], unsigned int code) {
  for (const SOperationRow<TObject>& row : rows)
    if (row.Code() == code) return &row;
  return nullptr;
}

/// Empties the list and offers one operation per row.
template <class TObject, std::size_t COUNT>
unsigned int OfferOperations(const SOperationRow<TObject> (&rows)[COUNT], std::vector<PI::COperation>& out) {
  out.clear();
  for (const SOperationRow<TObject>& row : rows) out.emplace_back(row.m_Record);
  return PI::OK;
}

/// Asks the operation's check; what has none is allowed.
template <class TObject, std::size_t COUNT>
unsigned int CheckByRow(const SOperationRow<TObject> (&rows)[COUNT], IPLUGINAPI_IMPL& plugin, TObject& object,
                        PI::COperation& operation) {
  const SOperationRow<TObject>* const row = FindOperation(rows, operation.m_Code);
  return row == nullptr || row->m_Check == nullptr ? PI::OK : row->m_Check(plugin, object, operation);
}

/// Carries the operation out.
template <class TObject, std::size_t COUNT>
unsigned int ExecuteByRow(const SOperationRow<TObject> (&rows)[COUNT], IPLUGINAPI_IMPL& plugin,
                          TObject& object, PI::COperation& operation) {
  const SOperationRow<TObject>* const row = FindOperation(rows, operation.m_Code);
  return row == nullptr || row->m_Execute == nullptr
             ? static_cast<unsigned int>(PI::ERR_OPERATION_NOT_SUPPORTED)
             : row->m_Execute(plugin, object, operation);
}

}  // namespace NAMESPACE_piRVX
