// Confinement of the file provider to its root: escaping and dangling links, "..", and links
// that stay inside. (Foreign schemes and NUL in names are refused by every store, as the
// contract suite checks.)
#include "../ProviderTestSupport.h"

#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/text/Unicode.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace foundation::storage::provider::file::test {
namespace {

using namespace ::foundation::storage::provider::test;

StorageIRI at(const std::u16string& path) { return StorageIRI(u"file", path); }

bool contains(const std::vector<std::u16string>& list, const std::u16string& name) {
  return std::find(list.begin(), list.end(), name) != list.end();
}

class ConfinementTest : public ::testing::Test {
 protected:
  ConfinementTest() {
    fs::create_directories(root() / "sub");
    fs::create_directories(outside());
    writeText(outside() / "secret.txt", "secret");
    writeText(root() / "sub" / "a.txt", "inside");
    fs::create_directory_symlink(outside(), root() / "out");
    fs::create_symlink(outside() / "secret.txt", root() / "outfile");
    fs::create_directory_symlink(root() / "sub", root() / "inside");
    fs::create_symlink(temp_.path() / "missing", root() / "dangling");
    provider_ = std::make_shared<FileProvider>(root());
  }

  fs::path root() const { return temp_.path() / "root"; }
  fs::path outside() const { return temp_.path() / "outside"; }

  TempDir temp_;
  std::shared_ptr<FileProvider> provider_;
};

TEST_F(ConfinementTest, LinksLeadingOutsideAreRefusedForEveryKindOfAccess) {
  const auto& p = *provider_;
  const auto invalid = ErrorCode::InvalidLocation;
  EXPECT_EQ(invalid, errorOf([&] { p.openReadOnlyStream(at(u"/outfile")); }));
  EXPECT_EQ(invalid, errorOf([&] { p.openReadOnlyStream(at(u"/out/secret.txt")); }));
  EXPECT_EQ(invalid, errorOf([&] { p.getFileAttributes(at(u"/outfile")); }));
  EXPECT_EQ(invalid, errorOf([&] { p.fileExists(at(u"/out/secret.txt")); }));
  EXPECT_EQ(invalid, errorOf([&] { p.listAll(at(u"/out")); }));
  EXPECT_EQ(invalid, errorOf([&] { p.listAllRecursive(at(u"/out")); }));
  EXPECT_EQ(invalid,
            errorOf([&] { p.openStream(at(u"/outfile"), ByteStreamOpenOptions::overwrite()); }));
  EXPECT_EQ(invalid, errorOf([&] { p.createFile(at(u"/out/new.txt")); }));
  EXPECT_EQ(invalid, errorOf([&] { p.createFolderRecursive(at(u"/out/x/y")); }));
  EXPECT_EQ(invalid, errorOf([&] {
              p.copyFile(at(u"/sub/a.txt"), at(u"/out/copy.txt"), ReplacementPolicy::Overwrite);
            }));
  EXPECT_EQ(invalid, errorOf([&] {
              p.moveFile(at(u"/sub/a.txt"), at(u"/out/a.txt"), ReplacementPolicy::Overwrite);
            }));
  EXPECT_EQ(invalid, errorOf([&] { p.removeFile(at(u"/outfile")); }));

  // Nothing outside changed and nothing inside moved away.
  EXPECT_EQ("secret", readText(outside() / "secret.txt"));
  EXPECT_EQ(1, std::distance(fs::directory_iterator(outside()), fs::directory_iterator()));
  EXPECT_TRUE(fs::exists(root() / "sub" / "a.txt"));
}

TEST_F(ConfinementTest, DanglingLinkIsRefusedAndNothingIsCreatedWhereItPoints) {
  EXPECT_EQ(ErrorCode::InvalidLocation, errorOf([&] {
              provider_->openStream(at(u"/dangling"), ByteStreamOpenOptions::overwrite());
            }));
  EXPECT_EQ(ErrorCode::InvalidLocation, errorOf([&] { provider_->createFile(at(u"/dangling")); }));
  EXPECT_FALSE(fs::exists(temp_.path() / "missing"));
}

TEST_F(ConfinementTest, DotDotNeverClimbsAboveTheRoot) {
  provider_->createFile(at(u"/../../escape.txt"));
  EXPECT_TRUE(fs::exists(root() / "escape.txt"));
  EXPECT_FALSE(fs::exists(temp_.path() / "escape.txt"));
  EXPECT_TRUE(provider_->fileExists(StorageIRI(u"file:/sub/../../../escape.txt")));
}

TEST_F(ConfinementTest, LinksInsideAreFollowedAndEscapingOnesAreLeftOutOfListings) {
  auto stream = provider_->openReadOnlyStream(at(u"/inside/a.txt"));
  char buffer[16] = {};
  EXPECT_EQ(6, stream->read(buffer, sizeof buffer));
  EXPECT_EQ("inside", std::string(buffer, 6));
  stream->close();

  const auto top = rowNames(*provider_->listAll(at(u"/")));
  EXPECT_TRUE(contains(top, u"sub"));
  EXPECT_TRUE(contains(top, u"inside"));
  EXPECT_FALSE(contains(top, u"out"));
  EXPECT_FALSE(contains(top, u"outfile"));
  EXPECT_FALSE(contains(top, u"dangling"));

  // Removing the link removes the link only.
  provider_->removeFolder(at(u"/inside"));
  EXPECT_FALSE(fs::exists(root() / "inside"));
  EXPECT_TRUE(fs::exists(root() / "sub" / "a.txt"));
}

// Links to folders are listed but not entered, marked for a listing of their own: a loop
// ends, and a chain of folders each holding two links to the next (2^depth paths) costs a row
// per link instead of a walk per path.
TEST_F(ConfinementTest, RecursiveListingIsPreOrderAndDoesNotEnterLinks) {
  fs::create_directory_symlink(root(), root() / "sub" / "loop");
  constexpr int kDepth = 20;
  for (int level = 0; level < kDepth; ++level) {
    const auto here = root() / "chain" / std::to_string(level);
    const auto next = root() / "chain" / std::to_string(level + 1);
    fs::create_directories(here);
    fs::create_directories(next);
    fs::create_directory_symlink(next, here / "left");
    fs::create_directory_symlink(next, here / "right");
  }
  const auto rows = collectRows(*provider_->listAllRecursive(at(u"/")));
  std::vector<std::u16string> listed;
  for (const auto& row : rows) listed.push_back(row.getName());
  const auto position = [&](const std::u16string& name) {
    return std::find(listed.begin(), listed.end(), name) - listed.begin();
  };
  ASSERT_TRUE(contains(listed, u"sub/a.txt"));
  EXPECT_LT(position(u"sub"), position(u"sub/a.txt"));
  EXPECT_FALSE(contains(listed, u"sub/loop/sub"));
  EXPECT_FALSE(contains(listed, u"inside/a.txt"));
  EXPECT_FALSE(contains(listed, u"out/secret.txt"));
  EXPECT_FALSE(contains(listed, u"outfile"));
  EXPECT_LT(listed.size(), 4u * kDepth);
  for (const auto& row : rows) {
    const bool link = fs::is_symlink(root() / fs::path(text::toUtf8(row.getName())));
    EXPECT_EQ(link && !row.isFile(), row.getExtendedAttributes().hasAttribute("initiallyInvalid"))
        << text::toUtf8(row.getName());
  }
}

}  // namespace
}  // namespace foundation::storage::provider::file::test
