#include "rvxctl/Progress.h"

#include <algorithm>

#include "host/Estimate.h"
#include "host/Inventory.h"
#include "host/Printable.h"
#include "host/Values.h"

namespace Host {

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{500};
constexpr int LINE_STEP = 5;  ///< percent
/// How many looks the event of a run's end may stay out: a fetch that meets the worker's pass brings nothing.
constexpr int LOOKS_FOR_END = 20;
constexpr std::size_t BAR_WIDTH = 40;
constexpr std::size_t LEAST_BAR = 8;
constexpr std::chrono::milliseconds PASS_INTERVAL{250};
constexpr std::chrono::seconds PASS_LIMIT{30};

using Clock = std::chrono::steady_clock;

/// How far the run is; none when there is no run.
struct SRun {
  std::string m_Name;  ///< "Resyncing"
  int m_Percent{0};
  double m_Exact{0};
  std::string m_Remaining;       ///< the plug-in's
  const char* m_Basis{nullptr};  ///< of it; null: none
};

std::optional<SRun> RunOf(const SArrayEntry& entry) {
  const PI::CObject& array = entry.m_Object;
  const auto activity = NumberOf(array, PI::PROP_ACTIVITY);
  const bool resync = activity == PI::ACTIVITY_RESYNCING;
  if (!resync && activity != PI::ACTIVITY_REBUILDING) return std::nullopt;
  const auto percent = NumberOf(array, resync ? PI::PROP_RESYNC_PROGRESS : PI::PROP_REBUILD_PROGRESS);
  // md's own figure is of now, the plug-in's of its last pass.
  const double told = static_cast<double>(percent.value_or(0));
  const double exact =
      entry.m_Md && entry.m_Md->m_Run ? std::max(told, entry.m_Md->m_Run->m_Percent.value_or(0)) : told;
  return SRun{TextOf(array, PI::PROP_ACTIVITY), static_cast<int>(exact), exact,
              TextOf(array, PI::PROP_TIME_REMAINING), EstimateBasis(array)};
}

/// Prints a run as it goes on.
class CProgressPrinter {
 public:
  CProgressPrinter(CContext& context, std::string array, EProgress progress)
      : m_Context(context),
        m_Array(std::move(array)),
        m_Quiet(progress == EProgress::HIDDEN),
        m_Bar(context.Terminal().IsTerminal() && !Json()) {}

  void Show(const SRun& run) {
    if (m_Quiet) return;
    m_Estimate.Add(run.m_Exact, Clock::now());
    const std::string left = TextOf(m_Estimate.Left());
    if (m_Bar) {
      m_Context.Terminal().Print("\r\033[K" + BarLine(Printable(m_Array + " " + run.m_Name), run.m_Percent,
                                                      left, m_Context.Terminal().Width()));
    } else if (run.m_Percent / LINE_STEP != m_LastStep) {
      m_LastStep = run.m_Percent / LINE_STEP;
      Line(run.m_Name + " " + std::to_string(run.m_Percent) + "%, " + left, run.m_Percent, run);
    }
  }
  void End(const std::string& text, int percent) {
    if (m_Quiet) return;
    if (m_Bar) m_Context.Terminal().Print("\r\033[K");
    Line(text, percent, {});
  }

 private:
  bool Json() const { return m_Context.Options().m_Json; }
  void Line(const std::string& text, int percent, const SRun& run) {
    if (!Json()) return m_Context.Terminal().Print(m_Array + ": " + text + "\n");
    m_Context.Show(
        "progress",
        {{"array", m_Array},
         {"percent", percent},
         {"remaining", run.m_Remaining.empty() ? Host::Json(nullptr) : Host::Json(run.m_Remaining)},
         {"estimateBasis", run.m_Basis == nullptr ? Host::Json(nullptr) : Host::Json(run.m_Basis)},
         {"estimate", EstimateJson()},
         {"text", text}},
        "");
  }

  Host::Json EstimateJson() const {
    const auto left = m_Estimate.Left();
    if (!left) return nullptr;
    return {{"seconds", left->m_Likely.count()},
            {"least", left->m_Least.count()},
            {"most", left->m_Most.count()}};
  }

