#include "simulator/description/DescriptionFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "libraries/common/ReplaceFile.h"
#include "simulator/machine/MachineError.h"

namespace Simulation {
namespace {

constexpr std::size_t LARGEST = 64UL * 1024 * 1024;

/// The result of a system call that is repeated when a signal interrupted it; one that fails throws.
template <typename TCall>
auto Checked(const std::string& file, TCall call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  if (result < 0) throw CMachineError(file + ": " + std::strerror(errno));
  return result;
}

}  // namespace

std::string ReadDescription(const std::string& file) {
  // A pipe that nobody writes to must not hold the opening up.
  const KVT::Internal::CFileDescriptor opened(
      Checked(file, [&] { return ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
  struct stat status {};
  Checked(file, [&] { return ::fstat(opened.Get(), &status); });
  if (!S_ISREG(status.st_mode)) throw CMachineError(file + ": is no regular file");
  std::string text;
  std::array<char, 65536> piece{};
  const auto read = [&] { return ::read(opened.Get(), piece.data(), piece.size()); };
  while (const ssize_t size = Checked(file, read)) {
    text.append(piece.data(), static_cast<std::size_t>(size));
    if (text.size() > LARGEST) throw CMachineError(file + ": is larger than 64 MiB");
  }
  return text;
}

void ReplaceDescription(const std::string& file, const std::string& text) {
  std::error_code isNew;
  const auto behindLinks = std::filesystem::canonical(file, isNew);
  const std::string target = isNew ? std::filesystem::absolute(file).string() : behindLinks.string();
  Checked(file, [&] { return KVT::Internal::ReplaceFile(target, text, S_IRUSR | S_IWUSR) ? 0 : -1; });
}

}  // namespace Simulation
