// The adapters over ICU and the shell-like name patterns. (Blake2b and Base64 are checked by
// the known answers of the content cache's file names, CacheResourceTest.)
#include <foundation/storage/provider/Glob.h>
#include <foundation/text/Unicode.h>

#include <gtest/gtest.h>

using namespace foundation;

TEST(Unicode, ConvertsBothWaysOutsideTheBasicPlane) {
  const std::u16string text = u"Grüße \U0001F600";
  EXPECT_EQ(text::toUtf8(text), "Grüße \xF0\x9F\x98\x80");
  EXPECT_EQ(text::toUtf16(text::toUtf8(text)), text);
}

TEST(Unicode, LowerCasesWithFullUnicodeRules) {
  EXPECT_EQ(text::toLower(u"ÄBC/Straße.TXT"), u"äbc/straße.txt");
  // U+0130 (capital I with dot) lower-cases to two code units: the length changes.
  EXPECT_EQ(text::toLower(u"\u0130"), u"i\u0307");
}

TEST(Glob, MatchesNamesLikeAShell) {
  using storage::provider::globMatches;
  EXPECT_TRUE(globMatches(u"*.txt", u"a.txt"));
  EXPECT_FALSE(globMatches(u"*.txt", u"a.txt.bak"));
  EXPECT_TRUE(globMatches(u"?.md", u"a.md"));
  EXPECT_FALSE(globMatches(u"?.md", u"ab.md"));
  EXPECT_TRUE(globMatches(u"*", u".hidden"));
  EXPECT_TRUE(globMatches(u"", u"anything"));
  EXPECT_TRUE(globMatches(u"[ab]*", u"b-file"));
  EXPECT_TRUE(globMatches(u"ü*", u"über"));
}
