// What the file provider does with the local file system beyond the shared contract: errno
// translation, stat-based attributes, statvfs, the merge's check before it changes anything
// (merging itself, and user xattrs reported without their prefix, are the contract's),
// registration.
#include "../ProviderTestSupport.h"

#include <foundation/storage/provider/file/ErrnoTranslation.h>
#include <foundation/storage/provider/file/FileProvider.h>
#include <foundation/storage/provider/file/FileProviderFactory.h>
#include <foundation/text/Unicode.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace foundation::storage::provider::file::test {
namespace {

using namespace ::foundation::storage::provider::test;

StorageIRI at(const std::u16string& path) { return StorageIRI(u"file", path); }

unsigned modeOf(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? (status.st_mode & 0777) : ~0u;
}

class FileProviderLocalTest : public ::testing::Test {
 protected:
  fs::path root() const { return temp_.path(); }

  TempDir temp_;
  std::shared_ptr<FileProvider> provider_ = std::make_shared<FileProvider>(temp_.path());
};

TEST(ErrnoTranslationTest, MapsEachErrnoToItsCodeAndNamesPathAndCause) {
  const std::pair<int, ErrorCode> table[] = {
      {ENOENT, ErrorCode::NotFound},      {ENOTDIR, ErrorCode::NotFound},
      {EEXIST, ErrorCode::AlreadyExists}, {ENOTEMPTY, ErrorCode::FolderNotEmpty},
      {EACCES, ErrorCode::AccessDenied},  {EPERM, ErrorCode::AccessDenied},
      {ENOSPC, ErrorCode::QuotaExceeded}, {EDQUOT, ErrorCode::QuotaExceeded},
      {EIO, ErrorCode::IOError},          {ENAMETOOLONG, ErrorCode::IOError},
      {EFBIG, ErrorCode::QuotaExceeded},
  };
  for (const auto& [error, code] : table) EXPECT_EQ(code, errorCodeFromErrno(error)) << error;

  const Exception e = errnoException(ENOENT, at(u"/a"), "open", "/srv/a");
  EXPECT_EQ(ErrorCode::NotFound, e.getErrorCode());
  EXPECT_EQ(at(u"/a"), e.getLocation());
  EXPECT_NE(std::string(e.what()).find("open '/srv/a': No such file or directory"),
            std::string::npos)
      << e.what();
}

TEST_F(FileProviderLocalTest, SystemErrorsOutsideTheContractChecksAreTranslated) {
  const StorageIRI tooLong = at(u"/" + std::u16string(300, u'n'));
  const auto create = [&] { provider_->createFile(tooLong); };
  EXPECT_EQ(std::pair(ErrorCode::IOError, tooLong), refusalOf(create));
  EXPECT_THAT(whatOf<Exception>(create), ::testing::HasSubstr("File name too long"));
}

TEST_F(FileProviderLocalTest, ConstructionRequiresAnExistingDirectory) {
  writeText(root() / "plain.txt", "x");
  for (const fs::path& bad : {root() / "missing", root() / "plain.txt"}) {
    const auto e = thrown<Exception>([&] { FileProvider provider(bad); });
    ASSERT_TRUE(e) << bad;
    EXPECT_EQ(ErrorCode::NotFound, e->getErrorCode());
    EXPECT_THAT(e->what(), ::testing::HasSubstr(bad.string()));
  }
}

TEST_F(FileProviderLocalTest, TimesKeepMicrosecondsAndWritableFollowsTheWriteBits) {
  provider_->createFolder(at(u"/d"));
  provider_->createFile(at(u"/d/f"));
  const posix_time::ptime time(boost::gregorian::date(2021, 3, 4),
                               posix_time::hours(5) + posix_time::microseconds(123456789));
  provider_->setLastModified(at(u"/d/f"), time);
  provider_->setLastModified(at(u"/d"), time);
  EXPECT_EQ(time, provider_->getFileAttributes(at(u"/d/f")).getLastModified());
  EXPECT_EQ(time, provider_->getFolderAttributes(at(u"/d")).getLastModified());

  ::chmod((root() / "d" / "f").c_str(), 0666);
  provider_->setWritable(at(u"/d/f"), false);
  EXPECT_EQ(0444u, modeOf(root() / "d" / "f"));
  EXPECT_FALSE(provider_->getFileAttributes(at(u"/d/f")).isWritable());
  provider_->setWritable(at(u"/d/f"), true);
  EXPECT_EQ(0644u, modeOf(root() / "d" / "f"));
  EXPECT_TRUE(provider_->getFileAttributes(at(u"/d/f")).isWritable());
}

TEST_F(FileProviderLocalTest, StorageInformationComesFromStatvfs) {
  struct statvfs info {};
  ASSERT_EQ(0, ::statvfs(root().c_str(), &info));
  const auto storage = provider_->getProviderStorageInfo(FileProvider::rootLocation());
  EXPECT_EQ(std::uint64_t{info.f_blocks} * info.f_frsize, storage.getStorageCapacity());
  EXPECT_GT(storage.getSpaceOccupied(), 0u);
  EXPECT_LE(storage.getSpaceOccupied(), storage.getStorageCapacity());
}

TEST_F(FileProviderLocalTest, MergeRefusesAFolderMeetingAFileBeforeChangingAnything) {
  fs::create_directories(root() / "a" / "d");
  writeText(root() / "a" / "x.txt", "new");
  fs::create_directories(root() / "b");
  writeText(root() / "b" / "x.txt", "old");
  writeText(root() / "b" / "d", "a file where a has a folder");

  EXPECT_EQ(std::pair(ErrorCode::AlreadyExists, at(u"/b/d")), refusalOf([&] {
              provider_->moveFolder(at(u"/a"), at(u"/b"), ReplacementPolicy::Merge);
            }));
  EXPECT_EQ("new", readText(root() / "a" / "x.txt"));
  EXPECT_EQ("old", readText(root() / "b" / "x.txt"));
}

TEST_F(FileProviderLocalTest, TruncationChangesTheFileInPlaceAndLeavesAHole) {
  writeText(root() / "f", "abcdef");
  const int open = ::open((root() / "f").c_str(), O_RDONLY);
  provider_->truncateToSize(at(u"/f"), 64 << 20);
  struct stat seen {};
  ::fstat(open, &seen), ::close(open);
  EXPECT_EQ(seen.st_size, 64 << 20);
  EXPECT_LT(seen.st_blocks * 512, 1 << 20);
}

TEST_F(FileProviderLocalTest, CopyOntoAnotherNameOfTheSameFileKeepsItsBytes) {
  writeText(root() / "f.txt", "precious");
  fs::create_hard_link(root() / "f.txt", root() / "g.txt");
  provider_->copyFile(at(u"/f.txt"), at(u"/g.txt"), ReplacementPolicy::Overwrite);
  EXPECT_EQ("precious", readText(root() / "f.txt"));
}

TEST_F(FileProviderLocalTest, RegisteredFactoryOpensTheContainerDirectory) {
  writeText(root() / "hello.txt", "hi");
  ProviderRegistry registry;
  registerFileProvider(registry);
  ASSERT_NE(nullptr, registry.findFactory(u"file"));

  const StorageItem container(StorageIRI(u"file", text::toUtf16(root().string())));
  EXPECT_EQ(FileProvider::rootLocation(),
            registry.findFactory(u"file")->getRootLocation(container));
  const StorageItem opened = registry.open(u"file", container);
  EXPECT_EQ(FileProvider::rootLocation(), opened.getLocation());
  EXPECT_TRUE(StorageItem(opened, u"/hello.txt").fileExists());
}

}  // namespace
}  // namespace foundation::storage::provider::file::test
