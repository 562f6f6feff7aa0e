#include <foundation/storage/provider/StorageIRI.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

using foundation::network::IRI;
using foundation::network::IRIArgs;
using foundation::storage::provider::StorageIRI;

TEST(StorageIRI, PathsAreKeptResolved) {
  EXPECT_EQ(StorageIRI(u"mem", u"/a//./b/../c/").getPath(), u"/a/c");
  EXPECT_EQ(StorageIRI(u"mem", u"a/b").getPath(), u"/a/b");
  // ".." never climbs above the root.
  EXPECT_EQ(StorageIRI(u"mem", u"/../../x").getPath(), u"/x");
  EXPECT_EQ(StorageIRI(u"mem", u"").getPath(), u"/");
  EXPECT_EQ(StorageIRI(u"mem", u"/a/b").getResolvedIRI(), StorageIRI(u"mem", u"/a/./b"));
}

TEST(StorageIRI, NameParentAndComponents) {
  const StorageIRI file(u"mem", u"/docs/report.txt");
  EXPECT_EQ(file.getName(), u"report.txt");
  EXPECT_EQ(file.getParent(), StorageIRI(u"mem", u"/docs"));
  EXPECT_EQ(file.getParent().getPath(), u"/docs");
  EXPECT_EQ(file.getParent().getParent().getPath(), u"/");
  EXPECT_TRUE(file.hasParent());

  const StorageIRI root(u"mem", u"/");
  EXPECT_FALSE(root.hasParent());
  EXPECT_EQ(root.getName(), u"");
  EXPECT_EQ(root.getParent(), root);

  const auto view = file.getPathView();
  EXPECT_EQ(std::vector<std::u16string>(view.begin(), view.end()),
            (std::vector<std::u16string>{u"docs", u"report.txt"}));
}

TEST(StorageIRI, ChildConstruction) {
  const StorageIRI folder(u"mem", u"/docs");
  EXPECT_EQ(StorageIRI(folder, u"a.txt").getPath(), u"/docs/a.txt");
  // A child name holding "/" is a relative path; "/" alone names the folder again.
  EXPECT_EQ(StorageIRI(folder, u"x/y").getPath(), u"/docs/x/y");
  EXPECT_EQ(StorageIRI(folder, u"/"), folder);
}

TEST(StorageIRI, TextFormRoundTrips) {
  const StorageIRI simple(u"file", u"/a b/ü.txt");
  EXPECT_EQ(simple.toString(), "file:/a b/ü.txt");
  EXPECT_EQ(StorageIRI(u"file:/a b/ü.txt"), simple);
  // Text without a scheme is a path.
  EXPECT_EQ(StorageIRI(std::u16string(u"/x/y")).getScheme(), u"");
  EXPECT_EQ(StorageIRI(std::u16string(u"/x:y")).getPath(), u"/x:y");
  // So does a generic IRI.
  EXPECT_EQ(StorageIRI(IRI(IRIArgs{"mem", "", "/a/b", "", ""})), StorageIRI(u"mem", u"/a/b"));
}

TEST(StorageIRI, ComposedSchemeNamesTheInnerLocation) {
  const StorageIRI plain(u"mem:/x");
  EXPECT_FALSE(plain.hasInnerIRI());
  EXPECT_THROW(plain.getInnerIRI(), std::logic_error);

  const StorageIRI composed(u"a+b:/x/y");
  ASSERT_TRUE(composed.hasInnerIRI());
  EXPECT_EQ(composed.getScheme(), u"a");
  EXPECT_EQ(composed.getInnerIRI().toString(), "b:/x/y");
  EXPECT_EQ(composed.getPath(), u"/x/y");
  EXPECT_EQ(composed.toString(), "a+b:/x/y");

  // With several "+", the inner location is what follows the last one.
  const StorageIRI nested(u"a+b+c:/p");
  EXPECT_EQ(nested.getScheme(), u"a+b");
  EXPECT_EQ(nested.getInnerIRI().toString(), "c:/p");
}

TEST(StorageIRI, ComposedChildrenExtendTheInnerLocation) {
  const StorageIRI inner(u"mem", u"/");
  const StorageIRI root(u"overlay", StorageIRI(inner, u"/"), u"/");
  const StorageIRI child(root, u"a.txt");
  EXPECT_EQ(child.getPath(), u"/a.txt");
  EXPECT_EQ(child.getInnerIRI(), StorageIRI(u"mem", u"/a.txt"));
  EXPECT_EQ(child.toString(), "overlay+mem:/a.txt");
  EXPECT_EQ(StorageIRI(u"overlay+mem:/a.txt"), child);
  EXPECT_EQ(child.getParent(), root);
  EXPECT_EQ(child.getParent().toString(), "overlay+mem:/");
}

TEST(StorageIRI, OrderIsTotalAndConsistentWithEquality) {
  std::vector<StorageIRI> all = {StorageIRI(u"mem", u"/b"),     StorageIRI(u"mem", u"/a/b"),
                                 StorageIRI(u"mem", u"/a"),     StorageIRI(u"file", u"/a"),
                                 StorageIRI(u"mem", u"/ab"),    StorageIRI(u"mem", u"/"),
                                 StorageIRI(u"overlay+mem:/a"), StorageIRI(u"overlay+file:/a")};
  for (const auto& a : all) {
    EXPECT_FALSE(a < a);
    for (const auto& b : all) {
      EXPECT_EQ(a == b, !(a < b) && !(b < a)) << a << " vs " << b;
      if (a < b) {
        EXPECT_FALSE(b < a);
      }
    }
  }
  std::sort(all.begin(), all.end());
  // Components compare one by one: "/a" < "/a/b" < "/ab" < "/b".
  std::set<StorageIRI> mem;
  for (const auto& iri : all) {
    if (iri.getScheme() == u"mem" && !iri.hasInnerIRI()) mem.insert(iri);
  }
  std::vector<std::u16string> paths;
  for (const auto& iri : mem) paths.push_back(iri.getPath());
  EXPECT_EQ(paths, (std::vector<std::u16string>{u"/", u"/a", u"/a/b", u"/ab", u"/b"}));
}

TEST(StorageIRI, AncestryIsByWholeComponents) {
  const StorageIRI a(u"mem", u"/a");
  EXPECT_TRUE(a.isAncestorOf(StorageIRI(u"mem", u"/a/b")));
  EXPECT_TRUE(a.isAncestorOf(StorageIRI(u"mem", u"/a/b/c")));
  EXPECT_FALSE(a.isAncestorOf(StorageIRI(u"mem", u"/ab")));
  EXPECT_FALSE(a.isAncestorOf(a));
  EXPECT_FALSE(a.isAncestorOf(StorageIRI(u"file", u"/a/b")));
  EXPECT_TRUE(StorageIRI(u"mem", u"/").isAncestorOf(a));
  EXPECT_FALSE(StorageIRI(u"mem", u"/a/b").isAncestorOf(a));
}
