// The fixture, the shared helpers and the whole-store behaviour of the contract suite
// (root, locations, storage information, name sensitivity, shutdown).
#include "ProviderContract.h"

#include <foundation/text/Unicode.h>

#include <algorithm>
#include <sstream>

namespace contract {

using fsp::ErrorCode;
using fsp::StorageIRI;
using fsp::StorageItem;

ProviderUnderTest::~ProviderUnderTest() = default;

void PrintTo(const ContractParam& param, std::ostream* out) { *out << param.name; }

std::string paramName(const ::testing::TestParamInfo<ContractParam>& info) {
  return info.param.name;
}

void ProviderContract::SetUp() {
  underTest_ = GetParam().make();
  ASSERT_TRUE(underTest_) << "the instantiation made no provider";
  if (const auto why = underTest_->skipReason(); !why.empty()) GTEST_SKIP() << why;
  root_ = underTest_->root();
  ASSERT_TRUE(root_->getProvider()) << "the root item has no provider";
}

void ProviderContract::TearDown() { dropProvider(); }

void ProviderContract::dropProvider() {
  root_.reset();
  underTest_.reset();
}

StorageItem ProviderContract::at(const std::u16string& path) const {
  return StorageItem(*root_, path);
}

void ProviderContract::writeFile(const std::u16string& path, std::string_view bytes) const {
  fsp::test::writeFile(at(path), bytes);
}

void ProviderContract::makeFolders(const std::vector<std::u16string>& paths) const {
  for (const auto& path : paths) {
    if (!at(path).folderExists()) at(path).createFolderRecursive();
  }
}

StorageItem below(const StorageItem& base, const std::u16string& relative) {
  return StorageItem(base.getProvider(), StorageIRI(base.getLocation(), relative));
}

std::vector<fsp::FolderEntry> rows(fsp::FolderEntryIteratorPtr it) {
  if (!it) {
    ADD_FAILURE() << "listing returned no iterator";
    return {};
  }
  return fsp::collectRows(*it);
}

std::vector<std::string> names(fsp::FolderEntryIteratorPtr it) {
  std::vector<std::string> result;
  for (const auto& row : rows(std::move(it))) {
    result.push_back(foundation::text::toUtf8(row.getName()));
  }
  std::sort(result.begin(), result.end());
  return result;
}

std::vector<std::string> sortedUtf8(const fsp::NameList& list) {
  std::vector<std::string> result;
  for (const auto& name : list) result.push_back(foundation::text::toUtf8(name));
  std::sort(result.begin(), result.end());
  return result;
}

std::string patternBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 2463534242u;
  for (auto& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>(state & 0xff);
  }
  return bytes;
}

boost::posix_time::ptime toSeconds(const boost::posix_time::ptime& time) {
  return boost::posix_time::ptime(time.date(),
                                  boost::posix_time::seconds(time.time_of_day().total_seconds()));
}

void expectError(ErrorCode code, const std::optional<StorageIRI>& location,
                 const std::function<void()>& operation, CallSite where) {
  std::ostringstream expected;
  expected << code;
  if (location) expected << " at " << *location;
  try {
    operation();
    ADD_FAILURE_AT(where.file, where.line) << "expected " << expected.str() << ", got nothing";
  } catch (const fsp::Exception& e) {
    if (e.getErrorCode() != code || (location && e.getLocation() != *location)) {
      ADD_FAILURE_AT(where.file, where.line)
          << "expected " << expected.str() << ", caught: " << e.what();
    }
  } catch (const std::exception& e) {
    ADD_FAILURE_AT(where.file, where.line)
        << "expected " << expected.str() << ", caught another exception: " << e.what();
  }
}

// --- whole-store behaviour ---

TEST_P(ProviderContract, RootAlwaysExists) {
  EXPECT_EQ(u"/", root().getLocation().getPath());
  EXPECT_TRUE(root().folderExists());
  EXPECT_FALSE(root().fileExists());
  EXPECT_NO_THROW(root().getFolderAttributes());
  expectError(ErrorCode::NotFound, root().getLocation(), [&] { root().getFileAttributes(); });
  EXPECT_TRUE(names(root().listAll()).empty()) << "a fresh store must be empty";

  // Emptying the store never takes the root with it.
  writeFile(u"/a.txt", "x");
  at(u"/a.txt").removeFile();
  EXPECT_TRUE(root().folderExists());
}

TEST_P(ProviderContract, ForeignSchemeIsRefused) {
  const StorageIRI foreign(u"contract-foreign", u"/a.txt");
  const StorageIRI foreignFolder(u"contract-foreign", u"/dir");
  writeFile(u"/a.txt", "kept");

  expectError(ErrorCode::InvalidLocation, foreign, [&] { provider().createFile(foreign); });
  expectError(ErrorCode::InvalidLocation, foreignFolder,
              [&] { provider().createFolder(foreignFolder); });
  expectError(ErrorCode::InvalidLocation, foreign, [&] { provider().removeFile(foreign); });
  expectError(ErrorCode::InvalidLocation, foreign, [&] { provider().fileExists(foreign); });
  expectError(ErrorCode::InvalidLocation, foreign,
              [&] { provider().openStream(foreign, fsp::ByteStreamOpenOptions::overwrite()); });
  EXPECT_EQ("kept", readFile(at(u"/a.txt"))) << "a refused location must not reach the store";
  EXPECT_FALSE(at(u"/dir").folderExists());
}

TEST_P(ProviderContract, StorageInformationIsPlausible) {
  writeFile(u"/a.bin", patternBytes(4096));
  const auto info = root().getProviderStorageInfo();
  EXPECT_GT(info.getStorageCapacity(), 0u);
  EXPECT_LE(info.getSpaceOccupied(), info.getStorageCapacity());
}

TEST_P(ProviderContract, NamesCompareAsTheReportedSensitivitySays) {
  const auto sensitivity = root().getFilenameSensitivity();
  writeFile(u"/Name.txt", "upper");
  if (sensitivity == fsp::FilenameSensitivity::CaseSensitive) {
    at(u"/name.txt").createFile();
    EXPECT_EQ("upper", readFile(at(u"/Name.txt")));
    EXPECT_EQ("", readFile(at(u"/name.txt")));
    EXPECT_EQ((std::vector<std::string>{"Name.txt", "name.txt"}), names(root().listAll()));
  } else {
    expectError(ErrorCode::AlreadyExists, loc(u"/name.txt"),
                [&] { at(u"/name.txt").createFile(); });
    EXPECT_TRUE(at(u"/NAME.TXT").fileExists());
    EXPECT_EQ("upper", readFile(at(u"/nAmE.txt")));
  }
}

TEST_P(ProviderContract, ShutdownTwiceIsHarmless) {
  writeFile(u"/a.txt", "x");
  EXPECT_NO_THROW(root().shutdownProvider());
  EXPECT_NO_THROW(root().shutdownProvider());
}

}  // namespace contract
