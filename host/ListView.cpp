#include "host/ListView.h"

#include <algorithm>
#include <iterator>
#include <sstream>

#include "host/Error.h"
#include "host/Keys.h"
#include "host/Table.h"
#include "host/TextView.h"
#include "host/Values.h"

namespace Host {

namespace {

/// What a cell is made of.
struct SRow {
  const SStyle& m_Style;
  const CInventory& m_Inventory;
  const PI::CObject& m_Object;
  bool m_Bytes;

  std::string Text(PI::_PROPERTY_ID id) const { return TextOf(m_Object, id); }
  std::string Word(PI::_PROPERTY_ID id) const {
    const auto number = NumberOf(m_Object, id);
    return number ? Keys::OfChoice(static_cast<unsigned int>(*number), m_Object.m_Kind) : "";
  }
  std::string Size(PI::_PROPERTY_ID id) const {
    const auto mebibytes = NumberOf(m_Object, id);
    return m_Bytes && mebibytes ? std::to_string(*mebibytes << 20) : SizeText(mebibytes);
  }
  const SArrayEntry& Entry() const { return m_Inventory.EntryOf(m_Object); }
  SDeviceFacts Facts() const { return m_Inventory.FactsOf(m_Object); }
  /// The place in its array of the disk or of a partition of it; null outside of one.
  const SMember* Membership(const SArrayEntry** array = nullptr) const {
    for (const SArrayEntry& entry : m_Inventory.Arrays())
      for (const SMember& member : entry.m_Members)
        if (member.m_Whole == &m_Object) {
          if (array != nullptr) *array = &entry;
          return &member;
        }
    return nullptr;
  }
};

using Cell = SCell(const SRow&);

struct SColumn {
  const char* m_Name;     ///< for --columns
  const char* m_Heading;  ///< null: not one of the usual columns
  bool m_Shrinks;         ///< on a narrow terminal
  Cell* m_Cell;           ///< for people; null: as for scripts
  Cell* m_Word{nullptr};  ///< for scripts; null: as for people
};

SCell NameCell(const SRow& row) { return NameOf(row.m_Object); }
SCell StatusCell(const SRow& row) { return StateCell(row.m_Style, row.m_Object, PI::PROP_STATUS); }
SCell StatusWord(const SRow& row) { return row.Word(PI::PROP_STATUS); }
SCell PathCell(const SRow& row) { return row.Text(PI::PROP_DEVICE_PATH); }
SCell NumberCell(const SRow& row) { return row.Facts().m_Number; }

SCell ArrayOfDisk(const SRow& row) {
  const SArrayEntry* array = nullptr;
  if (row.Membership(&array) != nullptr) return array->m_Name;
  // A partition of it is the member.
  const PI::CObject* const other = row.m_Inventory.Topology().ArrayOf(row.m_Object);
  return other == nullptr ? "" : NameOf(*other);
}

SCell MediumCell(const SRow& row) {
  return NumberOf(row.m_Object, PI::PROP_MEDIUM) == PI::MEDIUM_SOLID_STATE ? "SSD" : "HDD";
}

/// The best of the names that udev gives, the WWN's last: it tells nobody anything.
SCell ByIdWord(const SRow& row) {
  const auto names = row.Facts().m_ByID;
  return names.empty() ? "" : names.front().substr(names.front().rfind('/') + 1);
}

SCell ActivityCell(const SRow& row) {
  SCell cell = StateCell(row.m_Style, row.m_Object, PI::PROP_ACTIVITY);
  cell.m_Text = row.Entry().ActivityText();
  return cell;
}

SCell ProgressWord(const SRow& row) {
  const auto activity = NumberOf(row.m_Object, PI::PROP_ACTIVITY);
  const bool resync = activity == PI::ACTIVITY_RESYNCING;
  if (!resync && activity != PI::ACTIVITY_REBUILDING) return "";
  const auto percent = NumberOf(row.m_Object, resync ? PI::PROP_RESYNC_PROGRESS : PI::PROP_REBUILD_PROGRESS);
  return percent ? std::to_string(*percent) : "";
}

SCell MembersCell(const SRow& row) {
  return std::to_string(row.Entry().m_Present) + "/" + std::to_string(row.Entry().m_Wanted);
}

SCell DisksWord(const SRow& row) {
  std::string names = row.Entry().MembersText();
  std::ranges::replace(names, ' ', ',');
  return names;
}

constexpr SColumn DISK_COLUMNS[] = {
    {"name", "DISK", false, NameCell},
    {"status", "STATUS", false, StatusCell, StatusWord},
    {"size", "SIZE", false, [](const SRow& row) -> SCell { return row.Size(PI::PROP_CAPACITY); }},
    {"vendor", "VENDOR", true, [](const SRow& row) -> SCell { return row.Text(PI::PROP_VENDOR); }},
    {"model", "MODEL", true, [](const SRow& row) -> SCell { return row.Text(PI::PROP_MODEL); }},
    {"serial", "SERIAL", false, [](const SRow& row) -> SCell { return row.Facts().m_Serial; }},
    {"medium", "MEDIUM", false, MediumCell,
     [](const SRow& row) -> SCell { return row.Word(PI::PROP_MEDIUM); }},
    {"array", "ARRAY", false, ArrayOfDisk},
    {"role", nullptr, false, nullptr,
     [](const SRow& row) -> SCell {
       const SMember* const member = row.Membership();
       return member == nullptr ? "" : WordOf(member->m_Role);
     }},
    {"attachment", nullptr, false, nullptr,
     [](const SRow& row) -> SCell { return row.Word(PI::PROP_ATTACHMENT); }},
    {"usable", nullptr, false, nullptr,
     [](const SRow& row) -> SCell { return row.Size(PI::PROP_USABLE_CAPACITY); }},
    {"wwn", nullptr, false, nullptr, [](const SRow& row) -> SCell { return row.Facts().m_WWN; }},
    {"address", nullptr, false, nullptr, [](const SRow& row) -> SCell { return row.Facts().m_Address; }},
    {"by-id", nullptr, false, nullptr, ByIdWord},
    {"path", nullptr, false, PathCell},
    {"number", nullptr, false, NumberCell}};

constexpr SColumn ARRAY_COLUMNS[] = {
    {"name", "ARRAY", false, NameCell},
    {"status", "STATUS", false, StatusCell, StatusWord},
    {"level", "LEVEL", false, [](const SRow& row) -> SCell { return row.Entry().m_Level; }},
    {"size", "SIZE", false, [](const SRow& row) -> SCell { return row.Size(PI::PROP_ARRAY_CAPACITY); }},
    {"activity", "ACTIVITY", false, ActivityCell,
     [](const SRow& row) -> SCell { return row.Word(PI::PROP_ACTIVITY); }},
    {"members", "MEMBERS", false, MembersCell},
    {"disks", "DISKS", false, [](const SRow& row) -> SCell { return row.Entry().MembersText(); }, DisksWord},
    {"progress", nullptr, false, nullptr, ProgressWord},
    {"path", nullptr, false, PathCell},
    {"number", nullptr, false, NumberCell}};

std::vector<const SColumn*> ColumnsOf(PI::_OBJECT_KIND kind) {
  std::vector<const SColumn*> columns;
  const auto all = [&](const auto& table) {
    for (const SColumn& column : table) columns.push_back(&column);
  };
  kind == PI::OBJ_PHYSICAL_DRIVE ? all(DISK_COLUMNS) : all(ARRAY_COLUMNS);
  return columns;
}

std::vector<const SColumn*> NamedColumns(PI::_OBJECT_KIND kind, const std::string& wanted) {
  std::vector<const SColumn*> named;
  std::istringstream names(wanted);
  const auto all = ColumnsOf(kind);
  for (std::string name; std::getline(names, name, ',');) {
    const auto found = std::ranges::find(all, name, [](const SColumn* column) { return column->m_Name; });
    if (found == all.end()) {
      std::string known;
      for (const std::string& one : ColumnNames(kind)) known.append(known.empty() ? "" : ",").append(one);
      throw CError(EXIT_USAGE, std::string("--columns: there is no column \"")
                                   .append(name)
                                   .append("\"; there are: ")
                                   .append(known));
    }
    named.push_back(*found);
  }
  return named;
}

/// One word, so that who counts words counts columns.
std::string OneWord(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c <= ' '; }, '_');
  return text.empty() ? "-" : text;
}

