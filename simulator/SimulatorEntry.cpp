#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>

#include "simulator/LoadedMachine.h"
#include "simulator/SimulatorApi.h"

namespace NAMESPACE_piRVX {
namespace {

[[noreturn]] void FailOn(const std::string& file) { throw CMachineError(file + ": " + std::strerror(errno)); }

std::string ReadFile(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), {}};
  if (!stream.is_open() || stream.bad()) FailOn(file);
  return text;
}

void WriteAll(int descriptor, const std::string& text, const std::string& file) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t size = ::write(descriptor, text.data() + done, text.size() - done);
    if (size < 0 && errno != EINTR) FailOn(file);
    done += size < 0 ? 0 : static_cast<std::size_t>(size);
  }
  if (::fsync(descriptor) != 0) FailOn(file);
}

/// Writes beside the file and renames, so that a reader finds the old text or the new one. A file that was
/// there keeps its permissions.
void ReplaceFile(const std::string& file, const std::string& text) {
  std::string beside = file + ".XXXXXX";
  const int descriptor = ::mkostemp(beside.data(), O_CLOEXEC);
  if (descriptor < 0) FailOn(file);
  try {
    struct stat old {};
    if (::stat(file.c_str(), &old) == 0 && ::fchmod(descriptor, old.st_mode & 07777) != 0) FailOn(file);
    WriteAll(descriptor, text, file);
    if (::rename(beside.c_str(), file.c_str()) != 0) FailOn(file);
  } catch (const CMachineError&) {
    ::close(descriptor);
    ::unlink(beside.c_str());
    throw;
  }
  ::close(descriptor);
}

/// Runs a call of the C interface; the message is kept for the caller.
const char* Answer(const std::function<void()>& call) {
  static std::string message;
  try {
    call();
    return nullptr;
  } catch (const std::exception& error) {
    message = error.what();
    return message.c_str();
  }
}

}  // namespace
}  // namespace NAMESPACE_piRVX

using namespace NAMESPACE_piRVX;

const char* rvxLoadMachine(const char* file) {
  return Answer([file] {
    if (file == nullptr) return LoadMachine(CSimulatedMachine::DemoDescription());
    try {
      LoadMachine(ReadFile(file));
    } catch (const CMachineError& error) {
      const std::string what = error.what();
      throw CMachineError(what.starts_with(file) ? what : std::string(file) + ": " + what);
    }
  });
}

const char* rvxSaveMachine(const char* file) {
  return Answer([file] {
    if (LoadedMachine() == nullptr) throw CMachineError("no machine is loaded");
    ReplaceFile(file, LoadedMachine()->Describe());
  });
}
