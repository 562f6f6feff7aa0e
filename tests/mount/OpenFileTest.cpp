// OpenFile follows renames of the file or of a folder above it, so that a later removal finds
// its handles under the new name, and reads at explicit offsets.
#include "OpenFile.h"

#include <foundation/storage/provider/mem/MemProvider.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace storage::mount {
namespace {

namespace fsp = foundation::storage::provider;

TEST(OpenFile, FollowsMovesOfItsFileAndFoldersAboveIt) {
  struct Case {
    std::u16string from, to, expected;
  };
  const std::vector<Case> cases = {
      {u"/d/f.txt", u"/d/g.txt", u"/d/g.txt"},  // the file itself
      {u"/d", u"/e", u"/e/f.txt"},              // a folder above it
      {u"/d/f", u"/d/x", u"/d/f.txt"},          // a name it merely starts with
      {u"/other", u"/moved", u"/d/f.txt"},      // unrelated
  };
  for (const auto& c : cases) {
    auto mem = std::make_shared<fsp::mem::MemProvider>();
    const fsp::StorageItem root(mem, fsp::mem::MemProvider::rootLocation());
    fsp::StorageItem(root, u"/d").createFolder();
    const fsp::StorageItem file(root, u"/d/f.txt");
    OpenFile open(file, file.openStream(fsp::ByteStreamOpenOptions::readWriteCreate()), false);
    open.write(0, "body", 4);
    const auto from = fsp::StorageItem(root, c.from).getLocation();
    const auto to = fsp::StorageItem(root, c.to).getLocation();
    if (c.expected != u"/d/f.txt") {
      if (c.from == u"/d") {
        fsp::StorageItem(root, c.from).moveFolder(to, fsp::ReplacementPolicy::Fail);
      } else {
        fsp::StorageItem(root, c.from).moveFile(to, fsp::ReplacementPolicy::Fail);
      }
    }
    open.moved(from, to);
    EXPECT_TRUE(open.isAt(fsp::StorageItem(root, c.expected).getLocation()));
    char got[8] = {};
    EXPECT_EQ(open.read(1, got, sizeof got), 3u);
    EXPECT_EQ(std::string(got, 3), "ody");
    open.close();
    mem->shutdown();
  }
}

}  // namespace
}  // namespace storage::mount
