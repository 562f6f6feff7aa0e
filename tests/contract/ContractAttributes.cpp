// Attributes: sizes, last-modified times, writable flags and extended attributes, read
// directly and through listing rows.
#include "ProviderContract.h"

namespace contract {
namespace {

using boost::posix_time::hours;
using boost::posix_time::minutes;
using boost::posix_time::ptime;
using boost::posix_time::seconds;
using fsp::ErrorCode;

const ptime kSomeTime(boost::gregorian::date(2021, 3, 4), hours(5) + minutes(6) + seconds(7));
const ptime kOtherTime(boost::gregorian::date(1999, 12, 31), hours(23) + minutes(59) + seconds(58));

const fsp::FolderEntry* findRow(const std::vector<fsp::FolderEntry>& rows,
                                const std::u16string& name) {
  for (const auto& row : rows) {
    if (row.getName() == name) return &row;
  }
  return nullptr;
}

}  // namespace

TEST_P(ProviderContract, FileAndFolderAttributesRefusals) {
  writeFile(u"/file", "12345");
  at(u"/dir").createFolder();

  EXPECT_EQ(5u, at(u"/file").getFileAttributes().getSize().value_or(0));
  expectError(ErrorCode::NotFound, loc(u"/dir"), [&] { at(u"/dir").getFileAttributes(); });
  expectError(ErrorCode::NotFound, loc(u"/none"), [&] { at(u"/none").getFileAttributes(); });
  expectError(ErrorCode::NotFound, loc(u"/file"), [&] { at(u"/file").getFolderAttributes(); });
  expectError(ErrorCode::NotFound, loc(u"/none"), [&] { at(u"/none").getFolderAttributes(); });
  expectError(ErrorCode::NotFound, loc(u"/none"), [&] { at(u"/none").getExtendedAttributes(); });
  expectError(ErrorCode::NotFound, loc(u"/none"), [&] { at(u"/none").setLastModified(kSomeTime); });
  expectError(ErrorCode::NotFound, loc(u"/none"), [&] { at(u"/none").setWritable(false); });
  EXPECT_FALSE(at(u"/none").fileExists()) << "refused attribute changes must not create";
}

TEST_P(ProviderContract, SizeFollowsTheContent) {
  const auto file = at(u"/file");
  file.createFile();
  ASSERT_TRUE(file.getFileAttributes().getSize().has_value()) << "the size is always present";
  EXPECT_EQ(0u, *file.getFileAttributes().getSize());
  writeFile(u"/file", patternBytes(70000));
  EXPECT_EQ(70000u, file.getFileAttributes().getSize().value_or(0));
  writeFile(u"/file", "abc");
  EXPECT_EQ(3u, file.getFileAttributes().getSize().value_or(0));
  const auto listed = rows(root().listAll());
  ASSERT_EQ(1u, listed.size());
  ASSERT_TRUE(listed[0].isFile());
  EXPECT_EQ(3u, listed[0].getFileAttributes().getSize().value_or(0));
}

TEST_P(ProviderContract, LastModifiedIsKeptToTheSecond) {
  writeFile(u"/file", "x");
  at(u"/dir").createFolder();

  at(u"/file").setLastModified(kSomeTime);
  at(u"/dir").setLastModified(kOtherTime);
  EXPECT_EQ(kSomeTime, toSeconds(at(u"/file").getFileAttributes().getLastModified()));
  EXPECT_EQ(kOtherTime, toSeconds(at(u"/dir").getFolderAttributes().getLastModified()));

  const auto listed = rows(root().listAll());
  const auto* fileRow = findRow(listed, u"file");
  const auto* dirRow = findRow(listed, u"dir");
  ASSERT_TRUE(fileRow && dirRow);
  EXPECT_EQ(kSomeTime, toSeconds(fileRow->getFileAttributes().getLastModified()));
  EXPECT_EQ(kOtherTime, toSeconds(dirRow->getFolderAttributes().getLastModified()));

  // A second change replaces the first (not merely the first one sticks).
  at(u"/file").setLastModified(kOtherTime);
  EXPECT_EQ(kOtherTime, toSeconds(at(u"/file").getFileAttributes().getLastModified()));
}

TEST_P(ProviderContract, WritableFlagIsReported) {
  writeFile(u"/file", "x");
  at(u"/dir").createFolder();
  EXPECT_TRUE(at(u"/file").getFileAttributes().isWritable()) << "a new file is writable";
  EXPECT_TRUE(at(u"/dir").getFolderAttributes().isWritable()) << "a new folder is writable";

  at(u"/file").setWritable(false);
  at(u"/dir").setWritable(false);
  EXPECT_FALSE(at(u"/file").getFileAttributes().isWritable());
  EXPECT_FALSE(at(u"/dir").getFolderAttributes().isWritable());
  const auto listed = rows(root().listAll());
  ASSERT_TRUE(findRow(listed, u"file") && findRow(listed, u"dir"));
  EXPECT_FALSE(findRow(listed, u"file")->getFileAttributes().isWritable());
  EXPECT_FALSE(findRow(listed, u"dir")->getFolderAttributes().isWritable());

  at(u"/file").setWritable(true);
  at(u"/dir").setWritable(true);
  EXPECT_TRUE(at(u"/file").getFileAttributes().isWritable());
  EXPECT_TRUE(at(u"/dir").getFolderAttributes().isWritable());
}

TEST_P(ProviderContract, ExtendedAttributesSetBehindAreReported) {
  writeFile(u"/file", "x");
  if (!underTest().keepsExtendedAttributes()) {
    // A store without them says so (a wrapper claims its own features), and refuses them.
    if (!underTest().backingStore()) {
      EXPECT_FALSE(provider().hasFeature(fsp::ExtendedFeature::ExtendedAttributes));
    }
    expectError(ErrorCode::NotSupported, loc(u"/file"),
                [&] { at(u"/file").getExtendedAttributes(); });
    GTEST_SKIP() << "the store keeps no extended attributes";
  }
  writeFile(u"/plain", "y");
  at(u"/dir").createFolder();
  const std::string binary("a\0b\xff", 4);
  underTest().setExtendedAttributeBehind(u"/file", "color", "blue");
  underTest().setExtendedAttributeBehind(u"/file", "blob", binary);
  underTest().setExtendedAttributeBehind(u"/file", "empty", "");
  underTest().setExtendedAttributeBehind(u"/dir", "owner", "team");

  const auto fileAttributes = at(u"/file").getExtendedAttributes();
  EXPECT_EQ((fsp::ExtendedAttributes::Map{{"blob", binary}, {"color", "blue"}, {"empty", ""}}),
            fileAttributes.all());
  EXPECT_EQ((fsp::ExtendedAttributes::Map{{"owner", "team"}}),
            at(u"/dir").getExtendedAttributes().all());
  EXPECT_TRUE(at(u"/plain").getExtendedAttributes().empty());

  const auto listed = rows(root().listAll());
  const auto* fileRow = findRow(listed, u"file");
  const auto* dirRow = findRow(listed, u"dir");
  const auto* plainRow = findRow(listed, u"plain");
  ASSERT_TRUE(fileRow && dirRow && plainRow);
  EXPECT_EQ(fileAttributes, fileRow->getExtendedAttributes());
  EXPECT_EQ("team", dirRow->getExtendedAttributes().getAttribute("owner"));
  EXPECT_TRUE(plainRow->getExtendedAttributes().empty());
}

}  // namespace contract
