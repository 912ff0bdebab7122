#pragma once
/// @file
/// Module information, sleeping and command look-up of the toolkit.

#include <atomic>
#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

#include "KVT/Api.h"
#include "KVT/Language.h"

namespace KVT::Misc {

/// One entry of a module's error list: a status number and its name, such as 20003 "ERR_DEVICE_IO".
struct SErrorMessage {
  unsigned int m_Status;
  const char* m_Name;
};

/// What a module tells about itself; built once when its library is loaded, known to the toolkit while it
/// lives.
class ZQ_API CModuleInfo {
 public:
  CModuleInfo(unsigned int number, std::string name, std::string version,
              const Language_Support::CLanguageSupport::CLngFile& language,
              std::vector<SErrorMessage> errors);
  ~CModuleInfo();
  CModuleInfo(const CModuleInfo&) = delete;
  CModuleInfo& operator=(const CModuleInfo&) = delete;

  unsigned int GetNumber() const { return m_Number; }
  const std::string& GetName() const { return m_Name; }
  const std::string& GetVersion() const { return m_Version; }
  const Language_Support::CLanguageSupport::CLngFile& GetLanguageFile() const { return m_Language; }
  const std::vector<SErrorMessage>& GetErrors() const { return m_Errors; }

  /// True when lines of this trace class (one bit: 2, 4, 8 or 16) are wanted.
  bool IsTraced(unsigned int traceClass) const {
    return (m_TraceClasses.load(std::memory_order_relaxed) & traceClass) != 0;
  }
  /// Chooses the trace classes, a sum of bits; takes effect at once in every thread.
  void SetTraceClasses(unsigned int mask) { m_TraceClasses.store(mask, std::memory_order_relaxed); }

  /// The loaded module with this number, or null. The pointer is valid until its library is unloaded.
  static CModuleInfo* Find(unsigned int number);

 private:
  unsigned int m_Number;
  std::string m_Name;
  std::string m_Version;
  const Language_Support::CLanguageSupport::CLngFile& m_Language;
  std::vector<SErrorMessage> m_Errors;
  std::atomic<unsigned int> m_TraceClasses{0};
};

/// Sleeps; a cancellation point unless it is for no time.
ZQ_API void msleep(unsigned long milliseconds);

/// What the process that runs the modules offers.
class ZQ_API CKvtApplication {
 public:
  /// Looks a program up in the fixed trusted directories /usr/sbin, /usr/bin, /sbin and /bin (never in PATH:
  /// the server runs as root). Returns 1 and fills `path` when found.
  static int GetCommandPath(const std::string& name, boost::filesystem::path& path);
  /// Folder of the configuration files: ZQ_CONFIG_DIR unless it is unset or empty, or this program runs with
  /// more rights than whoever started it; else /etc/zq, or a temporary folder while the machine is simulated.
  static boost::filesystem::path GetConfigDirectory();
};

}  // namespace KVT::Misc
