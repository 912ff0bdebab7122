/// @file
/// The command that asks rvxd anything.

#include <iostream>
#include <iterator>

#include "rvxctl/CommandLine.h"

namespace Host {

namespace {

struct SAsked {
  std::string m_Method;
  std::string m_Path;
  std::string m_Data;
};

int AskApi(CContext& context, const SAsked& asked) {
  const CRemote& remote = RequireRemote(context);
  std::string data = asked.m_Data;
  if (data == "-") data.assign(std::istreambuf_iterator<char>(std::cin), {});
  const SAnswer answer = remote.Ask(asked.m_Method, asked.m_Path, data);
  context.Terminal().PrintDocument(answer.m_Body);
  return answer.m_Code < 300 ? EXIT_DONE : ErrorOf(answer).m_ExitStatus;
}

}  // namespace

CRemote& RequireRemote(CContext& context) {
  CRemote* const remote = context.Remote();
  if (remote == nullptr)
    throw CError(EXIT_NO_PLUGIN, "rvxd does not run here: --socket names where it listens");
  return *remote;
}

void AddApi(CGroup& all) {
  const auto [api, asked] = all.Leaf<SAsked>("api", "asks rvxd, and prints its answer", AskApi);
  api->add_option("METHOD", asked.m_Method, "what to do")
      ->required()
      ->check(CLI::IsMember({"GET", "POST", "PUT", "DELETE"}));
  api->add_option("PATH", asked.m_Path, "of what: /v1/state")->required();
  api->add_option("--data", asked.m_Data, "the request's JSON; - reads it")->type_name("TEXT");
}

}  // namespace Host