SCell CellOf(const SColumn& column, const SRow& row, bool isWord) {
  if (isWord) return OneWord((column.m_Word != nullptr ? column.m_Word : column.m_Cell)(row).m_Text);
  SCell cell = (column.m_Cell != nullptr ? column.m_Cell : column.m_Word)(row);
  if (cell.m_Text.empty()) cell.m_Text.assign(1, '-');
  return cell;
}

}  // namespace

std::vector<std::string> ColumnNames(PI::_OBJECT_KIND kind) {
  std::vector<std::string> names;
  for (const SColumn* const column : ColumnsOf(kind)) names.emplace_back(column->m_Name);
  return names;
}

Objects Listed(const CInventory& inventory, PI::_OBJECT_KIND kind, const SFilter& filter) {
  Objects objects = inventory.Topology().OfKind(kind);
  const PI::CObject* const array =
      filter.m_Array.empty() ? nullptr : &inventory.Find(filter.m_Array, PI::OBJ_LOGICAL_DRIVE);
  const auto isOut = [&](const PI::CObject* object) {
    const auto status = NumberOf(*object, PI::PROP_STATUS);
    if (filter.m_Ready && status != PI::STATUS_READY) return true;
    if (filter.m_Failed && status != PI::STATUS_FAILED && status != PI::STATUS_MISSING) return true;
    return array != nullptr &&
           std::ranges::none_of(inventory.EntryOf(*array).m_Members,
                                [&](const SMember& member) { return member.m_Whole == object; });
  };
  std::erase_if(objects, isOut);
  std::ranges::stable_sort(objects, {}, [](const PI::CObject* object) {
    const std::string name = NameOf(*object);
    return std::pair(name.size(), name);
  });
  return objects;
}

std::string ListText(const SStyle& style, const CInventory& inventory, PI::_OBJECT_KIND kind,
                     const Objects& objects, const SListStyle& list) {
  const bool isForScripts = !list.m_Columns.empty();
  std::vector<const SColumn*> columns = isForScripts ? NamedColumns(kind, list.m_Columns) : ColumnsOf(kind);
  if (!isForScripts)
    std::erase_if(columns, [](const SColumn* column) { return column->m_Heading == nullptr; });
  std::vector<std::string> names;
  std::vector<SHeading> heading;
  for (const SColumn* const column : columns) {
    std::string& name = names.emplace_back(column->m_Name);
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::toupper(c); });
  }
  for (std::size_t i = 0; i < columns.size() && !list.m_NoHeadings; ++i)
    heading.emplace_back(isForScripts ? names[i].c_str() : columns[i]->m_Heading, columns[i]->m_Shrinks);
  Rows rows;
  for (const PI::CObject* const object : objects) {
    const SRow row{style, inventory, *object, list.m_Bytes};
    auto& cells = rows.emplace_back();
    for (const SColumn* const column : columns) cells.push_back(CellOf(*column, row, isForScripts));
  }
  if (rows.empty()) return {};
  return Table(heading, rows, isForScripts ? 0 : style.m_Width);
}

}  // namespace Host
