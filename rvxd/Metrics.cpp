#include "rvxd/Metrics.h"

#include <prometheus/text_serializer.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <set>
#include <span>

#include "host/Printable.h"
#include "host/Values.h"

namespace Rvxd {

namespace {

using Label = prometheus::ClientMetric::Label;
using Labels = std::vector<Label>;
using Choices = std::initializer_list<const char*>;

constexpr double MILLISECONDS = 1000;

const std::map<std::string, const char*> HELP = {
    {"process_open_fds", "Files, sockets and the like that rvxd has open."},
    {"process_resident_memory_bytes", "Memory of rvxd that lies in RAM."},
    {"process_start_time_seconds", "When rvxd was started, in seconds since 1970."},
    {"rvx_array_activity", "1 for what md does with the array at the moment, 0 for the others."},
    {"rvx_array_info", "1; the labels tell the array's device, level and version of the superblock."},
    {"rvx_array_members", "Members of the array that are in this state; spares are members here."},
    {"rvx_array_members_missing", "Members that the array was made of and that do not work."},
    {"rvx_array_members_required", "Members that the array was made of."},
    {"rvx_array_redundancy_left", "Members that may fail, whichever they are, before data is lost."},
    {"rvx_array_size_bytes", "Size of the array."},
    {"rvx_array_spares", "Spares that the array has."},
    {"rvx_array_spares_expected", "Spares that the array is to have; only where somebody said so."},
    {"rvx_array_state", "1 for the state that the array is in, 0 for the others."},
    {"rvx_array_sync_progress_ratio",
     "How far the array's rebuild, resync, check or reshape is; only while one runs."},
    {"rvx_array_sync_remaining_seconds", "Seconds that md expects the same to take still."},
    {"rvx_array_sync_speed_bytes_per_second", "Bytes of each member that the same goes through in a second."},
    {"rvx_build_info", "1; the label tells rvxd's version."},
    {"rvx_condition", "1 for each thing that is wrong now; one that is over has no series."},
    {"rvx_disk_info", "1; the labels tell the disk's kernel name, serial number, model and the like."},
    {"rvx_disk_power_on_seconds_total", "How long the disk has been powered in its life, by SMART."},
    {"rvx_disk_remaining_life_seconds",
     "Seconds until the disk is worn out if it is used as before, in whole days."},
    {"rvx_disk_reserve_ratio", "Part of the disk's spare blocks that is left, by SMART."},
    {"rvx_disk_size_bytes", "Size of the disk."},
    {"rvx_disk_state",
     "1 for the state that the disk is in, 0 for the others; array is the one it belongs to."},
    {"rvx_disk_wear_ratio", "Part of the disk's life that is used, by SMART."},
    {"rvx_disk_written_bytes_total", "Bytes that were written to the disk in its life, by SMART."},
    {"rvx_event_sequence", "Number of the last event that is kept."},
    {"rvx_event_streams", "Clients that follow the events now."},
    {"rvx_events_total", "Events that were told, without those that repeat an earlier one."},
    {"rvx_http_requests_total", "Requests that were answered, by the pattern of their route."},
    {"rvx_notifications_total", "Messages to a channel, by what became of them."},
    {"rvx_operation_queue_length", "Changes that were asked for and wait."},
    {"rvx_operations_total", "Changes that have ended, by how they ended."},
    {"rvx_pass_duration_seconds",
     "Seconds that rvxd took to take over what the plug-in found in its last pass; the pass itself is not "
     "timed."},
    {"rvx_pass_last_success_timestamp_seconds",
     "When rvxd saw that the plug-in had ended its last pass over the machine, in seconds since 1970."},
    {"rvx_passes_total",
     "Passes of the plug-in that rvxd saw: late is one that came more than five intervals after the one "
     "before."},
    {"rvx_poll_interval_seconds", "Seconds between two passes of the plug-in."},
};

constexpr Choices ARRAY_STATES = {"in-order", "degraded", "failed", "rebuilding"};
constexpr Choices ACTIVITIES = {"none", "resync", "rebuild", "check", "reshape"};
constexpr Choices MEMBER_STATES = {"active",  "spare",   "failed",  "rebuilding",
                                   "missing", "offline", "journal", "replacement"};
constexpr Choices DISK_STATES = {"failed", "in-use", "missing", "ready", "rebuilding", "spare"};

/// A figure of an array or disk, and where its document has it; of a list, how many there are.
struct SFigure {
  const char* m_Name;
  Json::json_pointer m_Where;
};
const SFigure ARRAY_FIGURES[] = {
    {"rvx_array_size_bytes", Json::json_pointer("/size")},
    {"rvx_array_members_required", Json::json_pointer("/redundancy/required")},
    {"rvx_array_members_missing", Json::json_pointer("/redundancy/missing")},
    {"rvx_array_redundancy_left", Json::json_pointer("/redundancy/canLose")},
    {"rvx_array_spares", Json::json_pointer("/spares")},
    {"rvx_array_spares_expected", Json::json_pointer("/sparesWanted")},
    {"rvx_array_sync_progress_ratio", Json::json_pointer("/activity/progress")},
    {"rvx_array_sync_speed_bytes_per_second", Json::json_pointer("/activity/speed")},
    {"rvx_array_sync_remaining_seconds", Json::json_pointer("/activity/remaining")}};
const SFigure DISK_FIGURES[] = {
    {"rvx_disk_size_bytes", Json::json_pointer("/size")},
    {"rvx_disk_wear_ratio", Json::json_pointer("/smart/wear")},
    {"rvx_disk_reserve_ratio", Json::json_pointer("/smart/reserve")},
    {"rvx_disk_written_bytes_total", Json::json_pointer("/smart/written")},
    {"rvx_disk_power_on_seconds_total", Json::json_pointer("/smart/powerOn")},
    {"rvx_disk_remaining_life_seconds", Json::json_pointer("/smart/remainingLife")}};

/// A label's value: a scrape with a byte that is no UTF-8 is refused as a whole.
std::string Value(const Json& value) {
  return value.is_string() ? Host::Printable(value.get_ref<const std::string&>()) : std::string();
}

Labels With(Labels labels, const Label& more) {
  labels.push_back(more);
  return labels;
}

/// The fields of a document as labels of their names.
Labels LabelsOf(Labels labels, const Json& document, Choices fields) {
  for (const char* const field : fields) labels.push_back({field, Value(document.at(field))});
  return labels;
}

class CSeries {
 public:
  void Add(const std::string& name, const Labels& labels, double value) {
    prometheus::ClientMetric metric;
    metric.label = labels;
    (IsCounter(name) ? metric.counter.value : metric.gauge.value) = value;
    m_All[name].push_back(std::move(metric));
  }
  void AddFigures(const Json& document, const Labels& labels, std::span<const SFigure> figures) {
    for (const auto& [name, where] : figures)
      if (const Json& value = document.at(where); value.is_number())
        Add(name, labels, value.get<double>());
      else if (value.is_array())
        Add(name, labels, static_cast<double>(value.size()));
  }
  /// 1 for the word that it is, 0 for the others.
  void AddChoice(const std::string& name, const char* label, Choices words, const Labels& labels,
                 const Json& choice) {
    if (choice.is_null()) return;
    for (const char* const word : words) Add(name, With(labels, {label, word}), choice == word ? 1 : 0);
  }
  std::string Text() const {
    std::vector<prometheus::MetricFamily> families;
    for (const auto& [name, series] : m_All)
      families.push_back({name, HELP.at(name),
                          IsCounter(name) ? prometheus::MetricType::Counter : prometheus::MetricType::Gauge,
                          series});
    return prometheus::TextSerializer().Serialize(families);
  }

