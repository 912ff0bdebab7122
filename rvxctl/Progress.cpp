#include "rvxctl/Progress.h"

#include <algorithm>

#include "host/Estimate.h"
#include "host/Printable.h"
#include "host/Signals.h"

namespace Host {

namespace {

constexpr std::chrono::milliseconds WATCH_INTERVAL{500};
constexpr int LINE_STEP = 5;  ///< percent
/// How many looks the event of a run's end may stay out: a fetch that meets the worker's pass brings nothing.
constexpr int LOOKS_FOR_END = 20;
constexpr std::size_t BAR_WIDTH = 40;
constexpr std::size_t LEAST_BAR = 8;

using Clock = std::chrono::steady_clock;

/// How far a run is, or what stands in its place.
struct SRun {
  std::string m_Name;  ///< "Resyncing"
  double m_Exact{0};   ///< percent
  Json m_Remaining{};  ///< the plug-in's; null: none
  Json m_Basis{};      ///< of it

  int Percent() const { return static_cast<int>(m_Exact); }
};

/// Prints a run as it goes on.
class CProgressPrinter {
 public:
  CProgressPrinter(CContext& context, std::string array, EProgress progress)
      : m_Context(context),
        m_Array(std::move(array)),
        m_Quiet(progress == EProgress::HIDDEN),
        m_Bar(context.Terminal().IsTerminal() && !IsJson()) {}

  void Show(const SRun& run) {
    if (m_Quiet) return;
    m_Estimate.Add(run.m_Exact, Clock::now());
    const std::string left = TextOf(m_Estimate.Left());
    if (m_Bar) {
      m_Context.Terminal().Print("\r\033[K" + BarLine(Printable(m_Array + " " + run.m_Name), run.Percent(),
                                                      left, m_Context.Terminal().Width()));
    } else if (run.Percent() / LINE_STEP != m_LastStep) {
      m_LastStep = run.Percent() / LINE_STEP;
      Line(run.m_Name + " " + std::to_string(run.Percent()) + "%, " + left, run.Percent(), run);
    }
  }
  void End(const std::string& text, int percent) {
    if (m_Quiet) return;
    if (m_Bar) m_Context.Terminal().Print("\r\033[K");
    Line(text, percent, {});
  }

 private:
  bool IsJson() const { return m_Context.Options().m_Json; }
  void Line(const std::string& text, int percent, const SRun& run) {
    if (!IsJson()) return m_Context.Terminal().Print(m_Array + ": " + text + "\n");
    m_Context.Show("progress",
                   {{"array", m_Array},
                    {"percent", percent},
                    {"remaining", run.m_Remaining},
                    {"estimateBasis", run.m_Basis},
                    {"estimate", EstimateJson()},
                    {"text", text}},
                   "");
  }

  Json EstimateJson() const {
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
std::optional<bool> CompletedBy(const Json& events, const std::string& array) {
  for (const Json& event : events) {
    if (event["objectName"] != array) continue;
    const unsigned int code = event["code"];
    if (code == PI::EVT_REBUILD_COMPLETED || code == PI::EVT_RESYNC_COMPLETED) return true;
    if (code == PI::EVT_REBUILD_ABORTED || code == PI::EVT_RESYNC_ABORTED) return false;
  }
  return std::nullopt;
}

/// Whether these are working members now.
bool HoldsAll(const Json& active, const Json& names) {
  return std::ranges::all_of(
      names, [&](const Json& name) { return std::ranges::find(active, name) != active.end(); });
}

}  // namespace

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

int FollowRun(CContext& context, const std::string& address, EProgress progress) {
  CSource& source = context.Source();
  std::string array;  // by which the events call it
  const auto look = [&] {
    try {
      return source.View({"run", {{"address", array.empty() ? address : array}}}, {true}).m_Data;
    } catch (const CError& error) {
      if (error.m_ExitStatus != EXIT_NO_OBJECT || array.empty()) throw;
      throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
    }
  };
  array = look()["array"];
  source.Watch();
  CProgressPrinter printer(context, array, progress);
  int percent = -1;  // as long as no run was seen
  int looks = 0;
  Json rebuilt = Json::array();  // what the run writes to
  std::optional<bool> completed;
  while (true) {
    if (!completed) completed = CompletedBy(source.Events(), array);
    const Json now = look();
    // rvxd tells an event before it looks at what came of it: a look may still show the run that has ended.
    const bool isOld = completed.value_or(false) && !HoldsAll(now["active"], rebuilt) &&
                       !now["rebuilding"].empty() && ++looks <= LOOKS_FOR_END;
    if (completed && !isOld) {
      // The plug-in reports a rebuild that ended; that its disk failed is seen at the disk.
      const bool isDone = *completed && HoldsAll(now["active"], rebuilt);
      printer.End(isDone ? "completed" : "aborted", isDone ? 100 : std::max(percent, 0));
      return isDone ? EXIT_DONE : EXIT_PLUGIN_ERROR;
    }
    if (isOld) {
      Pause(WATCH_INTERVAL);
      continue;
    }
    if (!now["rebuilding"].empty()) rebuilt = now["rebuilding"];
    const std::string activity = now["activityText"];
    if (now["waiting"] == "PENDING") {
      printer.End(activity + ": nothing begins before that", std::max(percent, 0));
      return EXIT_DONE;
    }
    if (!now["waiting"].is_null()) {
      printer.Show({activity, static_cast<double>(std::max(percent, 0))});
      looks = 0;
    } else if (const Json& run = now["run"]; !run.is_null()) {
      const SRun seen{run["text"], run["percent"], run["remaining"], run["estimateBasis"]};
      percent = seen.Percent();
      printer.Show(seen);
      looks = 0;
    } else if (percent < 0 || ++looks > LOOKS_FOR_END) {
      printer.End("no rebuild or resync is running; " + now["statusText"].get<std::string>(),
                  std::max(percent, 0));
      return now["status"] == PI::STATUS_OK ? EXIT_DONE : EXIT_PLUGIN_ERROR;
    }
    Pause(WATCH_INTERVAL);
  }
}

}  // namespace Host
