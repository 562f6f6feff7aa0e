// Creating, removing, moving and copying files and folders: what each operation does and
// which refusal (code and location) each wrong request gets.
#include "ProviderContract.h"

namespace contract {
namespace {

using fsp::ErrorCode;
using fsp::ReplacementPolicy;

constexpr ReplacementPolicy kRefusingPolicies[] = {ReplacementPolicy::Fail,
                                                   ReplacementPolicy::Exclusive};
constexpr ReplacementPolicy kReplacingPolicies[] = {
    ReplacementPolicy::Overwrite, ReplacementPolicy::OverwriteIfNewer, ReplacementPolicy::Merge};

std::string policyName(ReplacementPolicy policy) {
  return "policy " + std::to_string(static_cast<unsigned>(policy));
}

}  // namespace

TEST_P(ProviderContract, CreateFileAndFolder) {
  at(u"/f.txt").createFile();
  EXPECT_TRUE(at(u"/f.txt").fileExists());
  EXPECT_FALSE(at(u"/f.txt").folderExists());
  EXPECT_EQ(0u, at(u"/f.txt").getFileAttributes().getSize().value_or(99));

  at(u"/dir").createFolder();
  EXPECT_TRUE(at(u"/dir").folderExists());
  EXPECT_FALSE(at(u"/dir").fileExists());
  at(u"/dir/inner.txt").createFile();
  EXPECT_TRUE(at(u"/dir/inner.txt").fileExists());
  EXPECT_EQ((std::vector<std::string>{"dir", "f.txt"}), names(root().listAll()));
}

// Creating a file and creating a folder are refused alike.
TEST_P(ProviderContract, CreateRefusals) {
  writeFile(u"/file", "keep");
  at(u"/dir").createFolder();
  const std::u16string withNul(u"/a\0b", 4);
  const std::pair<const char*, std::function<void(const fsp::StorageItem&)>> creates[] = {
      {"createFile", [](const auto& item) { item.createFile(); }},
      {"createFolder", [](const auto& item) { item.createFolder(); }}};
  for (const auto& [name, create] : creates) {
    SCOPED_TRACE(name);
    expectError(ErrorCode::AlreadyExists, loc(u"/file"), [&] { create(at(u"/file")); });
    expectError(ErrorCode::AlreadyExists, loc(u"/dir"), [&] { create(at(u"/dir")); });
    expectError(ErrorCode::NotFound, loc(u"/missing"), [&] { create(at(u"/missing/a")); });
    expectError(ErrorCode::NotFound, loc(u"/file"), [&] { create(at(u"/file/a")); });
    expectError(ErrorCode::AlreadyExists, root().getLocation(), [&] { create(root()); });
    expectError(ErrorCode::InvalidName, loc(withNul), [&] { create(at(withNul)); });
  }
  EXPECT_EQ("keep", readFile(at(u"/file"))) << "a refused create must not empty the file";
  EXPECT_TRUE(at(u"/dir").folderExists());
  EXPECT_FALSE(at(u"/missing").folderExists()) << "a refused create must not make the parent";
}

TEST_P(ProviderContract, CreateFolderRecursive) {
  at(u"/a/b/c").createFolderRecursive();
  EXPECT_TRUE(at(u"/a").folderExists());
  EXPECT_TRUE(at(u"/a/b").folderExists());
  EXPECT_TRUE(at(u"/a/b/c").folderExists());

  // Existing ancestors are fine; only the target itself must be new.
  at(u"/a/b/d").createFolderRecursive();
  EXPECT_TRUE(at(u"/a/b/d").folderExists());
  EXPECT_TRUE(at(u"/a/b/c").folderExists());

  writeFile(u"/a/file", "keep");
  expectError(ErrorCode::AlreadyExists, loc(u"/a/b/c"),
              [&] { at(u"/a/b/c").createFolderRecursive(); });
  expectError(ErrorCode::AlreadyExists, loc(u"/a/file"),
              [&] { at(u"/a/file").createFolderRecursive(); });
  expectError(ErrorCode::AlreadyExists, loc(u"/a/file"),
              [&] { at(u"/a/file/x/y").createFolderRecursive(); });
  EXPECT_EQ("keep", readFile(at(u"/a/file")));
  expectError(ErrorCode::AlreadyExists, root().getLocation(),
              [&] { root().createFolderRecursive(); });
}

TEST_P(ProviderContract, RemoveFile) {
  writeFile(u"/a.txt", "a");
  writeFile(u"/b.txt", "b");
  at(u"/dir").createFolder();

  at(u"/a.txt").removeFile();
  EXPECT_FALSE(at(u"/a.txt").fileExists());
  EXPECT_TRUE(at(u"/b.txt").fileExists()) << "removing one file must leave its sibling";

  expectError(ErrorCode::NotFound, loc(u"/a.txt"), [&] { at(u"/a.txt").removeFile(); });
  expectError(ErrorCode::NotFound, loc(u"/dir"), [&] { at(u"/dir").removeFile(); });
  EXPECT_TRUE(at(u"/dir").folderExists());
}

TEST_P(ProviderContract, RemoveFolder) {
  makeFolders({u"/empty", u"/full/sub"});
  writeFile(u"/file", "x");

  at(u"/empty").removeFolder();
  EXPECT_FALSE(at(u"/empty").folderExists());

  expectError(ErrorCode::FolderNotEmpty, loc(u"/full"), [&] { at(u"/full").removeFolder(); });
  EXPECT_TRUE(at(u"/full/sub").folderExists()) << "a refused removal must change nothing";
  expectError(ErrorCode::NotFound, loc(u"/empty"), [&] { at(u"/empty").removeFolder(); });
  expectError(ErrorCode::NotFound, loc(u"/file"), [&] { at(u"/file").removeFolder(); });
  EXPECT_TRUE(at(u"/file").fileExists());
  expectError(ErrorCode::OperationRefused, root().getLocation(), [&] { root().removeFolder(); });
  EXPECT_TRUE(root().folderExists());
}

TEST_P(ProviderContract, RemoveFolderRecursively) {
  makeFolders({u"/tree/a/b", u"/keep"});
  writeFile(u"/tree/top.txt", "1");
  writeFile(u"/tree/a/b/deep.txt", "2");
  writeFile(u"/keep/k.txt", "3");
  writeFile(u"/file", "4");

  at(u"/tree").removeFolderRecursively();
  EXPECT_FALSE(at(u"/tree").folderExists());
  EXPECT_FALSE(at(u"/tree/a/b/deep.txt").fileExists());
  EXPECT_EQ("3", readFile(at(u"/keep/k.txt")));

  expectError(ErrorCode::NotFound, loc(u"/tree"), [&] { at(u"/tree").removeFolderRecursively(); });
  expectError(ErrorCode::NotFound, loc(u"/file"), [&] { at(u"/file").removeFolderRecursively(); });
  EXPECT_TRUE(at(u"/file").fileExists());
  expectError(ErrorCode::OperationRefused, root().getLocation(),
              [&] { root().removeFolderRecursively(); });
  EXPECT_EQ((std::vector<std::string>{"file", "keep"}), names(root().listAll()))
      << "a refused removal of the root must change nothing";
}

// A move renames, is a no-op onto itself, and replaces a file where the policy allows it.
TEST_P(ProviderContract, MoveFile) {
  at(u"/dir").createFolder();
  writeFile(u"/a.txt", "alpha");

  at(u"/a.txt").moveFile(loc(u"/dir/renamed.txt"), ReplacementPolicy::Fail);
  EXPECT_FALSE(at(u"/a.txt").fileExists());
  EXPECT_EQ("alpha", readFile(at(u"/dir/renamed.txt")));

  // Moving a file onto itself is a no-op, whatever the policy.
  at(u"/dir/renamed.txt").moveFile(loc(u"/dir/renamed.txt"), ReplacementPolicy::Overwrite);
  at(u"/dir/renamed.txt").moveFile(loc(u"/dir/renamed.txt"), ReplacementPolicy::Fail);
  EXPECT_EQ("alpha", readFile(at(u"/dir/renamed.txt")));

  for (auto policy : kReplacingPolicies) {
    SCOPED_TRACE(policyName(policy));
    writeFile(u"/src.txt", "new content");
    writeFile(u"/dst.txt", "old, longer content");
    at(u"/src.txt").moveFile(loc(u"/dst.txt"), policy);
    EXPECT_FALSE(at(u"/src.txt").fileExists());
    EXPECT_EQ("new content", readFile(at(u"/dst.txt")));
  }
}

// Moving and copying a file are refused alike, and a refused one changes nothing.
TEST_P(ProviderContract, MoveAndCopyFileRefusals) {
  writeFile(u"/src.txt", "source");
  writeFile(u"/dst.txt", "destination");
  at(u"/dir").createFolder();
  using Operation =
      std::function<void(const fsp::StorageItem&, const std::u16string&, ReplacementPolicy)>;
  const std::pair<const char*, Operation> operations[] = {
      {"moveFile", [&](const auto& item, const auto& to, auto p) { item.moveFile(loc(to), p); }},
      {"copyFile", [&](const auto& item, const auto& to, auto p) { item.copyFile(loc(to), p); }}};
  const auto src = at(u"/src.txt");
  const auto overwrite = ReplacementPolicy::Overwrite;
  for (const auto& [name, op] : operations) {
    SCOPED_TRACE(name);
    expectError(ErrorCode::NotFound, loc(u"/none.txt"),
                [&] { op(at(u"/none.txt"), u"/x.txt", overwrite); });
    expectError(ErrorCode::NotFound, loc(u"/dir"), [&] { op(at(u"/dir"), u"/x", overwrite); });
    expectError(ErrorCode::NotFound, loc(u"/missing"),
                [&] { op(src, u"/missing/x.txt", overwrite); });
    expectError(ErrorCode::AlreadyExists, loc(u"/dir"), [&] { op(src, u"/dir", overwrite); });
    for (auto policy : kRefusingPolicies) {
      SCOPED_TRACE(policyName(policy));
      expectError(ErrorCode::AlreadyExists, loc(u"/dst.txt"),
                  [&] { op(src, u"/dst.txt", policy); });
    }
  }
  EXPECT_EQ("source", readFile(src));
  EXPECT_EQ("destination", readFile(at(u"/dst.txt")));
  EXPECT_FALSE(at(u"/x.txt").fileExists());
  EXPECT_FALSE(at(u"/x").fileExists());
  EXPECT_TRUE(at(u"/dir").folderExists());
}

// A file or folder moved or copied onto itself, under its own name or (where names ignore case)
// another spelling of it, keeps everything: a copy changes nothing (emptying the destination
// would empty the source), a move takes the new spelling.
TEST_P(ProviderContract, MovesAndCopiesOntoTheSameEntry) {
  std::vector<std::u16string> spellings = {u"/d/f.txt"};
  if (root().getFilenameSensitivity() == fsp::FilenameSensitivity::CaseInsensitive) {
    spellings.push_back(u"/d/F.TXT");
  }
  const std::u16string folders[] = {u"/d", u"/D"};
  for (const auto& spelling : spellings) {
    SCOPED_TRACE(fsp::StorageIRI(u"", spelling).toString());
    at(u"/d").createFolder();
    writeFile(u"/d/f.txt", "bytes to keep");
    for (auto policy : kReplacingPolicies) {
      SCOPED_TRACE(policyName(policy));
      at(u"/d/f.txt").copyFile(loc(spelling), policy);
      at(u"/d/f.txt").moveFile(loc(spelling), policy);
      at(spelling).moveFile(loc(u"/d/f.txt"), policy);
    }
    for (const auto& folder : folders) {
      if (folder != u"/d" && spellings.size() == 1) continue;
      for (auto policy : {ReplacementPolicy::Fail, ReplacementPolicy::Overwrite,
                          ReplacementPolicy::Merge, ReplacementPolicy::Exclusive}) {
        SCOPED_TRACE(policyName(policy));
        at(u"/d").moveFolder(loc(folder), policy);
        at(folder).moveFolder(loc(u"/d"), policy);
      }
    }
    underTest().settle();
    for (const auto& store : {std::optional(root()), underTest().backingStore()}) {
      if (!store) continue;
      EXPECT_EQ("bytes to keep", readFile(below(*store, u"/d/f.txt")));
      EXPECT_EQ((std::vector<std::string>{"d"}), names(store->listAll()));
    }
    at(u"/d").removeFolderRecursively();
  }
}

TEST_P(ProviderContract, MoveFolderCarriesTheSubtree) {
  makeFolders({u"/src/sub", u"/target"});
  writeFile(u"/src/a.txt", "a");
  writeFile(u"/src/sub/b.txt", "b");

  at(u"/src").moveFolder(loc(u"/target/moved"), ReplacementPolicy::Fail);
  EXPECT_FALSE(at(u"/src").folderExists());
  EXPECT_EQ("a", readFile(at(u"/target/moved/a.txt")));
  EXPECT_EQ("b", readFile(at(u"/target/moved/sub/b.txt")));
  EXPECT_EQ((std::vector<std::string>{"a.txt", "sub"}), names(at(u"/target/moved").listAll()));
}

TEST_P(ProviderContract, MoveFolderRefusals) {
  makeFolders({u"/src/sub", u"/other"});
  writeFile(u"/src/a.txt", "a");
  writeFile(u"/file", "f");
  const auto src = at(u"/src");

  expectError(ErrorCode::NotFound, loc(u"/none"),
              [&] { at(u"/none").moveFolder(loc(u"/x"), ReplacementPolicy::Merge); });
  expectError(ErrorCode::NotFound, loc(u"/file"),
              [&] { at(u"/file").moveFolder(loc(u"/x"), ReplacementPolicy::Merge); });
  expectError(ErrorCode::OperationRefused, root().getLocation(),
              [&] { root().moveFolder(loc(u"/x"), ReplacementPolicy::Merge); });
  expectError(ErrorCode::OperationRefused, std::nullopt,
              [&] { src.moveFolder(loc(u"/src/sub/inside"), ReplacementPolicy::Merge); });
  expectError(ErrorCode::OperationRefused, std::nullopt,
              [&] { src.moveFolder(loc(u"/src/inside"), ReplacementPolicy::Fail); });
  expectError(ErrorCode::NotFound, loc(u"/missing"),
              [&] { src.moveFolder(loc(u"/missing/x"), ReplacementPolicy::Merge); });
  expectError(ErrorCode::AlreadyExists, loc(u"/file"),
              [&] { src.moveFolder(loc(u"/file"), ReplacementPolicy::Merge); });
  for (auto policy : kRefusingPolicies) {
    SCOPED_TRACE(policyName(policy));
    expectError(ErrorCode::AlreadyExists, loc(u"/other"),
                [&] { src.moveFolder(loc(u"/other"), policy); });
  }
  EXPECT_EQ("a", readFile(at(u"/src/a.txt"))) << "a refused move must change nothing";
  EXPECT_TRUE(at(u"/src/sub").folderExists());
  EXPECT_FALSE(at(u"/src/sub/inside").folderExists());
  EXPECT_TRUE(at(u"/other").folderExists());
  EXPECT_EQ("f", readFile(at(u"/file")));
}

TEST_P(ProviderContract, MoveFolderOverwriteReplacesOnlyAnEmptyFolder) {
  for (auto policy : {ReplacementPolicy::Overwrite, ReplacementPolicy::OverwriteIfNewer}) {
    SCOPED_TRACE(policyName(policy));
    makeFolders({u"/src", u"/empty", u"/full"});
    writeFile(u"/src/a.txt", "a");
    writeFile(u"/full/x.txt", "x");

    expectError(ErrorCode::AlreadyExists, loc(u"/full"),
                [&] { at(u"/src").moveFolder(loc(u"/full"), policy); });
    EXPECT_EQ((std::vector<std::string>{"x.txt"}), names(at(u"/full").listAll()));
    EXPECT_EQ("a", readFile(at(u"/src/a.txt")));

    at(u"/src").moveFolder(loc(u"/empty"), policy);
    EXPECT_FALSE(at(u"/src").folderExists());
    EXPECT_EQ("a", readFile(at(u"/empty/a.txt")));

    at(u"/empty").removeFolderRecursively();
    at(u"/full").removeFolderRecursively();
  }
}

TEST_P(ProviderContract, MoveFolderMergeCombinesTrees) {
  makeFolders({u"/src/sub", u"/dst/sub"});
  writeFile(u"/src/same.txt", "from source");
  writeFile(u"/src/new.txt", "new");
  writeFile(u"/src/sub/inner.txt", "inner");
  writeFile(u"/dst/same.txt", "from destination, longer");
  writeFile(u"/dst/keep.txt", "keep");
  writeFile(u"/dst/sub/other.txt", "other");

  at(u"/src").moveFolder(loc(u"/dst"), ReplacementPolicy::Merge);
  EXPECT_FALSE(at(u"/src").folderExists());
  EXPECT_EQ((std::vector<std::string>{"keep.txt", "new.txt", "same.txt", "sub"}),
            names(at(u"/dst").listAll()));
  EXPECT_EQ("from source", readFile(at(u"/dst/same.txt")));
  EXPECT_EQ("keep", readFile(at(u"/dst/keep.txt")));
  EXPECT_EQ("new", readFile(at(u"/dst/new.txt")));
  EXPECT_EQ((std::vector<std::string>{"inner.txt", "other.txt"}), names(at(u"/dst/sub").listAll()));
}

TEST_P(ProviderContract, CopyFile) {
  const std::string big = patternBytes(300 * 1024 + 7);
  writeFile(u"/big.bin", big);
  at(u"/dir").createFolder();

  at(u"/big.bin").copyFile(loc(u"/dir/copy.bin"), ReplacementPolicy::Fail);
  EXPECT_EQ(big, readFile(at(u"/dir/copy.bin")));
  EXPECT_EQ(big, readFile(at(u"/big.bin"))) << "the source stays";

  // The copy is independent of its source.
  writeFile(u"/big.bin", "changed");
  EXPECT_EQ(big.size(), readFile(at(u"/dir/copy.bin")).size());

  for (auto policy : kReplacingPolicies) {
    SCOPED_TRACE(policyName(policy));
    writeFile(u"/dst.txt", "old, longer content");
    at(u"/big.bin").copyFile(loc(u"/dst.txt"), policy);
    EXPECT_EQ("changed", readFile(at(u"/dst.txt")));
  }
}

}  // namespace contract
