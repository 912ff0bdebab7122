#include "KVT/Trace.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>

#include <cerrno>
#include <memory>
#include <mutex>

#include "libraries/common/CancellationGuard.h"
#include "libraries/zqKVT/ErrorLog.h"

namespace KVT {
namespace {

using CLogger = std::shared_ptr<spdlog::logger>;

CLogger MakeLogger(spdlog::sink_ptr sink) {
  auto logger = std::make_shared<spdlog::logger>("zq", std::move(sink));
  logger->set_level(spdlog::level::trace);
  logger->flush_on(spdlog::level::trace);  // the last lines before a crash are the ones that matter
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %t %v");
  return logger;
}

spdlog::sink_ptr OpenSink(Trace::EOutput output, const std::string& file) {
  switch (output) {
    case Trace::EOutput::File:
      return std::make_shared<spdlog::sinks::basic_file_sink_mt>(file);
    case Trace::EOutput::SystemLog:
      return std::make_shared<spdlog::sinks::syslog_sink_mt>("zq", LOG_PID, LOG_DAEMON, false);
    case Trace::EOutput::StandardError:
      break;
  }
  return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

struct SStream {
  std::mutex m_Lock;
  CLogger m_Logger{MakeLogger(OpenSink(Trace::EOutput::StandardError, {}))};
};

/// Never destroyed: threads trace until the process ends.
SStream& Stream() {
  static auto* const stream = new SStream;
  return *stream;
}

CLogger CurrentLogger() {
  const std::lock_guard guard(Stream().m_Lock);
  return Stream().m_Logger;
}

void Emit(spdlog::level::level_enum level, const char* module, const char* source, int line,
          const std::string& text) {
  const Internal::CCancellationGuard noCancel;
  const int error = errno;
  try {
    CurrentLogger()->log(level, "{} {}:{} {}", module, source, line, text);
  } catch (const std::exception&) {  // a lost line is better than a failed request
  }
  errno = error;
}

}  // namespace

namespace Trace {

bool SetOutput(EOutput output, const std::string& file) {
  const Internal::CCancellationGuard noCancel;
  try {
    CLogger logger = MakeLogger(OpenSink(output, file));
    const std::lock_guard guard(Stream().m_Lock);
    Stream().m_Logger.swap(logger);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void Write(const Misc::CModuleInfo& module, unsigned int traceClass, const char* source, int line,
           const std::string& text) {
  constexpr unsigned int LIFECYCLE_AND_INFORMATION = 2U | 4U;
  const bool important = (traceClass & LIFECYCLE_AND_INFORMATION) != 0;
  Emit(important ? spdlog::level::info : spdlog::level::debug, module.GetName().c_str(), source, line, text);
}

void WriteError(const Misc::CModuleInfo& module, const char* source, int line, const std::string& text) {
  Emit(spdlog::level::err, module.GetName().c_str(), source, line, text);
}

}  // namespace Trace

void Internal::LogToolkitError(const char* source, int line, const std::string& text) {
  Emit(spdlog::level::err, "KVT", source, line, text);
}

}  // namespace KVT
