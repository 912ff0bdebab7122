// The toolkit apart from threads: patterns, documents, catalogues, programs, traces.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

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
using KVT::XML::CMarkup;

constexpr std::uint16_t ENGLISH = 'e' | 'n' << 8;

TEST(Regex, MatchesTheWholeTextInTheToolkitsSyntax) {
  using TGroups = std::vector<std::string>;
  const std::tuple<const char*, const char*, std::optional<TGroups>> cases[] = {
      {"^[sh]d[a-z]{1,2}$", "sdaa", TGroups{}},
      {"^[sh]d[a-z]{1,2}$", "xsda", std::nullopt},
      {"^md([:digit:]+)$", "md127", TGroups{"127"}},
      {"^md([:digit:]+)$", "mdd", std::nullopt},  // read as a list of letters it would match
      {"^md([:digit:]+)$", "md1\n", std::nullopt},
      {"[:alpha:][^[:space:]]", "a]", TGroups{}},
      {"[][:digit:]x:]+", "]1x:", TGroups{}},
      {"\\[:digit:]", "[:digit:]", TGroups{}},  // an escaped bracket begins nothing
      {"[\\]:]+", "]:", TGroups{}},
      {"(a)|(b)", "b", TGroups{"", "b"}},
  };
  for (const auto& [pattern, text, groups] : cases)
    EXPECT_EQ(KVT::Regex(pattern).Match(text), groups) << pattern << " on " << text;
  for (const char* pattern : {"(", "[a", "[:nonsense:]", "[[:digit:]", "\\", "[a\\", "["})
    EXPECT_THROW(KVT::Regex{pattern}, std::invalid_argument) << pattern;
}

TEST(Markup, RefusesWhatIsNotWellFormed) {
  CMarkup document;
  for (const char* text : {"", "text", "<a>", "<a></b>", "<a/><b/>", "<a/>text", "<a b=1/>", "<!-- -->"}) {
    ASSERT_TRUE(document.SetDoc("<?xml version=\"1.0\"?>\n<!-- c -->\n<a>\n  <b/>\n</a>\n"));
    EXPECT_EQ(document.GetDoc(), "<a><b/></a>");
    EXPECT_FALSE(document.SetDoc(text)) << text;
    EXPECT_TRUE(document.IsEmpty()) << text;
  }
  EXPECT_FALSE(document.SetAttrib("a", "1") || document.IntoElem() || document.OutOfElem());
  ASSERT_TRUE(document.AddElem("root") && document.SetAttrib("text", "<\"&'\n>"));
  EXPECT_FALSE(document.AddElem("second"));
  const CMarkup copy(document);
  ASSERT_TRUE(document.SetDoc(copy.GetDoc()) && document.FindElem("root"));
  EXPECT_EQ(document.GetAttrib("text"), "<\"&'\n>");
}

TEST(Catalogue, GivesItsTextsElseTheFallback) {
  const CTemporaryFolder folder;
  const CEnvironmentVariable place("ZQ_CATALOG_DIR", folder.Path());
  CLanguageSupport::CLngFile catalogue("test.nls", ENGLISH, "utf-8", {"zero", "one"});
  EXPECT_FALSE(catalogue.Load()) << "no file";
  folder.Write("test.nls",
               "; a comment\n\n  23286 = Name  of it\n1=Eins\r\n7 = a\\nb\\\\n\n8=Gr\xC3\xB6\xC3\x9F\x65\n"
               "10 = broken \xC3\n = 5\nnonsense\n99999999999999 = too large\n");
  ASSERT_TRUE(catalogue.Load());
  const std::pair<unsigned int, std::optional<std::string>> cases[] = {{0, "zero"},
                                                                       {1, "Eins"},
                                                                       {2, std::nullopt},
                                                                       {7, "a\nb\\n"},
                                                                       {8, "Gr\xC3\xB6\xC3\x9F\x65"},
                                                                       {10, std::nullopt},
                                                                       {23286, "Name  of it"}};
  for (const auto& [number, text] : cases) EXPECT_EQ(catalogue.GetText(number), text) << number;
  EXPECT_EQ(catalogue.GetRejectedLines(), 4U);
  folder.Write("en/test.nls", "1 = One\n");
  ASSERT_TRUE(catalogue.Load());
  EXPECT_EQ(catalogue.GetText(1), "One");
  EXPECT_EQ(catalogue.GetText(7), std::nullopt) << "loading replaces all texts";
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

TEST(Application, TakesAnEmptyNameForNone) {
  const CEnvironmentVariable place("ZQ_CONFIG_DIR", "");
  EXPECT_EQ(CKvtApplication::GetConfigDirectory(), "/etc/zq");
}

/// Traces into a file of its own.
class Trace : public testing::Test {
 protected:
  Trace() { EXPECT_TRUE(KVT::Trace::SetOutput(KVT::Trace::EOutput::File, m_Folder.Path("trace"))); }
  ~Trace() override { KVT::Trace::SetOutput(KVT::Trace::EOutput::StandardError); }

  const CTemporaryFolder m_Folder;
  const CLanguageSupport::CLngFile m_NoTexts{"none.nls", ENGLISH, "utf-8", {}};
  const KVT::Misc::CModuleInfo m_Module{64998, "test", "P:1", m_NoTexts, {}};
};

TEST_F(Trace, WritesWholeLinesFromEveryThreadAndLeavesErrnoAlone) {
  EXPECT_FALSE(KVT::Trace::SetOutput(KVT::Trace::EOutput::File, m_Folder.Path("trace/below")));
  const auto write = [this] {
    for (int i = 0; i < 200; ++i) {
      errno = 4711;
      KVT::Trace::Write(m_Module, 2, "Src/piRVX", 12, "ENTER {} %d");  // no format of any kind
      EXPECT_EQ(errno, 4711);
    }
  };
  std::thread first(write);
  std::thread second(write);
  first.join();
  second.join();
  std::istringstream lines(m_Folder.Read("trace"));
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count)
    ASSERT_THAT(line, testing::EndsWith("test Src/piRVX:12 ENTER {} %d"));
  EXPECT_EQ(count, 400);
}

TEST_F(Trace, IsNoCancellationPoint) {
  std::string passed;
  const auto body = [&] {
    pthread_cancel(pthread_self());
    KVT::Trace::Write(m_Module, 2, "Src/piRVX", 1, "with a cancellation pending");
    passed += "traced";
    KVT::Misc::msleep(0);
    passed += " and survived";
  };
  ASSERT_EQ(KVT::Threading::CThread::Create(body, 0)->Wait(30'000), KVT::Threading::WAIT_OK);
  EXPECT_EQ(passed, "traced");
}

}  // namespace
