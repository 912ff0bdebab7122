// The toolkit apart from threads: patterns, documents, catalogues, modules, traces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

#include "KVT/Exception.h"
#include "KVT/Language.h"
#include "KVT/Markup.h"
#include "KVT/Misc.h"
#include "KVT/Regex.h"
#include "KVT/Threading.h"
#include "KVT/Trace.h"
#include "TemporaryFolder.h"

namespace {

using KVT::Language_Support::CLanguageSupport;
using KVT::Misc::CKvtApplication;
using KVT::Misc::CModuleInfo;
using KVT::XML::CMarkup;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint16_t ENGLISH = 'e' | 'n' << 8;
using CGroups = std::optional<std::vector<std::string>>;

TEST(Regex, MatchesTheWholeTextInTheToolkitsSyntax) {
  struct SCase {
    const char* m_Pattern;
    std::string m_Text;
    CGroups m_Groups;
  };
  const CGroups none;
  const CGroups noGroups{std::vector<std::string>{}};
  const auto groups = [](std::vector<std::string> texts) { return CGroups(std::move(texts)); };
  const SCase cases[] = {
      {"^[sh]d[a-z]{1,2}$", "sda", noGroups},
      {"^[sh]d[a-z]{1,2}$", "hdb", noGroups},
      {"^[sh]d[a-z]{1,2}$", "sdaa", noGroups},
      {"^[sh]d[a-z]{1,2}$", "sda1", none},
      {"^[sh]d[a-z]{1,2}$", "sdaaa", none},
      {"^[sh]d[a-z]{1,2}$", "xsda", none},
      {"^md([:digit:]+)$", "md127", groups({"127"})},
      {"^md([:digit:]+)$", "md", none},
      {"^md([:digit:]+)$", "mdd", none},  // read as a list of letters it would match
      {"^md([:digit:]+)$", "md1p1", none},
      {"^md([:digit:]+)$", "md1\n", none},
      {"^md_d([:digit:]+)$", "md_d0", groups({"0"})},
      {"^md_d([:digit:]+)$", "md:", none},
      {"[[:digit:]]+", "42", noGroups},
      {"[[:digit:]x:]+", "4x:2", noGroups},
      {"[:alpha:][^[:space:]]", "a]", noGroups},
      {"[]a]+", "]a", noGroups},
      {"[^]a]", "]", none},
      {"[][:digit:]]+", "]1", noGroups},
      {"\\[:digit:]", "[:digit:]", noGroups},  // an escaped bracket begins nothing
      {"[\\]:]+", "]:", noGroups},
      {"b", "abc", none},
      {"(a)|(b)", "b", groups({"", "b"})},
      {"", "", noGroups},
  };
  for (const SCase& test : cases)
    EXPECT_EQ(KVT::Regex(test.m_Pattern).Match(test.m_Text), test.m_Groups)
        << test.m_Pattern << " on " << test.m_Text;
}

TEST(Regex, RefusesWhatCannotBeCompiled) {
  for (const char* pattern : {"(", "[a", "[:nonsense:]", "[[:digit:]", "\\", "[a\\", "["})
    EXPECT_THROW(KVT::Regex{pattern}, std::invalid_argument) << pattern;
}

TEST(Markup, BuildsReadsAndCopies) {
  CMarkup document;
  EXPECT_TRUE(document.IsEmpty());
  EXPECT_EQ(document.GetDoc(), "");
  EXPECT_FALSE(document.SetAttrib("a", "1"));
  EXPECT_FALSE(document.IntoElem());
  EXPECT_FALSE(document.OutOfElem());
  ASSERT_TRUE(document.AddElem("root"));
  EXPECT_FALSE(document.AddElem("second"));
  ASSERT_TRUE(document.SetAttrib("text", "<\"&'\n>"));
  ASSERT_TRUE(document.IntoElem());
  for (const char* id : {"1", "2"}) {
    ASSERT_TRUE(document.AddElem("drive"));
    ASSERT_TRUE(document.SetAttrib("id", "0"));
    ASSERT_TRUE(document.SetAttrib("id", id));
  }
  const std::string text = document.GetDoc();
  EXPECT_EQ(text.find('\n'), std::string::npos) << text;

  CMarkup read;
  ASSERT_TRUE(read.SetDoc(text));
  ASSERT_TRUE(read.FindElem("root"));
  EXPECT_EQ(read.GetAttrib("text"), "<\"&'\n>");
  EXPECT_EQ(read.GetAttrib("none"), "");
  ASSERT_TRUE(read.IntoElem());
  EXPECT_FALSE(read.FindElem("spare"));
  ASSERT_TRUE(read.FindElem("drive"));
  ASSERT_TRUE(read.FindElem());
  EXPECT_EQ(read.GetAttrib("id"), "2");
  EXPECT_FALSE(read.FindElem("drive"));
  EXPECT_EQ(read.GetAttrib("id"), "2") << "a failed search leaves the cursor";

  CMarkup copy(read);
  EXPECT_TRUE(copy.FindElem("root")) << "a copy begins before the root";
  ASSERT_TRUE(copy.SetAttrib("text", "changed"));
  EXPECT_EQ(read.GetDoc(), text);
  copy = read;
  EXPECT_EQ(copy.GetDoc(), text);
  ASSERT_TRUE(read.OutOfElem());
  EXPECT_EQ(read.GetAttrib("text"), "<\"&'\n>");
  EXPECT_FALSE(read.OutOfElem());
}

TEST(Markup, RefusesWhatIsNotWellFormed) {
  for (const char* text : {"", " ", "text", "<a>", "<a></b>", "<a/><b/>", "<a/>text", "text<a/>", "<a b=1/>",
                           "<a b='1/>", "<!-- -->", "</a>", "<"}) {
    CMarkup document;
    ASSERT_TRUE(document.SetDoc("<old/>"));
    EXPECT_FALSE(document.SetDoc(text)) << text;
    EXPECT_TRUE(document.IsEmpty()) << text;
  }
  CMarkup document;
  EXPECT_TRUE(document.SetDoc("<?xml version=\"1.0\"?>\n<!-- c -->\n<a>\n  <b/>\n</a>\n"));
  EXPECT_EQ(document.GetDoc(), "<a><b/></a>");
}

TEST(Catalogue, GivesItsTextsElseTheFallback) {
  const CTemporaryFolder folder;
  const CEnvironmentVariable place("ZQ_CATALOG_DIR", folder.Path());
  CLanguageSupport::CLngFile catalogue("test.nls", ENGLISH, "utf-8", {"zero", "one"});
  EXPECT_FALSE(catalogue.Load()) << "no file";
  EXPECT_EQ(catalogue.GetText(1), "one");
  folder.Write(
      "test.nls",
      "; a comment\n\n  23286 = Name  of it\n1=Eins\r\n7 = a\\nb\\\\n\n8=Gr\xC3\xB6\xC3\x9F\x65\n9 =\n"
      "10 = broken \xC3\n = 5\nnonsense\n99999999999999 = too large\n");
  ASSERT_TRUE(catalogue.Load());
  const std::pair<unsigned int, std::optional<std::string>> cases[] = {
      {0, "zero"}, {1, "Eins"},        {2, std::nullopt},     {7, "a\nb\\n"}, {8, "Gr\xC3\xB6\xC3\x9F\x65"},
      {9, ""},     {10, std::nullopt}, {23286, "Name  of it"}};
  for (const auto& [number, text] : cases) EXPECT_EQ(catalogue.GetText(number), text) << number;
  EXPECT_EQ(catalogue.GetRejectedLines(), 4U);

  folder.Write("en/test.nls", "1 = One\n");
  ASSERT_TRUE(catalogue.Load());
  EXPECT_EQ(catalogue.GetText(1), "One");
  EXPECT_EQ(catalogue.GetText(7), std::nullopt) << "loading replaces all texts";
  CLanguageSupport::CLngFile other("test.nls", ENGLISH, "latin-1", {"zero"});
  EXPECT_FALSE(other.Load());
}

const CLanguageSupport::CLngFile& NoCatalogue() {
  static const CLanguageSupport::CLngFile none("none.nls", ENGLISH, "utf-8", {});
  return none;
}

TEST(ModuleInfo, IsKnownWhileItLives) {
  EXPECT_EQ(CModuleInfo::Find(64999), nullptr);
  {
    CModuleInfo module(64999, "test", "P:1", NoCatalogue(), {{20003, "ERR_DEVICE_IO"}});
    EXPECT_EQ(CModuleInfo::Find(64999), &module);
    EXPECT_FALSE(module.IsTraced(2));
    module.SetTraceClasses(2 | 8);
    EXPECT_TRUE(module.IsTraced(2) && module.IsTraced(8));
    EXPECT_FALSE(module.IsTraced(4) || module.IsTraced(16));
  }
  EXPECT_EQ(CModuleInfo::Find(64999), nullptr);
}

TEST(Application, FindsProgramsInTrustedFoldersOnly) {
  boost::filesystem::path path("unchanged");
  const CTemporaryFolder folder;
  std::filesystem::permissions(folder.Write("own-program", "#!/bin/sh\n"), std::filesystem::perms::all);
  const CEnvironmentVariable search("PATH", folder.Path());
  for (const std::string name : {"own-program", "no-such-program", "", ".", "..", "../bin/sh", "/bin/sh"}) {
    EXPECT_NE(CKvtApplication::GetCommandPath(name, path), 1) << name;
    EXPECT_EQ(path, "unchanged") << name;
  }
  EXPECT_EQ(CKvtApplication::GetCommandPath("sh", path), 1);
  EXPECT_TRUE(path.is_absolute());
}

TEST(SystemException, TellsOperationAndError) {
  const KVT::CSystemException exception(ENOENT, "select");
  EXPECT_THAT(exception.what(), HasSubstr("select"));
  EXPECT_THAT(exception.what(), HasSubstr("No such file"));
  EXPECT_EQ(exception.code().value(), ENOENT);
}

/// Sends the trace back to standard error.
struct SStandardTrace {
  ~SStandardTrace() { KVT::Trace::SetOutput(KVT::Trace::EOutput::StandardError); }
};

TEST(Trace, WritesWholeLinesFromEveryThreadAndLeavesErrnoAlone) {
  const CTemporaryFolder folder;
  const SStandardTrace standard;
  const CModuleInfo module(64998, "test", "P:1", NoCatalogue(), {});
  ASSERT_TRUE(KVT::Trace::SetOutput(KVT::Trace::EOutput::File, folder.Path("trace")));
  EXPECT_FALSE(KVT::Trace::SetOutput(KVT::Trace::EOutput::File, folder.Path("trace/below")));
  const auto write = [&module] {
    for (int i = 0; i < 200; ++i) {
      errno = 4711;
      KVT::Trace::Write(module, 2, "Src/piRVX", 12, "ENTER {} %d");  // no format of any kind
      EXPECT_EQ(errno, 4711);
    }
  };
  std::thread first(write);
  std::thread second(write);
  first.join();
  second.join();
  KVT::Trace::WriteError(module, "Src/piRVXPlugin", 77, "crashed");
  std::istringstream lines(folder.Read("trace"));
  std::string line;
  for (int i = 0; i < 400; ++i) {
    ASSERT_TRUE(std::getline(lines, line));
    ASSERT_THAT(line, testing::EndsWith("test Src/piRVX:12 ENTER {} %d"));
  }
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_THAT(line, testing::EndsWith("test Src/piRVXPlugin:77 crashed"));
  EXPECT_FALSE(std::getline(lines, line));
}

TEST(Trace, IsNoCancellationPoint) {
  const CTemporaryFolder folder;
  const SStandardTrace standard;
  const CModuleInfo module(64998, "test", "P:1", NoCatalogue(), {});
  ASSERT_TRUE(KVT::Trace::SetOutput(KVT::Trace::EOutput::File, folder.Path("trace")));
  KVT::Threading::CEvent cancelled;
  std::atomic<bool> passed{false};
  std::atomic<bool> survived{false};
  auto thread = KVT::Threading::CThread::Create(
      [&] {
        pthread_cancel(pthread_self());
        KVT::Trace::Write(module, 2, "Src/piRVX", 1, "with a cancellation pending");
        passed = true;
        KVT::Misc::msleep(0);
        survived = true;
      },
      0);
  ASSERT_EQ(thread->Wait(30'000), 0U);
  EXPECT_TRUE(passed);
  EXPECT_FALSE(survived);
  EXPECT_THAT(folder.Read("trace"), HasSubstr("pending"));
}

}  // namespace
