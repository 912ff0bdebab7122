#include "host/Texts.h"

#include <atomic>
#include <boost/algorithm/string/replace.hpp>
#include <iostream>

namespace Host::Texts {

namespace {

using KVT::Language_Support::CLanguageSupport;

/// The toolkit keeps modules by number and lists none: who traces or translates one has to know it.
constexpr unsigned int MODULE_NUMBER = 295;

std::atomic<unsigned int> g_Module{MODULE_NUMBER};

/// The framework's catalogue, read once. A plug-in that cannot be loaded has none, and its errors need words
/// too.
const CLanguageSupport::CLngFile& Catalog() {
  static const auto catalog = [] {
    const auto* const module = KVT::Misc::CModuleInfo::Find(MODULE_NUMBER);
    auto file = module != nullptr ? module->GetLanguageFile()
                                  : CLanguageSupport::CLngFile("piRVX.nls", 'e' | 'n' << 8, "utf-8", {});
    if (!file.Load())
      std::cerr << "rvxctl: there is no catalogue piRVX.nls where ZQ_CATALOG_DIR or the installation has it: "
                   "numbers stand for its texts\n";
    return file;
  }();
  return catalog;
}

}  // namespace

KVT::Misc::CModuleInfo* Module() { return KVT::Misc::CModuleInfo::Find(g_Module); }

void ModuleIs(unsigned int number) {
  if (KVT::Misc::CModuleInfo::Find(number) != nullptr) g_Module = number;
}

std::optional<std::string> Find(unsigned int number) {
  if (g_Module == MODULE_NUMBER) return Catalog().GetText(number);
  static const auto own = [] {
    auto file = Module()->GetLanguageFile();
    file.Load();  // it may have no more than its built-in texts
    return file;
  }();
  const auto text = own.GetText(number);
  return text ? text : Catalog().GetText(number);
}

std::string Of(unsigned int number) { return Find(number).value_or(std::to_string(number)); }

std::string StatusName(unsigned int status) {
  if (Module() != nullptr)
    for (const KVT::Misc::SErrorMessage& error : Module()->GetErrors())
      if (error.m_Status == status) return error.m_Name;
  return "status " + std::to_string(status);
}

std::string OfStatus(unsigned int status) {
  const std::string number = std::to_string(status);
  const std::string name = StatusName(status);
  const auto text = Find(status);
  return (name.ends_with(number) ? number : number + " " + name) + (text ? ": " + *text : "");
}

std::string OfEvent(const PI::CEvent& event) {
  std::string text = Of(event.m_Code);
  boost::replace_all(text, "%1", event.m_PlaceHolder1);
  boost::replace_all(text, "%2", event.m_PlaceHolder2);
  return text;
}

}  // namespace Host::Texts
