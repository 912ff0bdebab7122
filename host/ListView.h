#pragma once
/// @file
/// Lists of disks and arrays: tables for people, columns of single words for scripts.

#include <string>
#include <vector>

#include "host/Inventory.h"
#include "host/Table.h"

namespace Host {

using Objects = std::vector<const PI::CObject*>;

struct SListStyle {
  std::string m_Columns;  ///< names with commas between; empty: the usual ones
  bool m_Bytes{false};    ///< sizes as numbers of bytes
  bool m_NoHeadings{false};
};

/// The names of a kind's columns, the usual ones first.
std::vector<std::string> ColumnNames(PI::_OBJECT_KIND kind);

/// Which disks a list has; every one that is said must hold.
struct SFilter {
  bool m_Ready{false};
  bool m_Failed{false};
  std::string m_Array;  ///< members of it alone; empty: of any or none
};

/// The disks or arrays, by name as people count: sdz before sdaa. Throws CError(EXIT_NO_OBJECT) when there is
/// no array of the filter's name.
Objects Listed(const CInventory& inventory, PI::_OBJECT_KIND kind, const SFilter& filter = {});

/// A line an object. Without named columns it is for people and fits the terminal; with them each cell is one
/// word, "-" where nothing is known, and lines are whole. Throws CError(EXIT_USAGE) for a column that is not
/// there, which tells those that are.
std::string ListText(const SStyle& style, const CInventory& inventory, PI::_OBJECT_KIND kind,
                     const Objects& objects, const SListStyle& list = {});

}  // namespace Host
