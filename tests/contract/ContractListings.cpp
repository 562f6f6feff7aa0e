// Listings in every variant: all/files/folders, names only, wildcards and recursive.
#include "ProviderContract.h"

#include <foundation/text/Unicode.h>

#include <algorithm>
#include <set>

namespace contract {
namespace {

using fsp::ErrorCode;
using Names = std::vector<std::string>;

const Names kAll{"a.txt", "ab.txt", "b.txt", "c.log", "dir.txt", "sub"};
const Names kFiles{"a.txt", "ab.txt", "b.txt", "c.log"};
const Names kFolders{"dir.txt", "sub"};
const Names kRecursive{
    "a.txt",      "ab.txt",           "b.txt",    "c.log", "dir.txt", "dir.txt/z.md", "sub",
    "sub/deeper", "sub/deeper/y.txt", "sub/x.txt"};

// The tree below /d that the listing tests read: files and folders whose names do and do not
// match "*.txt" (including a folder that does), two levels of nesting.
void buildTree(const fsp::StorageItem& root) {
  below(root, u"d/sub/deeper").createFolderRecursive();
  below(root, u"d/dir.txt").createFolder();
  writeFile(below(root, u"d/a.txt"), "a");
  writeFile(below(root, u"d/ab.txt"), "ab");
  writeFile(below(root, u"d/b.txt"), "bbb");
  writeFile(below(root, u"d/c.log"), "");
  writeFile(below(root, u"d/sub/x.txt"), "x");
  writeFile(below(root, u"d/sub/deeper/y.txt"), "y");
  writeFile(below(root, u"d/dir.txt/z.md"), "z");
}

}  // namespace

TEST_P(ProviderContract, ListDirectChildren) {
  buildTree(root());
  const auto d = at(u"/d");
  EXPECT_EQ(kAll, names(d.listAll()));
  EXPECT_EQ(kFiles, names(d.listFiles()));
  EXPECT_EQ(kFolders, names(d.listFolders()));
  EXPECT_EQ(Names{"d"}, names(root().listAll()));
  EXPECT_TRUE(names(at(u"/d/sub/deeper").listFolders()).empty());

  for (const auto& row : rows(d.listAll())) {
    const bool folder = row.getName() == u"sub" || row.getName() == u"dir.txt";
    EXPECT_EQ(!folder, row.isFile()) << foundation::text::toUtf8(row.getName());
  }
  for (const auto& row : rows(d.listFiles())) {
    ASSERT_TRUE(row.isFile());
    const auto expected = readFile(at(u"/d/" + row.getName())).size();
    EXPECT_EQ(expected, row.getFileAttributes().getSize().value_or(999));
  }
}

TEST_P(ProviderContract, ListNamesOnly) {
  buildTree(root());
  const auto d = loc(u"/d");
  EXPECT_EQ(kAll, sortedUtf8(provider().listAllNamesOnly(d)));
  EXPECT_EQ(kFiles, sortedUtf8(provider().listFilesNamesOnly(d)));
  EXPECT_EQ(kFolders, sortedUtf8(provider().listFoldersNamesOnly(d)));
  EXPECT_EQ(kRecursive, sortedUtf8(provider().listAllRecursiveNamesOnly(d)));
  EXPECT_EQ((Names{"a.txt", "b.txt"}), sortedUtf8(provider().listFilesNamesOnly(d, u"?.txt")));
  EXPECT_EQ((Names{"a.txt", "ab.txt", "b.txt", "dir.txt"}),
            sortedUtf8(provider().listAllNamesOnly(d, u"*.txt")));
  EXPECT_EQ(Names{"dir.txt"}, sortedUtf8(provider().listFoldersNamesOnly(d, u"*.txt")));
  EXPECT_EQ((Names{"a.txt", "ab.txt", "b.txt", "dir.txt", "sub/deeper/y.txt", "sub/x.txt"}),
            sortedUtf8(provider().listAllRecursiveNamesOnly(d, u"*.txt")));
}

TEST_P(ProviderContract, ListWithWildcards) {
  buildTree(root());
  const auto d = at(u"/d");
  EXPECT_EQ((Names{"a.txt", "ab.txt", "b.txt", "dir.txt"}), names(d.listAll(u"*.txt")));
  EXPECT_EQ((Names{"a.txt", "ab.txt", "b.txt"}), names(d.listFiles(u"*.txt")));
  EXPECT_EQ(Names{"dir.txt"}, names(d.listFolders(u"*.txt")));
  EXPECT_EQ((Names{"a.txt", "b.txt"}), names(d.listAll(u"?.txt")));
  EXPECT_EQ((Names{"ab.txt"}), names(d.listFiles(u"a?.txt")));
  EXPECT_EQ(kAll, names(d.listAll(u"*")));
  EXPECT_EQ(Names{"sub"}, names(d.listFolders(u"s?b")));
  EXPECT_TRUE(names(d.listAll(u"*.none")).empty());
}

TEST_P(ProviderContract, ListRecursiveParentsFirst) {
  buildTree(root());
  const auto listed = rows(at(u"/d").listAllRecursive());
  std::set<std::u16string> seen;
  Names all;
  for (const auto& row : listed) {
    const auto& name = row.getName();
    all.push_back(foundation::text::toUtf8(name));
    const auto slash = name.rfind(u'/');
    if (slash != std::u16string::npos) {
      EXPECT_TRUE(seen.count(name.substr(0, slash)))
          << foundation::text::toUtf8(name) << " came before its folder's row";
    }
    seen.insert(name);
    const bool folder = name == u"sub" || name == u"sub/deeper" || name == u"dir.txt";
    EXPECT_EQ(!folder, row.isFile()) << all.back();
  }
  std::sort(all.begin(), all.end());
  EXPECT_EQ(kRecursive, all);

  // The pattern matches the last component, at every depth.
  EXPECT_EQ((Names{"a.txt", "ab.txt", "b.txt", "dir.txt", "sub/deeper/y.txt", "sub/x.txt"}),
            names(at(u"/d").listAllRecursive(u"*.txt")));
  // Names are relative to the folder listed, not to the root.
  EXPECT_EQ((Names{"deeper", "deeper/y.txt", "x.txt"}), names(at(u"/d/sub").listAllRecursive()));
}

TEST_P(ProviderContract, ListingRefusals) {
  writeFile(u"/file", "x");
  const auto none = at(u"/none");
  const auto file = at(u"/file");
  for (const auto& item : {none, file}) {
    SCOPED_TRACE(item.getLocation().toString());
    const auto where = item.getLocation();
    expectError(ErrorCode::NotFound, where, [&] { item.listAll(); });
    expectError(ErrorCode::NotFound, where, [&] { item.listFiles(); });
    expectError(ErrorCode::NotFound, where, [&] { item.listFolders(); });
    expectError(ErrorCode::NotFound, where, [&] { item.listAll(u"*.txt"); });
    expectError(ErrorCode::NotFound, where, [&] { provider().listAllNamesOnly(where); });
    expectError(ErrorCode::NotFound, where, [&] { item.listAllRecursive(); });
  }
}

}  // namespace contract
