#pragma once
/// @file
/// A machine on which chosen calls fail.

#include <array>
#include <mutex>

#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// Forwards to another machine, counts the calls by kind, and fails those that a test chose, so that one test
/// can walk every failure point of an operation. Now() and Sleep() are neither counted nor failed.
class CFaultyMachine final : public COperatingSystem {
 public:
  enum class ECall {
    Open,
    Close,  ///< the file is closed on the other machine all the same
    Read,
    Write,
    Seek,
    Sync,
    Ioctl,
    WaitExceptional,
    MakeNode,
    ChangeMode,
    Status,
    ReadLink,        ///< fails by returning none
    GetCommandPath,  ///< fails by returning 0
    ExecuteCommand,  ///< fails by returning 0
    GetPartitions,   ///< fails by returning none
    Any              ///< all of the above but Close, counted together
  };

  /// `machine` must outlive this one.
  explicit CFaultyMachine(COperatingSystem& machine);

  /// From now on, the n-th call of the kind (counted from 1) fails with `error` in errno, and so do the
  /// `more` calls of that kind after it. The call does not reach the other machine.
  void FailAt(ECall kind, std::uint64_t n, int error, std::uint64_t more = 0);
  /// From now on, the n-th Read or Write moves at most `size` bytes.
  void ShortenAt(ECall kind, std::uint64_t n, std::size_t size);
  /// Forgets all chosen failures.
  void Clear();
  /// Calls of the kind since construction, failed ones included.
  std::uint64_t Count(ECall kind) const;
  /// Failures that have struck since construction: a walk over all failure points ends when this stays the
  /// same.
  std::uint64_t Struck() const;
  /// Every path that was opened for writing, in order, whether it succeeded or not.
  std::vector<std::string> OpenedForWriting() const;

  int Open(const std::string& path, int flags) override;
  int Close(int descriptor) override;
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override;
  ssize_t Write(int descriptor, const void* buffer, std::size_t size) override;
  std::int64_t Seek(int descriptor, std::int64_t position) override;
  int Sync(int descriptor) override;
  int Ioctl(int descriptor, unsigned long request, void* argument) override;
  int WaitExceptional(int descriptor, std::uint64_t milliseconds) override;
  int MakeNode(const std::string& path, mode_t mode, dev_t device) override;
  int ChangeMode(const std::string& path, mode_t mode) override;
  int Status(const std::string& path, struct stat& status) override;
  int Status(int descriptor, struct stat& status) override;
  std::optional<std::string> ReadLink(const std::string& path) override;
  int GetCommandPath(const std::string& name, boost::filesystem::path& path) override;
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override;
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override;
  std::uint64_t Now() override;
  void Sleep(std::uint64_t milliseconds) override;

 private:
  struct SPlan {
    std::uint64_t m_Count{0};  ///< calls so far
    std::uint64_t m_First{0};  ///< count of the first call that fails; 0: none
    std::uint64_t m_Last{0};
    int m_Error{0};
    std::uint64_t m_ShortAt{0};
    std::size_t m_ShortSize{0};
  };

  /// Counts a call. The error it fails with, 0 when it goes through; `size` may be made smaller.
  int Strike(ECall kind, std::size_t* size = nullptr);
  bool Fails(ECall kind);  ///< as Strike, with the error in errno

  COperatingSystem& m_Machine;
  mutable std::mutex m_Lock;
  std::array<SPlan, static_cast<std::size_t>(ECall::Any) + 1> m_Plans{};
  std::uint64_t m_Struck{0};
  std::vector<std::string> m_OpenedForWriting;
};

}  // namespace NAMESPACE_piRVX
