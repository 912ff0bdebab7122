/// @file
/// The system's journal, in fields that programs can ask for.

#include <sys/uio.h>
// Where it was built is nobody's matter.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <cstring>

#include "notify/Ways.h"

namespace Notify {

namespace {

/// One for each phase: `journalctl MESSAGE_ID=...` lists them.
constexpr std::pair<std::string_view, const char*> IDS[] = {{"began", "5dd8f0c5ab3d4bb08d4f4ea4f9a5ba01"},
                                                            {"worse", "5dd8f0c5ab3d4bb08d4f4ea4f9a5ba02"},
                                                            {"reminder", "5dd8f0c5ab3d4bb08d4f4ea4f9a5ba03"},
                                                            {"cleared", "5dd8f0c5ab3d4bb08d4f4ea4f9a5ba04"},
                                                            {"test", "5dd8f0c5ab3d4bb08d4f4ea4f9a5ba05"}};

const char* PriorityOf(const std::string& level) {
  return level == "critical" ? "2" : level == "warning" ? "4" : "5";
}

}  // namespace

SResult ByJournal(const SOrder& order) {
  const Json& message = order.m_Message;
  std::vector<std::string> fields{"MESSAGE=" + TextIn(message, "subject"),
                                  std::string("PRIORITY=") + PriorityOf(TextIn(message, "level")),
                                  "SYSLOG_IDENTIFIER=rvxd",
                                  // Beside rvxd's own lines: 'journalctl -u rvxd' shows it.
                                  "OBJECT_PID=" + std::to_string(order.m_Process)};
  for (const auto& [phase, id] : IDS)
    if (phase == TextIn(message, "phase")) fields.push_back(std::string("MESSAGE_ID=") + id);
  for (const auto& [field, key] : {std::pair{"RVX_CONDITION=", "condition"},
                                   {"RVX_OBJECT=", "object"},
                                   {"RVX_LEVEL=", "level"},
                                   {"RVX_PHASE=", "phase"},
                                   {"RVX_SERIAL=", "serial"},
                                   {"RVX_NEXT=", "next"},
                                   {"RVX_TEXT=", "text"}})
    if (const std::string value = TextIn(message, key); !value.empty()) fields.push_back(field + value);
  if (const Json code = message.value("code", Json()); code.is_number())
    fields.push_back("RVX_CODE=" + code.dump());
  std::vector<iovec> parts;
  for (std::string& field : fields) parts.push_back({field.data(), field.size()});
  const int error = ::sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
  return error == 0 ? SResult{true, "written to the journal"}
                    : SResult{false, std::string("the journal: ") + std::strerror(-error)};
}

}  // namespace Notify
