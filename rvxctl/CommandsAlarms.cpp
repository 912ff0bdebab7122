/// @file
/// Commands of what rvxd tells people: what is wrong, by which channels, and how many spares there are to be.

#include "host/Printable.h"
#include "host/Table.h"
#include "rvxctl/CommandLine.h"

namespace Host {

namespace {

std::string Word(const Json& value) { return value.is_string() ? value.get<std::string>() : "-"; }

/// "2026-11-22 17:32"
std::string Minute(const Json& time) {
  const std::string text = Word(time);
  return text.size() < 16 ? text : text.substr(0, 10) + " " + text.substr(11, 5);
}

Color ColorOf(const CContext& context, const std::string& word) {
  if (!context.Form().m_Style.m_Color) return PLAIN;
  return word == "critical" || word == "failing" || word == "refused" ? RED
         : word == "warning"                                          ? YELLOW
                                                                      : GREEN;
}

int ListConditions(CContext& context) {
  const Json all = RequireRemote(context).Document("GET", "/v1/conditions")["conditions"];
  Rows rows;
  for (const Json& one : all)
    rows.push_back({Word(one["id"]), SCell(Word(one["level"]), ColorOf(context, one["level"])),
                    Minute(one["since"]), one["acknowledged"].is_null() ? "no" : "yes", Word(one["text"])});
  context.Show("conditions", {{"conditions", all}},
               all.empty() ? "Nothing is wrong.\n"
                           : Table({"CONDITION", "LEVEL", "SINCE (UTC)", "SEEN", {"TEXT", true}}, rows,
                                   context.Form().m_Style.m_Width));
  return EXIT_DONE;
}

int AcknowledgeCondition(CContext& context, const std::string& id) {
  const Json condition = RequireRemote(context).Document(
      "POST", "/v1/conditions/" + Escaped(id) + "/acknowledge", Json::object());
  const std::string done = "There are no more reminders of " + Word(condition["id"]) + ".";
  context.Show("change", {{"condition", condition["id"]}, {"done", done}}, Printable(done) + "\n");
  return EXIT_DONE;
}

int ListChannels(CContext& context) {
  const Json all = RequireRemote(context).Document("GET", "/v1/notify")["channels"];
  Rows rows;
  for (const Json& one : all)
    rows.push_back({Word(one["channel"]), Word(one["type"]), Word(one["target"]), Word(one["severity"]),
                    SCell(Word(one["state"]), ColorOf(context, one["state"])), Minute(one["delivered"]),
                    one["text"].is_null() ? "" : Word(one["text"])});
  context.Show("channels", {{"channels", all}},
               Table({"CHANNEL", "TYPE", "TO", "FROM LEVEL", "STATE", "LAST (UTC)", {"WHY", true}}, rows,
                     context.Form().m_Style.m_Width));
  return EXIT_DONE;
}

int TestChannels(CContext& context, const std::string& channel) {
  const Json results =
      RequireRemote(context).Document("POST", "/v1/notify/test", {{"channel", channel}})["results"];
  Rows rows;
  int status = EXIT_DONE;
  for (const Json& one : results) {
    const bool isDelivered = one["delivered"];
    const Color color = ColorOf(context, isDelivered ? "ok" : "failing");
    rows.push_back(
        {Word(one["channel"]), SCell(isDelivered ? "delivered" : "FAILED", color), Word(one["text"])});
    if (!isDelivered) status = EXIT_PLUGIN_ERROR;
  }
  context.Show("notify-test", {{"results", results}}, Table({}, rows, context.Form().m_Style.m_Width));
  return status;
}

struct SExpected {
  std::string m_Array;
  std::string m_Count;
};

int ExpectSpares(CContext& context, const SExpected& expected) {
  const Json count = expected.m_Count == "any" ? Json(nullptr) : Json(std::stoul(expected.m_Count));
  RequireRemote(context).Document("PUT", "/v1/settings", {{"spares", {{expected.m_Array, count}}}});
  const std::string done =
      expected.m_Array + (count.is_null()
                              ? " may have any number of spares."
                              : ": fewer than " + expected.m_Count +
                                    (count == 1 ? " spare is" : " spares are") + " a warning from now on.");
  context.Show("change", {{"array", expected.m_Array}, {"spares", count}, {"done", done}},
               Printable(done) + "\n");
  return EXIT_DONE;
}

}  // namespace

void AddAlarms(CGroup& all) {
  CGroup condition = all.Add("condition", "what is wrong, as long as it is so");
  condition.Leaf("list", "what is wrong, since when, and whether somebody has seen it", ListConditions);
  const auto [acknowledge, id] = condition.Leaf<std::string>(
      "acknowledge", "says that it has been seen: no more reminders", AcknowledgeCondition);
  acknowledge->add_option("CONDITION", id, "array-degraded:md_d0, as list tells it")->required();
  CGroup notify = all.Add("notify", "where alarms go");
  notify.Leaf("list", "the channels, and whether they work", ListChannels);
  const auto [test, channel] =
      notify.Leaf<std::string>("test", "sends a test, and shows what the channel says", TestChannels);
  test->add_option("CHANNEL", channel, "one of them; else all");
  const auto [expect, expected] = all.At("spare").Leaf<SExpected>(
      "expect", "how many spares an array is to have: fewer are a warning", ExpectSpares);
  expect->add_option("ARRAY", expected.m_Array, "the array")->required();
  expect->add_option("COUNT", expected.m_Count, "how many; any: no matter")
      ->required()
      ->check([](const std::string& text) { return text == "any" ? "" : NumberTo(32)(text); });
}

}  // namespace Host
