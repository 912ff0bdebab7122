/// @file
/// rvxd: the host that stays.

#include <malloc.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/Installation.h"
#include "host/Signals.h"
#include "host/WriterLock.h"
#include "rvxd/Keeper.h"
#include "rvxd/Log.h"
#include "rvxd/Notifier.h"
#include "rvxd/Server.h"
#include "rvxd/Sockets.h"
#include "rvxd/Textfile.h"

namespace Rvxd {

namespace {

constexpr char DEFAULT_SOCKET[] = "/run/rvx/rvxd.sock";
constexpr char DEFAULT_CHANNELS[] = "/etc/rvx/notify.d";
constexpr char NOTIFY_SOCKET[] = "/run/rvx/notify.sock";
constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";
constexpr std::chrono::milliseconds END_LIMIT{400};
constexpr char CHANGE_LIMIT[] = "7200000000";  ///< microseconds of the watchdog during a change: two hours

struct SDaemonOptions {
  Host::SOptions m_Host;
  std::string m_Socket;
  std::string m_State;     ///< folder; empty: the service manager's, else the usual one
  std::string m_Channels;  ///< folder; empty: the usual one, of a simulated machine none
  unsigned int m_PlanSeconds{900};
  std::string m_Metrics;   ///< "127.0.0.1:9634"; empty: not by TCP
  std::string m_Textfile;  ///< empty: none
};

std::string StateFolder(const SDaemonOptions& options) {
  std::string folder = options.m_State;
  if (folder.empty() && options.m_Host.m_Simulate) {
    if (options.m_Socket.empty())
      throw Host::CError(Host::EXIT_USAGE, "a simulated machine needs --socket or --state");
    folder = options.m_Socket + ".state";
  }
  if (const char* const given = std::getenv("STATE_DIRECTORY"); folder.empty() && given != nullptr)
    folder = given;
  if (folder.empty()) folder = "/var/lib/rvx";
  if ((::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) || ::access(folder.c_str(), W_OK) != 0)
    throw Host::CError(Host::EXIT_PLUGIN_ERROR, "cannot keep anything in " + folder + ": " +
                                                    std::strerror(errno) +
                                                    "; --state names the folder for what is kept");
  return folder;
}

std::optional<SPicture> PictureOf(const CKeeper& keeper) {
  const auto now = keeper.Now();
  // A machine that nobody ever gets to see: what was so is taken to be so still.
  if (now == nullptr && !IsBlind(keeper.Pass())) return std::nullopt;
  SPicture picture{keeper.Conditions(), {}, now != nullptr};
  if (now == nullptr) return picture;
  for (const Json& array : now->Arrays())
    for (const char* const name : {"name", "uuid"})
      if (array[name].is_string()) picture.m_Arrays.insert(array[name]);
  return picture;
}

/// A simulated machine's alarms are for nobody but who asks for them.
SNotifierPlaces PlacesOf(const SDaemonOptions& options, const std::string& folder) {
  const bool isReal = !options.m_Host.m_Simulate;
  return {options.m_Channels.empty() && isReal ? DEFAULT_CHANNELS : options.m_Channels, folder,
          isReal ? NOTIFY_SOCKET : "", isReal && ::access(JOURNAL_SOCKET, W_OK) == 0};
}

/// Tells the service manager; the watchdog is fed by the plug-in's thread alone, since it is the one that may
/// hang. A change is not to be killed half-way because the kernel takes long for it.
void TellManager(ETurn turn) {
  static bool wasReady = false;
  static const char* const usual = std::getenv("WATCHDOG_USEC");
  if (turn == ETurn::WATCHING && !std::exchange(wasReady, true))
    ::sd_notify(0, "READY=1\nSTATUS=The machine is being watched.");
  if (usual != nullptr) ::sd_notifyf(0, "WATCHDOG_USEC=%s", turn == ETurn::CHANGING ? CHANGE_LIMIT : usual);
  ::sd_notify(0, "WATCHDOG=1");
}

int Serve(SDaemonOptions options) {
  if (options.m_Host.m_Save && options.m_Host.m_Machine.empty())
    throw Host::CError(Host::EXIT_USAGE, "--save needs a file: --simulate=FILE");
  // A simulated machine is not served in the place of this one.
  if (options.m_Socket.empty() && !options.m_Host.m_Simulate) options.m_Socket = DEFAULT_SOCKET;
  const std::string folder = StateFolder(options);
  const auto lock = Host::LockWriter(
      options.m_Host.m_Simulate ? folder + "/writer.lock" : std::string(Host::WRITER_LOCK), "rvxd");
  const SSockets sockets = OpenSockets(options.m_Socket, options.m_Metrics);
  CCounters counters;
  CFeed feed(folder, counters);
  COperations operations(folder, feed, counters, std::chrono::seconds(options.m_PlanSeconds));
  CConditions conditions(folder, feed);
  CSettings settings(folder);
  CKeeper keeper(options.m_Host, feed, operations, conditions, settings, counters);
  CNotifier notifier(
      PlacesOf(options, folder), [&keeper] { return PictureOf(keeper); }, counters);
  // Its thread asks the notifier, whatever ends this function.
  const std::shared_ptr<void> ending(nullptr, [&keeper](void*) { keeper.Stop(); });
  keeper.OnLook([&notifier] { return notifier.Problems(); });
  const CMetrics metrics(keeper, feed, operations, counters);
  const CApi api(keeper, feed, operations, conditions, settings, notifier, metrics, counters,
                 options.m_Host.m_Simulate);
  std::optional<CTextfile> textfile;
  if (!options.m_Textfile.empty()) textfile.emplace(options.m_Textfile, keeper, metrics);
  keeper.OnTurn(&TellManager);
  notifier.Start();  // first: where a disk hangs, the plug-in's first scan does not come back
  keeper.Start();
  std::list<CServer> servers;
  if (sockets.m_Changing.IsOpen()) servers.emplace_back(sockets.m_Changing.Get(), api, EAccess::ALL);
  if (sockets.m_Reading.IsOpen()) servers.emplace_back(sockets.m_Reading.Get(), api, EAccess::READING);
  if (sockets.m_Metrics.IsOpen()) servers.emplace_back(sockets.m_Metrics.Get(), api, EAccess::METRICS);
  Log(6, "serving at " + sockets.m_Where);
  const sigset_t signals = Host::EndSignals();
  int signal = 0;
  ::sigwait(&signals, &signal);
  ::sd_notify(0, "STOPPING=1");
  Log(6, std::string("ending: ") + ::strsignal(signal));
  for (CServer& server : servers) server.Quiesce();
  operations.Stop();
  feed.Stop();
  notifier.Stop();
  keeper.Stop();
  servers.clear();
  textfile.reset();
  const bool isOver = keeper.End(END_LIMIT);
  feed.Close();
  // All that is left are threads of the plug-in that wait for news and write nothing.
  if (!isOver) ::_exit(Host::EXIT_DONE);
  return Host::EXIT_DONE;
}

/// The value that stands for no file is nothing to tell.
struct SFormatter : CLI::Formatter {
  std::string make_option_name(const CLI::Option* option, bool positional) const override {
    const std::string name = Formatter::make_option_name(option, positional);
    return name == "--simulate{-}" ? "--simulate[=FILE]" : name;
  }
};

int Main(int count, char** words) {
  // Each connection has a thread: an arena for each would keep for months the most that one ever took.
  ::mallopt(M_ARENA_MAX, 2);
  SDaemonOptions options;
  CLI::App app(
      "md software RAID through the framework's plug-in: keeps the machine in view and serves its state",
      "rvxd");
  app.set_version_flag("--version", "rvxd " RVX_VERSION);
  app.formatter(std::make_shared<SFormatter>());
  app.add_flag("--simulate{-}", options.m_Host.m_Machine, "a simulated machine: the demonstration or FILE")
      ->each([&](const std::string&) { options.m_Host.m_Simulate = true; });
  app.add_flag("--save", options.m_Host.m_Save, "keep the simulated machine in its file at the end");
  app.add_option("--socket", options.m_Socket, "where to listen, unless the service manager says")
      ->type_name("PATH")
      ->default_str(DEFAULT_SOCKET);
  app.add_option("--state", options.m_State, "folder for events, operations and conditions")
      ->type_name("PATH");
  app.add_option("--channels", options.m_Channels, "folder that says where alarms go")
      ->type_name("PATH")
      ->default_str(DEFAULT_CHANNELS);
  app.add_option("--plugin", options.m_Host.m_Plugin, "the plug-in's library")->type_name("PATH");
  app.add_option("--plan-seconds", options.m_PlanSeconds, "how long a plan may be carried out")
      ->type_name("N")
      ->capture_default_str();
  app.add_option("--metrics", options.m_Metrics, "serve metrics by TCP too, at a loopback address")
      ->type_name("ADDRESS:PORT");
  app.add_option("--textfile", options.m_Textfile, "write metrics there for node_exporter, after each pass")
      ->type_name("PATH.prom");
  try {
    app.parse(count, words);
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    Log(3, std::string(error.what()) + "; 'rvxd --help' tells what there is");
    return Host::EXIT_USAGE;
  }
  if (options.m_Host.m_Machine == "-") options.m_Host.m_Machine.clear();
  ::umask(S_IRWXG | S_IRWXO);
  std::signal(SIGPIPE, SIG_IGN);
  Host::HoldEndSignals();  // for every thread: the main one waits for them
  // The plug-in says a line of its own at the start.
  if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) return Host::EXIT_PLUGIN_ERROR;
  try {
    return Serve(options);
  } catch (const Host::CError& error) {
    Log(3, error.what());
    return error.m_ExitStatus;
  } catch (const std::exception& error) {
    Log(3, error.what());
    return Host::EXIT_PLUGIN_ERROR;
  }
}

}  // namespace

}  // namespace Rvxd

int main(int count, char** words) { return Rvxd::Main(count, words); }
