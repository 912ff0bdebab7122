#include "simulator/description/DescriptionFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "simulator/machine/MachineError.h"

namespace Simulation {
namespace {

constexpr std::size_t LARGEST = 64UL * 1024 * 1024;

/// A file that is closed on every way out, and removed if it is still a temporary one.
struct SFile {
  int m_Descriptor;
  std::string m_Temporary;

  SFile(int descriptor, std::string temporary)
      : m_Descriptor(descriptor), m_Temporary(std::move(temporary)) {}
  ~SFile() {
    ::close(m_Descriptor);
    if (!m_Temporary.empty()) ::unlink(m_Temporary.c_str());
  }
  SFile(const SFile&) = delete;
  SFile& operator=(const SFile&) = delete;
};

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
  const SFile opened(Checked(file, [&] { return ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }),
                     "");
  struct stat status {};
  Checked(file, [&] { return ::fstat(opened.m_Descriptor, &status); });
  if (!S_ISREG(status.st_mode)) throw CMachineError(file + ": is no regular file");
  std::string text;
  std::array<char, 65536> piece{};
  const auto read = [&] { return ::read(opened.m_Descriptor, piece.data(), piece.size()); };
  while (const ssize_t size = Checked(file, read)) {
    text.append(piece.data(), static_cast<std::size_t>(size));
    if (text.size() > LARGEST) throw CMachineError(file + ": is larger than 64 MiB");
  }
  return text;
}

void ReplaceDescription(const std::string& file, const std::string& text) {
  std::error_code isNew;
  const auto behindLinks = std::filesystem::canonical(file, isNew);
  const std::string target = isNew ? file : behindLinks.string();
  std::string name = target + ".XXXXXX";
  const int descriptor = Checked(file, [&] { return ::mkostemp(name.data(), O_CLOEXEC); });
  SFile beside(descriptor, name);
  struct stat old {};
  if (::stat(target.c_str(), &old) == 0) {
    // The owner first: changing it may take permissions away.
    Checked(file, [&] { return ::fchown(descriptor, old.st_uid, old.st_gid); });
    Checked(file, [&] { return ::fchmod(descriptor, old.st_mode & 07777); });
  }
  for (std::size_t done = 0; done < text.size();) {
    const auto write = [&] { return ::write(descriptor, text.data() + done, text.size() - done); };
    done += static_cast<std::size_t>(Checked(file, write));
  }
  Checked(file, [&] { return ::fsync(descriptor); });
  Checked(file, [&] { return ::rename(name.c_str(), target.c_str()); });
  beside.m_Temporary.clear();
}

}  // namespace Simulation
