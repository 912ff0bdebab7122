#pragma once
/// @file
/// The trace stream: where modules write what they do. Safe from every thread; never throws, never a
/// cancellation point, leaves errno as it was.

#include <string>

#include "KVT/Api.h"
#include "KVT/Misc.h"

namespace KVT::Trace {

/// Where lines go. The default is standard error.
enum class EOutput { StandardError, File, SystemLog };

/// Chooses the output; `file` is the path for EOutput::File. False (and the old output stays) when it
/// cannot be opened.
ZQ_API bool SetOutput(EOutput output, const std::string& file = {});

/// Writes one line with time, module name, source tag and line number. The caller has asked
/// `CModuleInfo::IsTraced` for the class.
ZQ_API void Write(const Misc::CModuleInfo& module, unsigned int traceClass, const char* source, int line,
                  const std::string& text);

/// Writes to the error log: always, whatever classes are traced.
ZQ_API void WriteError(const Misc::CModuleInfo& module, const char* source, int line,
                       const std::string& text);

}  // namespace KVT::Trace
