#include "rvxd/Message.h"

#include <algorithm>
#include <functional>

#include "PI/Numbers.h"
#include "host/Printable.h"
#include "host/Table.h"
#include "host/Values.h"

namespace Rvxd {

namespace {

constexpr std::size_t WIDTH = 72;
constexpr std::size_t LIST_LIMIT = 20;

/// "array degraded" of "array-degraded".
std::string Words(std::string kind) {
  std::ranges::replace(kind, '-', ' ');
  return kind;
}

std::string Upper(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

std::string TextIn(const Json& json, const char* key) {
  const Json text = json.value(key, Json());
  return text.is_string() ? text.get<std::string>() : std::string();
}

/// The worst first, and of those the array's own before its disks'.
Json Sorted(Json conditions, const std::string& subject) {
  const auto rank = [&](const Json& one) {
    return std::pair(one["level"] != "critical", one["object"] != subject);
  };
  std::stable_sort(conditions.begin(), conditions.end(),
                   [&](const Json& one, const Json& other) { return rank(one) < rank(other); });
  return conditions;
}

/// Each disk once, as the conditions name them.
Json DisksOf(const Json& conditions) {
  Json disks = Json::array();
  for (const Json& condition : conditions)
    for (const Json& disk : condition["disks"])
      if (std::ranges::none_of(disks, [&](const Json& known) { return known["name"] == disk["name"]; }))
        disks.push_back(disk);
  return disks;
}

/// Another disk may have the name of one that is gone.
bool IsGone(const Json& disk) { return disk["state"] == "gone"; }

std::string DiskText(const Json& disk) {
  const std::string serial = TextIn(disk, "serial"), name = TextIn(disk, "name");
  return (IsGone(disk) ? "what was " + name : name) +
         (serial.empty() ? ", whose serial number is not known" : ", serial number " + serial);
}

/// What other programs call a condition.
constexpr struct SCalled {
  std::string_view m_Kind;
  const char* m_Event;  ///< as `mdadm --monitor` has it, or in its manner
  unsigned int m_Code;  ///< of the plug-in's event that tells of it; 0: none does
  bool m_OfDevice;      ///< else of rvxd itself, or of one of its channels
} CALLED[] = {{"array-degraded", "DegradedArray", PI::EVT_LOGICALDRIVE_DEGRADED, true},
              {"array-failed", "DegradedArray", PI::EVT_LOGICALDRIVE_FAILED, true},
              {"array-inactive", "DeviceDisappeared", 0, true},
              {"array-rebuilding", "RebuildStarted", PI::EVT_REBUILD_STARTED, true},
              {"rebuild-stuck", "RebuildStuck", 0, true},
              {"disk-failed", "Fail", PI::EVT_FAILED_DRIVE_IN_USE, true},
              {"disk-missing", "Fail", PI::EVT_PHYSICALDRIVE_REMOVED, true},
              {"disk-wearing-out", "DiskWearingOut", PI::EVT_SMART_WEAR_HIGH, true},
              {"spare-missing", "SparesMissing", 0, true},
              {"watch-blind", "WatchBlind", 0, false},
              {"notify-failing", "NotifyFailing", 0, false},
              {"events-lost", "EventsLost", 0, false}};

SCalled CalledOf(const std::string& kind) {
  const auto* const found = std::ranges::find(CALLED, kind, &SCalled::m_Kind);
  return found == std::end(CALLED) ? SCalled{kind, "Changed", 0, true} : *found;
}

/// As `mdadm --monitor` calls it.
const char* EventOf(const SDue& due, const std::string& kind, const Json& disks) {
  if (due.m_Phase == EPhase::TEST) return "TestMessage";
  const bool isArray = kind.starts_with("array") || kind == "disk-failed";
  if (due.m_IsGone) return "DeviceDisappeared";
  if (due.m_Phase == EPhase::CLEARED) return isArray ? "RebuildFinished" : "Cleared";
  const auto hasFailed = [](const Json& disk) { return disk["state"] == "failed"; };
  // A member that failed, and no one that is only not there.
  if ((kind == "array-degraded" || kind == "array-failed") && std::ranges::any_of(disks, hasFailed))
    return "Fail";
  return CalledOf(kind).m_Event;
}

/// What comes behind a member's loss.
std::string RiskText(const Json& conditions) {
  for (const Json& condition : conditions) {
    if (condition["kind"] != "array-degraded" && condition["kind"] != "array-rebuilding") continue;
    if (!condition["canLose"].is_number_unsigned()) continue;
    const auto left = condition["canLose"].get<unsigned int>();
    if (left == 0) return "If one more member fails, data is lost.";
    return std::to_string(left) + (left == 1 ? " more member" : " more members") +
           " may fail before data is lost.";
  }
  return {};
}

std::string Paragraph(const std::string& text, const std::string& indent = {}) {
  std::string lines = Host::Wrapped(text, WIDTH - indent.size()), indented = indent;
  for (const char c : lines) indented += c == '\n' ? "\n" + indent : std::string(1, c);
  return indented + "\n";
}

/// A paragraph for each, and how many there are beside those that a person reads.
std::string Paragraphs(const Json& list, const std::function<std::string(const Json&)>& textOf) {
  std::string text;
  std::size_t count = 0;
  for (const Json& one : list)
    if (const std::string paragraph = textOf(one); !paragraph.empty() && ++count <= LIST_LIMIT)
      text += Paragraph(paragraph, "  ");
  if (count > LIST_LIMIT)
    text += "  and " + std::to_string(count - LIST_LIMIT) + " more: 'rvxctl condition list' tells all.\n";
  return text;
}

std::string BodyOf(const SDue& due, const Json& conditions, const Json& disks, const std::string& host,
                   std::optional<Milliseconds> reminder, Milliseconds now) {
  if (due.m_Phase == EPhase::TEST)
    return Paragraph("This is a test of an alarm channel of " + host +
                     ": what is wrong with its disks and arrays will be told in this way.");
  std::string text;
  if (due.m_Phase == EPhase::CLEARED) {
    const std::string object = Host::Printable(due.m_Subject) + " on " + host;
    text = Paragraph(
        (due.m_IsGone ? object + " is not there any more" : "What was wrong with " + object + " is over") +
        ", after " + DurationText(now - std::min(now, due.m_Since)) + ". It was:");
  } else {
    const std::string since = Host::TimeText(due.m_Since);
    text =
        Paragraph("On " + host + (due.m_Phase == EPhase::REMINDER ? " it is still so, since " : ", since ") +
                  since.substr(0, 10) + " " + since.substr(11, 5) + " UTC:");
  }
  text += "\n" + Paragraphs(conditions, [](const Json& condition) {
            return TextIn(condition, "object") + ": " + Words(TextIn(condition, "kind")) + ". " +
                   TextIn(condition, "text") + ".";
          });
  if (due.m_Phase == EPhase::CLEARED) return text;
  if (const std::string risk = RiskText(conditions); !risk.empty()) text += "\n" + Paragraph(risk);
  if (!disks.empty())
    text +=
        (disks.size() == 1 ? "\nThe disk:\n" : "\nThe disks:\n") + Paragraphs(disks, [](const Json& disk) {
          std::string line = DiskText(disk) + " (" + TextIn(disk, "state") + ")";
          for (const auto& [key, word] : {std::pair{"model", ", model "}, {"path", ", at "}, {"id", ", "}})
            if (const std::string value = TextIn(disk, key); !value.empty()) line += word + value;
          return line;
        });
  const std::string steps = Paragraphs(conditions, [&](const Json& condition) {
    const std::string next = TextIn(condition, "next");
    return next.empty() ? ""
                        : (conditions.size() == 1 ? "" : TextIn(condition, "object") + ": ") + next + ".";
  });
  if (!steps.empty()) text += "\nWhat to do:\n" + steps;
  text += "\n";
  if (reminder)
    text += Paragraph("You are reminded every " + DurationText(*reminder) +
                      " as long as it is so; 'rvxctl condition acknowledge " +
                      TextIn(conditions.front(), "id") + "' ends that.");
  return text;
}

/// All text as a terminal and a mail's header may show it: a disk tells any serial number.
Json Printed(Json json) {
  if (json.is_string()) return Host::Printable(json.get<std::string>());
  if (json.is_structured())
    for (Json& part : json) part = Printed(part);
  return json;
}

}  // namespace

std::string DurationText(Milliseconds duration) {
  constexpr std::pair<Milliseconds, const char*> UNITS[] = {
      {86'400'000, "day"}, {3'600'000, "hour"}, {60'000, "minute"}};
  for (const auto& [unit, name] : UNITS)
    if (const Milliseconds count = duration / unit; count >= 2)
      return std::to_string(count) + " " + name + "s";
  return std::to_string(duration / 1000) + " seconds";
}

Json MessageOf(const SDue& due, const std::string& host, std::optional<Milliseconds> reminder,
               Milliseconds now) {
  const Json conditions = Printed(Sorted(due.m_Conditions, due.m_Subject));
  const Json disks = DisksOf(conditions);
  const std::string object = Host::Printable(due.m_Subject);
  const Json first = conditions.empty() ? Json::object() : conditions.front();
  const std::string kind = TextIn(first, "kind");
  const unsigned int code = CalledOf(kind).m_Code;
  // Others are about rvxd itself, or one of its channels.
  const bool device = CalledOf(kind).m_OfDevice;
  const std::string level = due.m_IsGone                                      ? "warning"
                            : due.m_Phase == EPhase::CLEARED || first.empty() ? "ok"
                                                                              : TextIn(first, "level");
  std::vector<std::string> kinds;
  for (const Json& condition : conditions)
    if (const std::string words = Words(TextIn(condition, "kind"));
        std::ranges::find(kinds, words) == kinds.end())
      kinds.push_back(words);
  std::string subject = host + " " + object + " " + Upper(level) + ": " + Host::Joined(kinds);
  if (due.m_Phase == EPhase::CLEARED) subject += due.m_IsGone ? ": it is not there any more" : ": over";
  if (due.m_Phase == EPhase::TEST) subject += "a test, nothing is wrong";
  if (due.m_Phase == EPhase::REMINDER) subject += ", for " + DurationText(now - std::min(now, due.m_Since));
  if (due.m_Phase != EPhase::CLEARED && !disks.empty()) subject += "; " + DiskText(disks.front());
  return {{"phase", WordOf(due.m_Phase)},
          {"level", level},
          {"host", host},
          {"object", object},
          {"condition", kind.empty() ? Json(nullptr) : Json(kind)},
          {"code", code == 0 ? Json(nullptr) : Json(code)},
          {"event", EventOf(due, kind, disks)},
          {"device", device ? Json("/dev/" + object) : Json(nullptr)},
          {"component", disks.empty() || IsGone(disks.front()) ? Json(nullptr) : disks.front()["name"]},
          {"serial", disks.empty() ? Json(nullptr) : disks.front()["serial"]},
          {"since", Host::TimeText(due.m_Since)},
          {"time", Host::TimeText(now)},
          {"subject", subject},
          {"text", BodyOf(due, conditions, disks, host, reminder, now)},
          {"next", first.value("next", Json(nullptr))},
          {"disks", disks},
          {"conditions", conditions}};
}

}  // namespace Rvxd
