/// @file
/// Commands that show the topology and its objects.

#include "host/Signals.h"
#include "rvxctl/CommandLine.h"

namespace Host {

namespace {

constexpr std::chrono::seconds WATCH_INTERVAL{2};

/// A kind of objects that there are several of.
struct SKind {
  PI::_OBJECT_KIND m_Kind;
  const char* m_Name;  ///< of its commands
  const char* m_Help;
  const char* m_ListHelp;
  const char* m_ShowHelp;
  const char* m_Argument;
  const char* m_ArgumentHelp;
};
constexpr SKind DISKS{PI::OBJ_PHYSICAL_DRIVE,       "disk", "managed disks", "all managed disks, a line each",
                      "the properties of one disk", "DISK", "the disk"};
constexpr SKind ARRAYS{PI::OBJ_LOGICAL_DRIVE,         "array", "arrays",   "all arrays, a line each",
                       "the properties of one array", "ARRAY", "the array"};

struct SStatus {
  bool m_Watch{false};
  bool m_OnlyProblems{false};
};

/// A word of a view that is said or not.
std::pair<std::string, std::string> Flag(const char* word, bool isSaid) { return {word, isSaid ? "1" : ""}; }

int ShowStatus(CContext& context, const SStatus& wanted) {
  if (wanted.m_Watch && context.Options().m_Json) context.BeginStream();
  CSource& source = context.Source();
  if (wanted.m_Watch) source.Watch();
  const bool isScreen = wanted.m_Watch && context.Terminal().IsTerminal();
  while (true) {
    const SScreenSize size = context.Terminal().Size();
    SView view = source.View({"status",
                              {Flag("only-problems", wanted.m_OnlyProblems),
                               Flag("screen", isScreen),
                               {"rows", std::to_string(isScreen ? 0 : size.m_Rows)}}},
                             context.Form());
    if (isScreen) view.m_Text = Screen(view.m_Text, size);
    context.Show(view);
    if (!wanted.m_Watch) return EXIT_DONE;
    source.Events();
    Pause(WATCH_INTERVAL);
  }
}

int ListObjects(CContext& context, const SListView& wanted) {
  const SListStyle& list = wanted.m_List;
  return context.Show(SViewRequest{wanted.m_Kind == PI::OBJ_PHYSICAL_DRIVE ? "disks" : "arrays",
                                   {{"columns", list.m_Columns},
                                    {"array", wanted.m_Filter.m_Array},
                                    Flag("bytes", list.m_Bytes),
                                    Flag("no-headings", list.m_NoHeadings),
                                    Flag("ready", wanted.m_Filter.m_Ready),
                                    Flag("failed", wanted.m_Filter.m_Failed)}});
}

/// All properties of one object; `kind` narrows what an address may name.
int ShowObject(CContext& context, const std::string& address, PI::_OBJECT_KIND kind) {
  return context.Show(SViewRequest{"object", {{"address", address}, {"kind", std::to_string(kind)}}});
}

struct SProperty {
  std::string m_Object;
  unsigned int m_ID{PI::PROP_ALL};
};

int GetProperty(CContext& context, const SProperty& wanted) {
  return context.Show(
      SViewRequest{"properties", {{"address", wanted.m_Object}, {"id", std::to_string(wanted.m_ID)}}});
}

int SetPollInterval(CContext& context, const int& seconds) {
  context.Source().SetPollInterval(seconds);
  context.Show("poll-interval", {{"seconds", seconds}}, "Poll interval: " + std::to_string(seconds) + " s\n");
  return EXIT_DONE;
}

/// "list" and "show".
void AddKind(CGroup& all, const SKind& kind) {
  CGroup group = all.Add(kind.m_Name, kind.m_Help);
  const auto [listing, list] = group.Leaf<SListView>("list", kind.m_ListHelp, ListObjects);
  list.m_Kind = kind.m_Kind;
  listing->add_option("--columns", list.m_List.m_Columns, "these columns alone, a word a cell")
      ->type_name("A,B,C");
  listing->add_flag("--bytes", list.m_List.m_Bytes, "sizes as numbers of bytes");
  listing->add_flag("--no-headings", list.m_List.m_NoHeadings, "without the first line");
  if (kind.m_Kind == PI::OBJ_PHYSICAL_DRIVE) {
    listing->add_flag("--ready", list.m_Filter.m_Ready, "free disks alone");
    listing->add_flag("--failed", list.m_Filter.m_Failed, "failed and missing disks alone");
    listing->add_option("--array", list.m_Filter.m_Array, "the disks of one array alone")->type_name("ARRAY");
  }
  const auto [show, address] =
      group.Leaf<std::string>("show", kind.m_ShowHelp, [&kind](CContext& context, const std::string& wanted) {
        return ShowObject(context, wanted, kind.m_Kind);
      });
  show->add_option(kind.m_Argument, address, kind.m_ArgumentHelp)->required();
}

void AddProperties(CGroup& all) {
  CGroup group = all.Add("prop", "properties by number");
  const auto [get, wanted] = group.Leaf<SProperty>("get", "all properties of an object, or one", GetProperty);
  get->add_option("OBJECT", wanted.m_Object, "the object")->required();
  get->add_option("ID", wanted.m_ID, "the property's number")->check(NumberTo(99999));
  const auto [set, seconds] =
      group.Add("set", "changes a property")
          .Add("plugin", "a property of the plug-in")
          .Leaf<int>("poll-interval", "2 to 255 s between two looks at the system", SetPollInterval);
  set->add_option("N", seconds, "seconds")->required()->check(NumberTo(99999));
}

}  // namespace

void AddShowing(CGroup& all) {
  all.Leaf("topology", "every object with its properties",
           [](CContext& context) { return context.Show(SViewRequest{"topology"}); });
  const auto [status, wanted] =
      all.Leaf<SStatus>("status", "how the machine is; arrays and disks at a glance", ShowStatus);
  status->add_flag("--watch", wanted.m_Watch, "again every two seconds until interrupted");
  status->add_flag("--only-problems", wanted.m_OnlyProblems, "only what needs somebody's hand");
  all.Add("plugin", "the plug-in itself")
      .Leaf("show", "the properties of the plug-in",
            [](CContext& context) { return ShowObject(context, "plugin", PI::OBJ_PLUGIN); });
  all.Add("adapter", "the virtual adapter")
      .Leaf("show", "the properties of the adapter",
            [](CContext& context) { return ShowObject(context, "adapter", PI::OBJ_ADAPTER); });
  AddKind(all, DISKS);
  const auto [operations, object] =
      all.Leaf<std::string>("operations", "what an object offers, what is allowed now",
                            [](CContext& context, const std::string& address) {
                              return context.Show(SViewRequest{"operations", {{"address", address}}});
                            });
  operations->add_option("OBJECT", object, "the object")->required();
  AddProperties(all);
  all.Leaf("levels", "RAID levels that can be made",
           [](CContext& context) { return context.Show(SViewRequest{"levels"}); });
  AddKind(all, ARRAYS);
}

}  // namespace Host
