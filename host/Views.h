#pragma once
/// @file
/// What the commands that show something show: as a document and as a text, from one look at the machine.
/// rvxctl looks by itself, rvxd keeps the last look; both show it by these.

#include <functional>
#include <map>
#include <string>
#include <vector>

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
SView StatusView(const CInventory& inventory, const SHealth& health, const SStatusView& wanted,
                 const SForm& form);

struct SListView {
  PI::_OBJECT_KIND m_Kind;
  SFilter m_Filter{};
  SListStyle m_List{};
};
/// Disks or arrays. Throws CError for a column or array that is not there.
SView ListView(const CInventory& inventory, const SListView& wanted, const SForm& form);

/// All of one object.
SView ObjectView(const CInventory& inventory, const PI::CObject& object, const SForm& form);

/// An operation of an object, and what the plug-in's check and the rules of a host say of it now.
struct SOffer {
  PI::COperation m_Operation;  ///< as the check left it
  unsigned int m_Status{PI::OK};
  std::string m_Why{};   ///< empty: allowed
  std::string m_Rule{};  ///< of a host, that forbids it; empty: the plug-in does
};
/// The plug-in's check of an operation.
using Checker = std::function<unsigned int(const PI::CObject&, PI::COperation&)>;
/// What an object offers. It asks the machine, and opens an array exclusively for a moment.
std::vector<SOffer> OffersOf(const CInventory& inventory, const PI::CObject& object, const Checker& check);
SView OperationsView(const PI::CObject& object, const std::vector<SOffer>& offers, const SForm& form);

SView PropertiesView(const PI::CObject& object, const std::vector<PI::CProperty>& properties,
                     const SForm& form);
SView LevelsView(const CTopology& topology, const SForm& form);

/// One line for monitoring, whose exit status is the health.
SView CheckView(const CInventory& inventory, const SHealth& health);
/// The same when nothing could be looked at.
SView UnknownView(const std::string& why);

/// What runs on an array, for whoever follows it: "run" with the figures, or with what it waits for.
SView RunView(const CInventory& inventory, const std::string& array);

/// A view as it is asked for by name, with what it takes: {"status", {{"only-problems", "1"}}}.
struct SViewRequest {
  std::string m_Name;
  std::map<std::string, std::string> m_Words{};

  /// Empty when it is not said.
  const std::string& operator[](const std::string& word) const;
  /// Throws CError(EXIT_USAGE) when it is no decimal number.
  unsigned long Number(const std::string& word, unsigned long otherwise) const;
};

/// What some views ask the machine or the plug-in, beside the inventory.
struct SQuestions {
  std::function<SHealth()> m_ArrayHealth;
  std::function<std::vector<SOffer>(const PI::CObject&)> m_Offers;
  /// All of an object's, or the one of that number. Throws CError when it has none.
  std::function<std::vector<PI::CProperty>(const PI::CObject&, unsigned int)> m_Properties;
};

/// The view of that name: topology, status, disks, arrays, object, operations, properties, levels, check,
/// run. Throws CError when it cannot be made, or none has the name.
SView ViewOf(const CInventory& inventory, const SQuestions& questions, const SViewRequest& request,
             const SForm& form);
/// The exit status that belongs to a view: the health of "check".
int ExitStatusOf(const SView& view);

}  // namespace Host