 private:
  static bool IsCounter(const std::string& name) { return name.ends_with("_total"); }

  std::map<std::string, std::vector<prometheus::ClientMetric>> m_All;
};

void AddArray(CSeries& series, const Json& array) {
  const Labels labels = {{"array", Value(array["name"])}, {"uuid", Value(array["uuid"])}};
  series.Add("rvx_array_info", LabelsOf(labels, array, {"device", "level", "metadata"}), 1);
  series.AddFigures(array, labels, ARRAY_FIGURES);
  series.AddChoice("rvx_array_state", "state", ARRAY_STATES, labels, array["state"]);
  series.AddChoice("rvx_array_activity", "activity", ACTIVITIES, labels, array["activity"]["kind"]);
  for (const char* const state : MEMBER_STATES)
    series.Add("rvx_array_members", With(labels, {"state", state}),
               static_cast<double>(std::ranges::count_if(
                   array["members"], [&](const Json& member) { return member["state"] == state; })));
}

void AddDisk(CSeries& series, const Json& disk) {
  const Labels labels = {{"disk_id", Value(disk["id"])}};
  series.Add(
      "rvx_disk_info",
      LabelsOf(labels, disk, {"device", "serial", "wwn", "model", "vendor", "medium", "attachment", "path"}),
      1);
  series.AddFigures(disk, labels, DISK_FIGURES);
  series.AddChoice("rvx_disk_state", "state", DISK_STATES, With(labels, {"array", Value(disk["array"])}),
                   disk["state"]);
}

void AddConditions(CSeries& series, const CSnapshot& snapshot, const Json& conditions) {
  std::set<std::pair<std::string, std::string>> now;
  for (const Json& condition : conditions) {
    const Json* const disk = snapshot.FindDisk(condition["object"]);
    now.emplace(Value(condition["kind"]), Value(disk == nullptr ? condition["object"] : (*disk)["id"]));
  }
  for (const auto& [condition, object] : now)
    series.Add("rvx_condition", {{"condition", condition}, {"object", object}}, 1);
}

void AddProcess(CSeries& series, double started) {
  series.Add("process_start_time_seconds", {}, started);
  long size = 0, resident = 0;
  if (std::ifstream file("/proc/self/statm"); file >> size >> resident)
    series.Add("process_resident_memory_bytes", {},
               static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)));
  std::error_code error;
  const std::filesystem::directory_iterator files("/proc/self/fd", error);
  // Without the folder itself, which is open for this.
  if (!error) series.Add("process_open_fds", {}, static_cast<double>(std::distance(begin(files), {}) - 1));
}

}  // namespace

