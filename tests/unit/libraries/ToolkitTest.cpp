// The toolkit apart from threads: patterns, documents, catalogues, programs, traces.
#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <locale>
#include <stdexcept>

#include "KVT/Language.h"
#include "KVT/Markup.h"
#include "KVT/Misc.h"
#include "KVT/Regex.h"
#include "Src/piRVXPluginScan.h"
#include "libraries/zqKVTX/Partitions.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TraceCapture.h"

namespace {

using KVT::XML::CMarkup;

TEST(Regex, MatchesTheWholeTextInTheToolkitsSyntax) {
  using TGroups = std::vector<std::string>;
  const std::tuple<const char*, const char*, std::optional<TGroups>> cases[] = {
      {"^[sh]d[a-z]{1,2}$", "sdaa", TGroups{}},
      {"^md([:digit:]+)$", "md127", TGroups{"127"}},
      {"^md([:digit:]+)$", "mdd", std::nullopt},  // read as a list of letters it would match
      {"md([:digit:]+)", "md1\n", std::nullopt},
      {"[:alpha:][^[:space:]]", "a]", TGroups{}},
      {"[][:digit:]x:]+", "]1x:", TGroups{}},
      {"\\[:digit:]", "[:digit:]", TGroups{}},  // an escaped bracket begins nothing
      {"(a)|b", "b", TGroups{""}},
      {"a|ab", "ab", TGroups{}},  // the longest counts
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
    EXPECT_TRUE(!document.SetDoc(text) && document.IsEmpty()) << text;
  }
  EXPECT_FALSE(document.SetAttrib("a", "1") || document.IntoElem() || document.OutOfElem());
  ASSERT_TRUE(document.AddElem("root") && document.SetAttrib("text", "<\"&'\n>"));
  EXPECT_FALSE(document.AddElem("second"));
  ASSERT_TRUE(document.SetDoc(CMarkup(document).GetDoc()) && document.FindElem("root"));
  EXPECT_EQ(document.GetAttrib("text"), "<\"&'\n>");
}

TEST(Catalogue, GivesItsTextsElseTheFallback) {
  const CTemporaryFolder folder;
  const CEnvironmentVariable place("ZQ_CATALOG_DIR", folder.Path());
  KVT::Language_Support::CLanguageSupport::CLngFile catalogue("test.nls", 'e' | 'n' << 8, "utf-8",
                                                              {"zero", "one"});
  EXPECT_FALSE(catalogue.Load()) << "no file";
  folder.Write("test.nls",
               "; a comment\n\n  23286 = Name  of it\n1=Eins\r\n7 = a\\nb\\\\n\n8=Gr\xC3\xB6\xC3\x9F\x65\n"
               "10 = broken \xC3\n = 5\nnonsense\n99999999999999 = too large\n");
  ASSERT_TRUE(catalogue.Load());
  std::string texts;
  for (const unsigned int number : {0U, 1U, 2U, 7U, 8U, 10U, 23286U})
    texts += catalogue.GetText(number).value_or("none") + '|';
  EXPECT_EQ(texts, "zero|Eins|none|a\nb\\n|Gr\xC3\xB6\xC3\x9F\x65|none|Name  of it|");
  EXPECT_EQ(catalogue.GetRejectedLines(), 4U);
}

TEST(Application, FindsProgramsInTrustedFoldersOnly) {
  const CTemporaryFolder folder;
  std::filesystem::permissions(folder.Write("own-program", "#!/bin/sh\n"), std::filesystem::perms::all);
  const CEnvironmentVariable search("PATH", folder.Path());
  boost::filesystem::path path("unchanged");
  for (const std::string name : {"own-program", "no-such-program", "", ".", "..", "../bin/sh", "/bin/sh"})
    EXPECT_NE(KVT::Misc::CKvtApplication::GetCommandPath(name, path), 1) << name;
  EXPECT_EQ(path, "unchanged");
  EXPECT_TRUE(KVT::Misc::CKvtApplication::GetCommandPath("sh", path) == 1 && path.is_absolute()) << path;
  const CEnvironmentVariable none("ZQ_CONFIG_DIR", "");
  EXPECT_EQ(KVT::Misc::CKvtApplication::GetConfigDirectory(), "/etc/zq");
}

TEST(Texts, AreTheSameUnderAnyGlobalLocale) {
  struct SGrouping : public std::numpunct<char> {
    char do_thousands_sep() const override { return ':'; }
    std::string do_grouping() const override { return "\1"; }
  };
  const CTemporaryFolder folder;
  folder.Write("p/partition", "10\n");
  folder.Write("p/dev", "259:16320\n");
  KVT::Trace::SetOutput(KVT::Trace::EOutput::File, "/dev/full");
  errno = 4711;
  KVT::Trace::Write(NAMESPACE_piRVX::KVT_MODULE_INFO_piRVX, 2, "", 1, "lost");
  EXPECT_EQ(errno, 4711) << "who traces an error still has it";
  const NAMESPACE_piRVX::CTraceCapture trace(2);
  const std::locale before = std::locale::global(std::locale(std::locale(), new SGrouping));
  EXPECT_FALSE(KVT::Trace::SetOutput(KVT::Trace::EOutput::File, folder.Path("p"))) << "a folder";
  KVT::Trace::Write(NAMESPACE_piRVX::KVT_MODULE_INFO_piRVX, 2, "Src/piRVX", 1234, "ENTER {} %d");
  const auto partitions = KVTX::Internal::ReadPartitions(folder.Path());
  const std::string key = NAMESPACE_piRVX::DeviceKey("SoftRAID0", 9, 16320);
  std::locale::global(before);
  EXPECT_EQ(key, "SoftRAID0&BLKDEV:Major=9&Minor=16320");
  EXPECT_THAT(trace.Text(), testing::EndsWith(" piRVX Src/piRVX:1234 ENTER {} %d\n"));
  EXPECT_EQ(partitions.at(0).m_Number, makedev(259, 16320));
}

}  // namespace
