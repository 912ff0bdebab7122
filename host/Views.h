#pragma once
/// @file
/// What the commands that show something show: as a document and as a text, from one look at the machine.
/// rvxctl looks by itself, rvxd keeps the last look; both show it by these.

#include <functional>
#include <string>

#include "host/Health.h"
#include "host/JsonView.h"
#include "host/ListView.h"
#include "host/TextView.h"

namespace Host {

/// In which of its two forms a view is wanted.
struct SForm {
  bool m_Json{false};
  SStyle m_Style{};
};

/// One of the two is made.
struct SView {
  std::string m_Schema;  ///< "status"
  Json m_Data{};
  std::string m_Text{};
};

SView TopologyView(const CInventory& inventory, const SForm& form);

struct SStatusView {
  bool m_OnlyProblems{false};
  bool m_IsScreen{false};  ///< what needs somebody's hand comes first
  std::size_t m_Rows{0};   ///< of the terminal, which what is more rolls off; 0: no limit
};
SView StatusView(const CInventory& inventory, const SStatusView& wanted, const SForm& form);

struct SListView {
  PI::_OBJECT_KIND m_Kind;
  SFilter m_Filter{};
  SListStyle m_List{};
};
/// Disks or arrays. Throws CError for a column or array that is not there.
SView ListView(const CInventory& inventory, const SListView& wanted, const SForm& form);

/// All of one object.
SView ObjectView(const CInventory& inventory, const PI::CObject& object, const SForm& form);

/// The plug-in's check of an operation.
using Checker = std::function<unsigned int(const PI::CObject&, PI::COperation&)>;
/// What an object offers, and what is allowed now: by the plug-in, and by what rvxctl and rvxd refuse by
/// themselves.
SView OperationsView(const CInventory& inventory, const PI::CObject& object, const Checker& check,
                     const SForm& form);

SView PropertiesView(const PI::CObject& object, const std::vector<PI::CProperty>& properties,
                     const SForm& form);
SView LevelsView(const CTopology& topology, const SForm& form);

/// One line for monitoring, whose exit status is the health.
SView CheckView(const CInventory& inventory, const SHealth& health);
/// The same when nothing could be looked at.
SView UnknownView(const std::string& why);

}  // namespace Host
