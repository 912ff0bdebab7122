#pragma once
/// @file
/// Trace lines of the plug-in. Each source file defines TRACE_SOURCE, its tag in the trace stream.

#include <boost/format.hpp>
#include <cerrno>
#include <locale>
#include <string>
#include <system_error>

#include "KVT/Misc.h"
#include "KVT/Trace.h"

namespace NAMESPACE_piRVX {

extern KVT::Misc::CModuleInfo KVT_MODULE_INFO_piRVX;

/// Trace classes: bits of the mask in the module-information record, not levels.
inline constexpr unsigned int TRACE_LIFECYCLE = 2;  ///< also failures
inline constexpr unsigned int TRACE_INFORMATION = 4;
inline constexpr unsigned int TRACE_LOCKS = 8;
inline constexpr unsigned int TRACE_THREADS = 16;  ///< scan and threads

/// A text with its arguments filled in, the same whatever locale the server has set. "%d" prints a number of
/// any width in full.
template <class... TArguments>
std::string Text(const char* format, const TArguments&... arguments) {
  boost::format text(format, std::locale::classic());
  (void)(text % ... % arguments);
  return text.str();
}

/// The system's text for errno.
inline std::string SystemError() { return std::generic_category().message(errno); }

template <class... TArguments>
void TraceLine(unsigned int traceClass, const char* source, int line, const char* format,
               const TArguments&... arguments) {
  const int error = errno;
  try {
    KVT::Trace::Write(KVT_MODULE_INFO_piRVX, traceClass, source, line, Text(format, arguments...));
  } catch (const std::exception&) {
    // A line that cannot be written is lost: tracing never changes a result.
  }
  errno = error;
}

/// Writes to the error log, whatever classes are traced. Throws nothing: it is called where something failed
/// already.
template <class... TArguments>
void ErrorLine(const char* source, int line, const char* format, const TArguments&... arguments) {
  try {
    KVT::Trace::WriteError(KVT_MODULE_INFO_piRVX, source, line, Text(format, arguments...));
  } catch (const std::exception&) {
    // No memory for the line: what it was to tell of goes on.
  }
}

}  // namespace NAMESPACE_piRVX

/// Writes a line when its class is traced; the arguments are evaluated only then and have no side effect.
#define RVX_TRACE(traceClass, ...)                                                   \
  do {                                                                               \
    if (::NAMESPACE_piRVX::KVT_MODULE_INFO_piRVX.IsTraced(traceClass))               \
      ::NAMESPACE_piRVX::TraceLine(traceClass, TRACE_SOURCE, __LINE__, __VA_ARGS__); \
  } while (false)
#define RVX_ERROR(...) ::NAMESPACE_piRVX::ErrorLine(TRACE_SOURCE, __LINE__, __VA_ARGS__)
