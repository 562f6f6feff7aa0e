// BodyDisposal: a discarded body leaves its name at once and is deleted later by the thread;
// leftovers of an earlier process are swept; a body that cannot be set aside is deleted at
// once; draining leaves the cache root as it was.
#include "core/contentcache/BodyDisposal.h"

#include "CoreTestSupport.h"

#include <foundation/log/LogCapture.h>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>
#include <boost/filesystem/fstream.hpp>

namespace storage::overlayprovider {
namespace {

namespace fs = boost::filesystem;

void writeFile(const fs::path& path) {
  fs::ofstream out(path);
  out << "bytes";
}

std::size_t filesIn(const fs::path& folder) {
  boost::system::error_code missing;
  std::size_t count = 0;
  for (fs::directory_iterator it(folder, missing), end; !missing && it != end; ++it) ++count;
  return count;
}

TEST(BodyDisposal, FreesTheNameAtOnceAndDeletesEverythingByTheDrain) {
  const foundation::storage::provider::test::TempDir directory;
  const fs::path root = directory.path().string();
  const auto bodies = root / "V1.0";
  fs::create_directories(bodies);
  foundation::log::LogCapture log;
  {
    BodyDisposal disposal;
    // A file where the folder of discarded bodies belongs: the body cannot be set aside there,
    // so it is deleted at once.
    writeFile(root / "discarded");
    writeFile(bodies / "first.cache");
    disposal.dispose(root, bodies / "first.cache");
    EXPECT_FALSE(fs::exists(bodies / "first.cache"));
    EXPECT_EQ(1u, log.count("could not be set aside"));
    // The folder, with a body an earlier process left in it: swept when first used.
    fs::remove(root / "discarded");
    fs::create_directories(root / "discarded");
    writeFile(root / "discarded" / "left-by-an-earlier-process");
    for (int i = 0; i < 20; ++i) {
      const auto body = bodies / ("b" + std::to_string(i % 3) + ".cache");
      writeFile(body);
      disposal.dispose(root, body);
      EXPECT_FALSE(fs::exists(body)) << "the name is free once dispose returns";
    }
    EXPECT_FALSE(fs::exists(root / "discarded" / "left-by-an-earlier-process"));
    disposal.dispose(root, bodies / "never-made.cache");  // nothing there: no error
    disposal.drain();
    EXPECT_FALSE(fs::exists(root / "discarded")) << filesIn(root / "discarded") << " left";
    writeFile(bodies / "after-the-drain.cache");
    disposal.dispose(root, bodies / "after-the-drain.cache");
    EXPECT_TRUE(fs::is_directory(root / "discarded")) << "made again by the next dispose";
  }
  EXPECT_FALSE(fs::exists(root / "discarded")) << "the destructor drains";
  EXPECT_EQ(0u, filesIn(bodies));
  EXPECT_EQ(1u, log.count("could not be set aside"));
  EXPECT_EQ(0u, log.count("could not be deleted"));
}

}  // namespace
}  // namespace storage::overlayprovider
