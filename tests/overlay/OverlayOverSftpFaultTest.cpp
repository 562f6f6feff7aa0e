// The overlay over the sftp store while the server goes away: files written through the
// overlay before, during and after an outage of the server all reach the store once it is
// back, and the store ends equal to what was written. The overlay waits for the store as the
// mount configures it; the outage lasts ten times as long as a call waits for the server, so
// a replay that gave changes up after three tries would lose some.
#include "SftpServer.h"
#include "core/provider/OverlayProviderFactory.h"

#include <foundation/storage/provider/IConfigurableProvider.h>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.h>
#include <foundation/text/Unicode.h>

#include <boost/property_tree/ptree.hpp>

#include <chrono>
#include <map>
#include <thread>

namespace contract {
namespace {

using foundation::storage::provider::sftp::SftpProvider;

TEST(OverlayOverSftpFault, ReplayResumesAfterTheServerComesBack) {
  auto& server = SftpServer::instance();
  if (!server.available()) GTEST_SKIP() << server.why();
  auto options = server.freshStore();
  options.connectTimeoutMs = 300;  // how long a call waits for the server to come back
  const auto store = std::make_shared<SftpProvider>(options);
  storage::overlayprovider::OverlayProviderFactory factory;
  const fsp::StorageItem inner(store, SftpProvider::rootLocation());
  const auto overlay = factory.createProvider(inner);
  boost::property_tree::ptree config;
  config.put("overlay.retryUnavailableMs", "-1");
  dynamic_cast<fsp::IConfigurableProvider&>(*overlay).configure(config);
  const fsp::StorageItem root(overlay, factory.getRootLocation(inner));

  std::map<std::u16string, std::string> written;
  const auto writeSome = [&](int from, int to) {
    for (int i = from; i < to; ++i) {
      const auto path = u"/d" + std::u16string(1, static_cast<char16_t>(u'0' + i % 3)) + u"/f" +
                        std::u16string(1, static_cast<char16_t>(u'a' + i));
      const auto folder = below(root, path.substr(0, 3));
      if (!folder.folderExists()) folder.createFolder();
      written[path] = patternBytes(1000 * static_cast<std::size_t>(i + 1)) + std::to_string(i);
      writeFile(below(root, path), written[path]);
    }
  };
  writeSome(0, 8);
  server.stop();
  writeSome(8, 16);  // accepted locally while the replay meets a dead server
  below(root, u"/d0/fa")
      .moveFile(fsp::StorageIRI(root.getLocation(), u"/d1/moved"), fsp::ReplacementPolicy::Fail);
  written[u"/d1/moved"] = written[u"/d0/fa"];
  written.erase(u"/d0/fa");
  std::this_thread::sleep_for(std::chrono::milliseconds(3000));
  ASSERT_TRUE(server.start()) << "sshd did not start again";
  writeSome(16, 20);
  dynamic_cast<fsp::extensions::IFlushableFilesystem&>(*overlay).flushFilesystem();

  // What the store holds, read by a provider of its own.
  const auto check = std::make_shared<SftpProvider>(options);
  const fsp::StorageItem direct(check, SftpProvider::rootLocation());
  std::size_t files = 0;
  for (const auto& row : rows(direct.listAllRecursive())) {
    if (!row.isFile()) continue;
    ++files;
    const auto path = u"/" + row.getName();
    ASSERT_TRUE(written.count(path)) << "unexpected " << foundation::text::toUtf8(path);
    EXPECT_EQ(written[path], readFile(below(direct, path))) << foundation::text::toUtf8(path);
  }
  EXPECT_EQ(written.size(), files);
  overlay->shutdown();
}

}  // namespace
}  // namespace contract
