/// What strangers send rvxd: queries, identifiers of events, bodies of plans. Any of it is answered or
/// refused in words, and a request that is taken is the same after it was written down and read again.

#include "host/Proposals.h"
#include "rvxd/Http.h"
#include "rvxd/Problem.h"
#include "tests/fuzz/Fuzz.h"

namespace {

void Query(FuzzedDataProvider& data) {
  Rvxd::SHttpRequest request{"GET", "/v1/events"};
  for (const char* const name : {"limit", "severity", "wait", "object"})
    request.m_Query[name] = data.ConsumeRandomLengthString(24);
  try {
    Require(Rvxd::NumberIn(request, "limit", 100, 1000) <= 1000, "a number keeps its limit");
    Rvxd::FilterIn(request);
  } catch (const Rvxd::CProblem& problem) {
    Require(problem.m_Code == 422 && problem.ToJson().contains("detail"), "a wrong query is told so");
  }
  const std::string id = data.ConsumeRemainingBytesAsString();
  if (const auto parsed = Rvxd::ParseEventID(id))
    Require(!parsed->first.empty() && id.starts_with(parsed->first + "-"), "an identifier has both parts");
}

void Body(FuzzedDataProvider& data) {
  const Host::Json body = Rvxd::Json::parse(data.ConsumeRemainingBytesAsString(), nullptr, false);
  if (body.is_discarded()) return;
  try {
    const Host::SRequest request = Host::RequestOf(body);
    const Host::Json written = Host::ToJson(request);
    Require(Host::ToJson(Host::RequestOf(written)) == written, "a request is read as it was written");
  } catch (const Host::CError& error) {
    Require(error.m_ExitStatus == Host::EXIT_USAGE && *error.what() != '\0', "a wrong body is told so");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  FuzzedDataProvider data(bytes, size);
  data.ConsumeBool() ? Query(data) : Body(data);
  return 0;
}
