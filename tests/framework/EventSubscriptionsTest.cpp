#include <foundation/log/LogCapture.h>
#include <foundation/storage/provider/EventSubscriptions.h>

#include <gtest/gtest.h>

#include <stdexcept>

using namespace foundation::storage::provider;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;

namespace {

struct Heard {
  std::vector<std::u16string> paths;
  EventPublisher publisher() {
    return [this](Kind, const StorageIRI& location, const StorageIRI&, EntryType,
                  boost::property_tree::ptree) { paths.push_back(location.getPath()); };
  }
};

StorageIRI mem(const char16_t* path) { return StorageIRI(u"mem", path); }

}  // namespace

// Subscriptions match by path, whatever the scheme (the overlay's locations hear its store's).
TEST(EventSubscriptions, FolderHearsItselfAndDirectChildrenUnlessRecursive) {
  EventSubscriptions table;
  Heard flat, deep;
  table.addFolder(mem(u"/a"), flat.publisher(), {}, RecursiveFileWatching::No);
  table.addFolder(StorageIRI(u"overlay", u"/a"), deep.publisher(), {}, RecursiveFileWatching::Yes);
  for (auto path : {u"/a", u"/a/f", u"/a/b/g", u"/ab/x"}) {
    table.deliver(Kind::Appeared, mem(path), mem(path), EntryType::File);
  }
  EXPECT_EQ(flat.paths, (std::vector<std::u16string>{u"/a", u"/a/f"}));
  EXPECT_EQ(deep.paths, (std::vector<std::u16string>{u"/a", u"/a/f", u"/a/b/g"}));
}

TEST(EventSubscriptions, FileHearsOnlyItselfAndOnlyTheKindsItAsked) {
  EventSubscriptions table;
  Heard heard;
  table.addFile(mem(u"/a/f"), heard.publisher(), {Kind::Disappeared});
  table.deliver(Kind::Changed, mem(u"/a/f"), mem(u"/a/f"), EntryType::File);
  table.deliver(Kind::Disappeared, mem(u"/a/g"), mem(u"/a/g"), EntryType::File);
  table.deliver(Kind::Disappeared, mem(u"/a/f"), mem(u"/a/f"), EntryType::File);
  EXPECT_EQ(heard.paths, (std::vector<std::u16string>{u"/a/f"}));
}

TEST(EventSubscriptions, RescanOfAnAncestorReachesEverySubscriptionBelow) {
  EventSubscriptions table;
  Heard file, folder;
  table.addFile(mem(u"/a/b/f"), file.publisher(), {});
  table.addFolder(mem(u"/a/b"), folder.publisher(), {}, RecursiveFileWatching::No);
  table.deliver(Kind::Rescan, mem(u"/"), mem(u"/"), EntryType::Unknown);
  EXPECT_EQ(file.paths.size(), 1u);
  EXPECT_EQ(folder.paths.size(), 1u);
}

// Each end of a move is matched by its own location, never by the other end it names.
TEST(EventSubscriptions, EachEndOfAMoveIsHeardWhereItHappened) {
  EventSubscriptions table;
  Heard source, destination, file;
  table.addFolder(mem(u"/from"), source.publisher(), {Kind::Disappeared},
                  RecursiveFileWatching::No);
  table.addFolder(mem(u"/to"), destination.publisher(), {Kind::Appeared},
                  RecursiveFileWatching::No);
  table.addFile(mem(u"/to/f"), file.publisher(), {});
  table.deliver(Kind::Disappeared, mem(u"/from/f"), mem(u"/to/f"), EntryType::File);
  table.deliver(Kind::Appeared, mem(u"/to/f"), mem(u"/from/f"), EntryType::File);
  EXPECT_EQ(source.paths, (std::vector<std::u16string>{u"/from/f"}));
  EXPECT_EQ(destination.paths, (std::vector<std::u16string>{u"/to/f"}));
  EXPECT_EQ(file.paths, (std::vector<std::u16string>{u"/to/f"}));
}

TEST(EventSubscriptions, StoppingRemovesEverySubscriptionOfTheLocation) {
  EventSubscriptions table;
  Heard heard;
  table.addFolder(mem(u"/a"), heard.publisher(), {}, RecursiveFileWatching::No);
  table.addFile(mem(u"/a"), heard.publisher(), {});
  EXPECT_TRUE(table.remove(mem(u"/a")));
  EXPECT_FALSE(table.remove(mem(u"/a")));
  EXPECT_TRUE(table.empty());
  table.deliver(Kind::Appeared, mem(u"/a/f"), mem(u"/a/f"), EntryType::File);
  EXPECT_TRUE(heard.paths.empty());
}

TEST(EventSubscriptions, AFailingSubscriberIsLoggedAndDoesNotStopTheOthers) {
  foundation::log::LogCapture capture(foundation::log::error);
  EventSubscriptions table;
  Heard heard;
  table.addFolder(
      mem(u"/a"),
      [](Kind, const StorageIRI&, const StorageIRI&, EntryType, boost::property_tree::ptree) {
        throw std::runtime_error("subscriber bug");
      },
      {}, RecursiveFileWatching::No);
  table.addFolder(mem(u"/a"), heard.publisher(), {}, RecursiveFileWatching::No);
  table.deliver(Kind::Appeared, mem(u"/a/f"), mem(u"/a/f"), EntryType::File);
  EXPECT_EQ(heard.paths.size(), 1u);
  EXPECT_EQ(capture.count("subscriber bug"), 1u);
}