  CContext& m_Context;
  std::string m_Array;
  bool m_Quiet;
  bool m_Bar;
  int m_LastStep{-1};
  CEstimate m_Estimate;
};

/// What the events say about the end of the run.
std::optional<bool> CompletedBy(const std::vector<PI::CEvent>& events, unsigned long arrayID) {
  for (const PI::CEvent& event : events) {
    if (event.m_ObjectID != arrayID) continue;
    if (event.m_Code == PI::EVT_REBUILD_COMPLETED || event.m_Code == PI::EVT_RESYNC_COMPLETED) return true;
    if (event.m_Code == PI::EVT_REBUILD_ABORTED || event.m_Code == PI::EVT_RESYNC_ABORTED) return false;
  }
  return std::nullopt;
}

/// Whether these are working members now.
bool HoldsAll(const SArrayEntry& entry, const std::vector<std::string>& names) {
  const std::vector<std::string> active = entry.Of(ERole::ACTIVE);
  return std::ranges::all_of(
      names, [&](const std::string& name) { return std::ranges::find(active, name) != active.end(); });
}

}  // namespace

bool AwaitPass(CSession& session, unsigned long before) {
  for (const auto end = Clock::now() + PASS_LIMIT; Clock::now() < end;) {
    session.Pause(PASS_INTERVAL);  // first of all: a question would be in the way of the first pass
    if (CTopology(session).Plugin().m_UpdateCounter != before) return true;
  }
  return false;
}

std::string BarLine(const std::string& what, int percent, const std::string& left, std::size_t columns) {
  const std::string share = std::to_string(percent) + "%";
  std::string timed = share;
  timed.append(", ").append(left);
  for (const std::string& figures : {timed, share}) {
    std::string line = what;
    line.append(" [");
    // The brackets, a blank, and the cursor behind it all.
    const std::size_t taken = WidthOf(line) + WidthOf(figures) + 3;
    if (columns != 0 && taken + LEAST_BAR > columns) continue;
    const std::size_t bar = columns == 0 ? BAR_WIDTH : std::min(BAR_WIDTH, columns - taken);
    const std::size_t filled = bar * static_cast<std::size_t>(std::clamp(percent, 0, 100)) / 100;
    line.append(filled, '#').append(bar - filled, '.').append("] ").append(figures);
    return line;
  }
  return Cut(share + " " + what, columns - 1);
}

int FollowRun(CContext& context, unsigned long arrayID, EProgress progress) {
  CSession& session = context.Session();
  std::optional<CProgressPrinter> printer;
  int percent = -1;  // as long as no run was seen
  int looks = 0;
  std::vector<std::string> rebuilt;  // what the run writes to
  while (true) {
    const auto completed = CompletedBy(session.FetchEvents(), arrayID);
    const CTopology topology(session);
    const PI::CObject* const array = topology.FindID(arrayID);
    if (array == nullptr) throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
    if (!printer) printer.emplace(context, NameOf(*array), progress);
    const CInventory inventory(topology, context.Machine());
    const SArrayEntry& entry = inventory.EntryOf(*array);
    if (completed) {
      // The plug-in reports a rebuild that ended; that its disk failed is seen at the disk.
      const bool isDone = *completed && HoldsAll(entry, rebuilt);
      printer->End(isDone ? "completed" : "aborted", isDone ? 100 : std::max(percent, 0));
      return isDone ? EXIT_DONE : EXIT_PLUGIN_ERROR;
    }
    if (auto now = entry.Of(ERole::REBUILDING); !now.empty()) rebuilt = std::move(now);
    const std::string waiting = entry.m_Md && entry.m_Md->m_Run ? entry.m_Md->m_Run->m_Waiting : "";
    if (waiting == "PENDING") {
      printer->End(entry.ActivityText() + ": nothing begins before that", std::max(percent, 0));
      return EXIT_DONE;
    }
    if (!waiting.empty()) {
      printer->Show({entry.ActivityText(), std::max(percent, 0), 0, ""});
      looks = 0;
    } else if (const auto run = RunOf(entry)) {
      percent = run->m_Percent;
      printer->Show(*run);
      looks = 0;
    } else if (percent < 0 || ++looks > LOOKS_FOR_END) {
      printer->End("no rebuild or resync is running; " + TextOf(*array, PI::PROP_STATUS),
                   std::max(percent, 0));
      return NumberOf(*array, PI::PROP_STATUS) == PI::STATUS_OK ? EXIT_DONE : EXIT_PLUGIN_ERROR;
    }
    session.Pause(LOOK_INTERVAL);
  }
}

}  // namespace Host
