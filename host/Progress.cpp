#include "host/Progress.h"

#include <algorithm>
#include <boost/format.hpp>

#include "host/Printable.h"
#include "host/Values.h"

namespace rvxctl {

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
  int m_Percent;
  std::string m_Remaining;
};

std::optional<SRun> RunOf(const PI::CObject& array) {
  const auto activity = NumberOf(array, PI::PROP_ACTIVITY);
  const bool resync = activity == PI::ACTIVITY_RESYNCING;
  if (!resync && activity != PI::ACTIVITY_REBUILDING) return std::nullopt;
  const auto percent = NumberOf(array, resync ? PI::PROP_RESYNC_PROGRESS : PI::PROP_REBUILD_PROGRESS);
  return SRun{TextOf(array, PI::PROP_ACTIVITY), static_cast<int>(percent.value_or(0)),
              TextOf(array, PI::PROP_TIME_REMAINING)};
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
    if (m_FirstPercent < 0) {
      m_FirstPercent = run.m_Percent;
      m_Begin = Clock::now();
    }
    if (m_Bar) {
      m_Context.Terminal().Print("\r\033[K" + BarLine(Printable(m_Array + " " + run.m_Name), run.m_Percent,
                                                      Rate(run), Remaining(run),
                                                      m_Context.Terminal().Width()));
    } else if (run.m_Percent / LINE_STEP != m_LastStep) {
      m_LastStep = run.m_Percent / LINE_STEP;
      Line(run.m_Name + " " + std::to_string(run.m_Percent) + "%" + Rate(run) + Remaining(run), run.m_Percent,
           run.m_Remaining);
    }
  }
  void End(const std::string& text, int percent) {
    if (m_Quiet) return;
    if (m_Bar) m_Context.Terminal().Print("\r\033[K");
    Line(text, percent, "");
  }

 private:
  bool Json() const { return m_Context.Options().m_Json; }
  std::string Rate(const SRun& run) const {
    const double minutes = std::chrono::duration<double>(Clock::now() - m_Begin).count() / 60;
    const int gained = run.m_Percent - m_FirstPercent;
    return gained > 0 && minutes > 0 ? (boost::format(", %.1f %%/min") % (gained / minutes)).str() : "";
  }
  static std::string Remaining(const SRun& run) {
    return run.m_Remaining.empty() ? "" : ", " + run.m_Remaining;
  }
  void Line(const std::string& text, int percent, const std::string& remaining) {
    if (!Json()) return m_Context.Terminal().Print(m_Array + ": " + text + "\n");
    m_Context.Show("progress",
                   {{"array", m_Array},
                    {"percent", percent},
                    {"remaining", remaining.empty() ? rvxctl::Json(nullptr) : rvxctl::Json(remaining)},
                    {"text", text}},
                   "");
  }

  CContext& m_Context;
  std::string m_Array;
  bool m_Quiet;
  bool m_Bar;
  int m_FirstPercent{-1};
  int m_LastStep{-1};
  Clock::time_point m_Begin;
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

}  // namespace

bool AwaitPass(CSession& session, unsigned long before) {
  for (const auto end = Clock::now() + PASS_LIMIT; Clock::now() < end;) {
    session.Pause(PASS_INTERVAL);  // first of all: a question would be in the way of the first pass
    if (CTopology(session).Plugin().m_UpdateCounter != before) return true;
  }
  return false;
}

std::string BarLine(const std::string& what, int percent, const std::string& rate,
                    const std::string& remaining, std::size_t columns) {
  const std::string share = std::to_string(percent) + "%";
  for (const std::string& figures : {share + rate + remaining, share + remaining, share}) {
    const std::size_t taken = WidthOf(what + " [] " + figures) + 1;  // the cursor stands behind it
    if (columns != 0 && taken + LEAST_BAR > columns) continue;
    const std::size_t bar = columns == 0 ? BAR_WIDTH : std::min(BAR_WIDTH, columns - taken);
    const std::size_t filled = bar * static_cast<std::size_t>(std::clamp(percent, 0, 100)) / 100;
    return what + " [" + std::string(filled, '#') + std::string(bar - filled, '.') + "] " + figures;
  }
  return Cut(share + " " + what, columns - 1);
}

int FollowRun(CContext& context, unsigned long arrayID, EProgress progress) {
  CSession& session = context.Session();
  std::optional<CProgressPrinter> printer;
  int percent = -1;  // as long as no run was seen
  int looks = 0;
  while (true) {
    const auto completed = CompletedBy(session.FetchEvents(), arrayID);
    const CTopology topology(session);
    const PI::CObject* const array = topology.FindID(arrayID);
    if (array == nullptr) throw CError(EXIT_PLUGIN_ERROR, "the array is gone");
    if (!printer) printer.emplace(context, NameOf(*array), progress);
    if (completed) {
      printer->End(*completed ? "completed" : "aborted", *completed ? 100 : std::max(percent, 0));
      return *completed ? EXIT_DONE : EXIT_PLUGIN_ERROR;
    }
    if (const auto run = RunOf(*array)) {
      percent = run->m_Percent;
      printer->Show(*run);
      looks = 0;
    } else if (percent < 0 || ++looks > LOOKS_FOR_END) {
      printer->End("no rebuild or resync is running; " + TextOf(*array, PI::PROP_STATUS),
                   std::max(percent, 0));
      return percent < 0 || NumberOf(*array, PI::PROP_STATUS) == PI::STATUS_OK ? EXIT_DONE
                                                                               : EXIT_PLUGIN_ERROR;
    }
    session.Pause(LOOK_INTERVAL);
  }
}

}  // namespace rvxctl