CMetrics::CMetrics(const CKeeper& keeper, const CFeed& feed, const COperations& operations,
                   const CCounters& counters)
    : m_Keeper(keeper),
      m_Feed(feed),
      m_Operations(operations),
      m_Counters(counters),
      m_Started(static_cast<double>(Host::NowMilliseconds()) / MILLISECONDS) {}

std::string CMetrics::Text(EProcess process) const {
  CSeries series;
  series.Add("rvx_build_info", {{"version", RVX_VERSION}}, 1);
  series.Add("rvx_event_sequence", {}, static_cast<double>(m_Feed.Last()));
  series.Add("rvx_event_streams", {}, static_cast<double>(m_Feed.Streams()));
  series.Add("rvx_operation_queue_length", {}, static_cast<double>(m_Operations.Waiting()));
  for (const auto& [name, values] : m_Counters.All())
    for (const auto& [words, count] : values) {
      Labels labels;
      for (const auto& [label, word] : words) labels.push_back({label, Value(word)});
      series.Add(name, labels, static_cast<double>(count));
    }
  if (process == EProcess::TOLD) AddProcess(series, m_Started);
  if (const auto snapshot = m_Keeper.Now()) {
    const SPass pass = m_Keeper.Pass();
    series.Add("rvx_poll_interval_seconds", {}, static_cast<double>(pass.m_Interval));
    series.Add("rvx_pass_last_success_timestamp_seconds", {},
               static_cast<double>(pass.m_Time) / MILLISECONDS);
    series.Add("rvx_pass_duration_seconds", {}, pass.m_Look);
    for (const Json& array : snapshot->Arrays()) AddArray(series, array);
    for (const Json& disk : snapshot->Disks()) AddDisk(series, disk);
    AddConditions(series, *snapshot, m_Keeper.Conditions());
  }
  return series.Text();
}

}  // namespace Rvxd
