#include "tests/support/FaultyMachine.h"

#include <algorithm>
#include <cerrno>
#include <map>

namespace NAMESPACE_piRVX {

void CFaultyMachine::FailAt(ECall kind, std::uint64_t n, int error, std::uint64_t more) {
  const std::lock_guard lock(m_Lock);
  SPlan& plan = Plan(kind);
  plan.m_First = plan.m_Count + n;
  plan.m_Last = plan.m_First + more;
  plan.m_Error = error;
}

void CFaultyMachine::ShortenAt(ECall kind, std::uint64_t n, std::size_t size) {
  const std::lock_guard lock(m_Lock);
  SPlan& plan = Plan(kind);
  plan.m_ShortAt = plan.m_Count + n;
  plan.m_ShortSize = size;
}

void CFaultyMachine::Clear() {
  const std::lock_guard lock(m_Lock);
  for (SPlan& plan : m_Plans) plan = SPlan{.m_Count = plan.m_Count};
}

std::uint64_t CFaultyMachine::Count(ECall kind) const {
  const std::lock_guard lock(m_Lock);
  return m_Plans[static_cast<std::size_t>(kind)].m_Count;
}

std::uint64_t CFaultyMachine::Struck() const {
  const std::lock_guard lock(m_Lock);
  return m_Struck;
}

std::vector<std::string> CFaultyMachine::OpenedForWriting() const {
  const std::lock_guard lock(m_Lock);
  return m_OpenedForWriting;
}

int CFaultyMachine::Strike(const SCall& call) {
  const std::lock_guard lock(m_Lock);
  if (call.m_Kind == ECall::Open && (call.m_Flags & O_ACCMODE) != O_RDONLY)
    m_OpenedForWriting.push_back(call.m_Detail);
  int error = 0;
  const auto count = [&](ECall counted) {
    SPlan& plan = Plan(counted);
    ++plan.m_Count;
    if (plan.m_First != 0 && plan.m_Count >= plan.m_First && plan.m_Count <= plan.m_Last)
      error = plan.m_Error;
    if (call.m_Size != nullptr && plan.m_ShortAt == plan.m_Count) {
      *call.m_Size = std::min(*call.m_Size, plan.m_ShortSize);
      ++m_Struck;
    }
  };
  count(call.m_Kind);
  // Closing fails only when it is asked for by name: nobody can do anything about it.
  if (call.m_Kind != ECall::Close) count(ANY);
  if (error != 0) ++m_Struck;
  return error;
}

std::optional<std::int64_t> CFaultyMachine::Around(const SCall& call, const std::function<void()>& go) {
  const bool counted = call.m_Kind != ECall::Now && call.m_Kind != ECall::Sleep;
  const int error = counted ? Strike(call) : 0;
  if (error == 0 || call.m_Kind == ECall::Close) go();
  if (error == 0) return std::nullopt;
  errno = error;
  return call.m_Kind == ECall::GetCommandPath || call.m_Kind == ECall::ExecuteCommand ? 0 : -1;
}

CHookedMachine::TAnswer CHookedMachine::Around(const SCall& call, const std::function<void()>& go) {
  static const std::map<ECall, std::string> names = {
      {ECall::Open, "open"},   {ECall::Close, "close"},          {ECall::Read, "read"},
      {ECall::Ioctl, "ioctl"}, {ECall::WaitExceptional, "wait"}, {ECall::ExecuteCommand, "run"},
      {ECall::Now, "now"},     {ECall::Sleep, "sleep"}};
  const auto name = names.find(call.m_Kind);
  const TAnswer answer = name == names.end()
                             ? TAnswer()
                             : m_Hook(name->second + (call.m_Detail.empty() ? "" : " ") + call.m_Detail);
  if (!answer) go();
  return answer;
}

}  // namespace NAMESPACE_piRVX
