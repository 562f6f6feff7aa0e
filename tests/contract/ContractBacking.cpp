// For a provider that wraps another store: once settled, what was written through it is in
// the backing store (bytes and tree). Providers that are their own backing store skip these.
#include "ProviderContract.h"

namespace contract {

using fsp::ByteStreamOpenOptions;
using fsp::ReplacementPolicy;

TEST_P(ProviderContract, SettledWritesReachTheBackingStore) {
  if (!underTest().backingStore()) GTEST_SKIP() << "the provider is its own backing store";
  const std::string big = patternBytes(512 * 1024 + 3);
  writeFile(u"/big.bin", big);
  writeFile(u"/patched", "0123456789");
  auto stream = at(u"/patched").openStream(ByteStreamOpenOptions::readWrite());
  stream->seek(4, std::ios_base::beg);
  stream->write("ab", 2);
  stream->seek(12, std::ios_base::beg);
  stream->write("Z", 1);
  stream->close();
  auto log = at(u"/log").openStream(ByteStreamOpenOptions::appendTo());
  log->write("one,", 4);
  log->close();
  log = at(u"/log").openStream(ByteStreamOpenOptions::appendTo());
  log->write("two", 3);
  log->close();

  underTest().settle();
  const auto backing = *underTest().backingStore();
  EXPECT_EQ(big, readFile(below(backing, u"big.bin")));
  EXPECT_EQ(std::string("0123ab6789\0\0Z", 13), readFile(below(backing, u"patched")));
  EXPECT_EQ("one,two", readFile(below(backing, u"log")));
}

TEST_P(ProviderContract, SettledTreeChangesReachTheBackingStore) {
  if (!underTest().backingStore()) GTEST_SKIP() << "the provider is its own backing store";
  makeFolders({u"/a/b", u"/gone/sub", u"/src/sub"});
  writeFile(u"/a/b/file.txt", "file");
  writeFile(u"/a/removed.txt", "removed");
  writeFile(u"/a/moved.txt", "moved");
  writeFile(u"/src/sub/s.txt", "s");
  writeFile(u"/gone/sub/g.txt", "g");
  at(u"/a/empty").createFile();

  at(u"/a/removed.txt").removeFile();
  at(u"/a/moved.txt").moveFile(loc(u"/a/b/moved.txt"), ReplacementPolicy::Fail);
  at(u"/a/b/file.txt").copyFile(loc(u"/a/copy.txt"), ReplacementPolicy::Fail);
  at(u"/gone").removeFolderRecursively();
  at(u"/src").moveFolder(loc(u"/a/dst"), ReplacementPolicy::Fail);

  underTest().settle();
  const auto backing = *underTest().backingStore();
  EXPECT_EQ((std::vector<std::string>{"a", "a/b", "a/b/file.txt", "a/b/moved.txt", "a/copy.txt",
                                      "a/dst", "a/dst/sub", "a/dst/sub/s.txt", "a/empty"}),
            names(backing.listAllRecursive()));
  EXPECT_EQ("file", readFile(below(backing, u"a/b/file.txt")));
  EXPECT_EQ("moved", readFile(below(backing, u"a/b/moved.txt")));
  EXPECT_EQ("file", readFile(below(backing, u"a/copy.txt")));
  EXPECT_EQ("s", readFile(below(backing, u"a/dst/sub/s.txt")));
  EXPECT_EQ("", readFile(below(backing, u"a/empty")));
}

}  // namespace contract
