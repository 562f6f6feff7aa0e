#include <foundation/crypto/Digest.h>
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

TEST(Digest, Blake2b512MatchesTheKnownAnswer) {
  // Blake2b-512 of the empty string (RFC 7693 test vectors family).
  const auto digest = crypto::blake2b512("");
  ASSERT_EQ(digest.size(), 64u);
  EXPECT_EQ(static_cast<unsigned char>(digest[0]), 0x78);
  EXPECT_EQ(static_cast<unsigned char>(digest[63]), 0xce);
}

TEST(Digest, Base64UrlUsesTheUrlAlphabetWithoutPadding) {
  EXPECT_EQ(crypto::base64UrlEncode("\xfb\xff"), "-_8");
  const auto name = crypto::blake2b512Base64Url("some/location");
  EXPECT_EQ(name.size(), 86u);
  EXPECT_EQ(name.find_first_of("+/=\n"), std::string::npos);
  EXPECT_EQ(name, crypto::blake2b512Base64Url("some/location"));
  EXPECT_NE(name, crypto::blake2b512Base64Url("some/location2"));
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
