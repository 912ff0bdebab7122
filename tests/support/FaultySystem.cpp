#include "tests/support/FaultySystem.h"

#include <algorithm>
#include <cerrno>
#include <map>

namespace NAMESPACE_piRVX {

void CFaultySystem::FailAt(OS::ECall kind, std::uint64_t n, int error, std::uint64_t more) {
  const std::lock_guard lock(m_Lock);
  SPlan& plan = Plan(kind);
  plan.m_First = plan.m_Count + n;
  plan.m_Last = plan.m_First + more;
  plan.m_Error = error;
}

void CFaultySystem::ShortenAt(OS::ECall kind, std::uint64_t n, std::size_t size) {
  const std::lock_guard lock(m_Lock);
  SPlan& plan = Plan(kind);
  plan.m_ShortAt = plan.m_Count + n;
  plan.m_ShortSize = size;
}

void CFaultySystem::Clear() {
  const std::lock_guard lock(m_Lock);
  for (SPlan& plan : m_Plans) plan = SPlan{.m_Count = plan.m_Count};
}

std::uint64_t CFaultySystem::Count(OS::ECall kind) const {
  const std::lock_guard lock(m_Lock);
  return m_Plans[static_cast<std::size_t>(kind)].m_Count;
}

std::uint64_t CFaultySystem::Struck() const {
  const std::lock_guard lock(m_Lock);
  return m_Struck;
}

std::vector<std::string> CFaultySystem::OpenedForWriting() const {
  const std::lock_guard lock(m_Lock);
  return m_OpenedForWriting;
}

int CFaultySystem::Strike(const OS::SCall& call) {
  const std::lock_guard lock(m_Lock);
  if (call.m_Kind == OS::ECall::Open && (call.m_Flags & O_ACCMODE) != O_RDONLY)
    m_OpenedForWriting.push_back(call.m_Detail);
  int error = 0;
  const auto count = [&](OS::ECall counted) {
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
  if (call.m_Kind != OS::ECall::Close) count(ANY);
  if (error != 0) ++m_Struck;
  return error;
}

std::optional<std::int64_t> CFaultySystem::Around(const OS::SCall& call, const std::function<void()>& go) {
  const bool counted = call.m_Kind != OS::ECall::Now && call.m_Kind != OS::ECall::Sleep;
  const int error = counted ? Strike(call) : 0;
  if (error == 0 || call.m_Kind == OS::ECall::Close) go();
  if (error == 0) return std::nullopt;
  errno = error;
  return call.m_Kind == OS::ECall::GetCommandPath || call.m_Kind == OS::ECall::ExecuteCommand ? 0 : -1;
}

CHookedSystem::TAnswer CHookedSystem::Around(const OS::SCall& call, const std::function<void()>& go) {
  static const std::map<OS::ECall, std::string> names = {
      {OS::ECall::Open, "open"},   {OS::ECall::Close, "close"},          {OS::ECall::Read, "read"},
      {OS::ECall::Ioctl, "ioctl"}, {OS::ECall::WaitExceptional, "wait"}, {OS::ECall::ExecuteCommand, "run"},
      {OS::ECall::Now, "now"},     {OS::ECall::Sleep, "sleep"}};
  const auto name = names.find(call.m_Kind);
  const TAnswer answer = name == names.end()
                             ? TAnswer()
                             : m_Hook(name->second + (call.m_Detail.empty() ? "" : " ") + call.m_Detail);
  if (!answer) go();
  return answer;
}

}  // namespace NAMESPACE_piRVX
