// The contract checked against SftpProvider over a real OpenSSH server (SftpServer), each
// test over a fresh remote folder; and the host-key check: a changed or unknown key is
// refused with a message that says so, and a new key is taken only when asked to.
#include "SftpServer.h"

#include "ProviderContract.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/sftp/SftpProviderFactory.h>
#include <foundation/text/Unicode.h>

#include <filesystem>
#include <fstream>
#include <functional>

namespace contract {
namespace {

using fsp::sftp::SftpProvider;

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, ProviderContract,
                         ::testing::Values(ContractParam{"sftp",
                                                         [] { return makeSftpUnderTest(); }}),
                         paramName);

TEST(SftpHostKey, OnlyTheKnownKeyIsTrusted) {
  auto& server = SftpServer::instance();
  if (!server.available()) GTEST_SKIP() << server.why();
  struct Case {
    const char* name;
    std::string knownHosts;
    bool acceptNew;
    const char* refusal;  // in the message, or nullptr when the connection must work
  };
  const std::string empty = server.folder() + "/empty_known_hosts";
  std::filesystem::remove(empty);
  const Case cases[] = {
      {"changed key", server.wrongKnownHosts(), false, "CHANGED"},
      {"changed key, new keys accepted", server.wrongKnownHosts(), true, "CHANGED"},
      {"unknown host", empty, false, "unknown"},
      {"unknown host, new keys accepted", empty, true, nullptr},
      {"then known", empty, false, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto options = server.freshStore();
    options.knownHostsFile = c.knownHosts;
    options.acceptNewHostKey = c.acceptNew;
    const auto provider = std::make_shared<SftpProvider>(options);
    try {
      EXPECT_TRUE(provider->folderExists(SftpProvider::rootLocation()));
      EXPECT_EQ(nullptr, c.refusal) << "the connection was made";
    } catch (const fsp::Exception& e) {
      ASSERT_NE(nullptr, c.refusal) << e.what();
      EXPECT_EQ(fsp::ErrorCode::AccessDenied, e.getErrorCode()) << e.what();
      EXPECT_NE(std::string(e.what()).find(c.refusal), std::string::npos) << e.what();
    }
  }
}

// A host that opens stores through its registry opens a remote folder by the container's path.
TEST(SftpProviderFactory, TheRegistryOpensTheContainersFolder) {
  auto& server = SftpServer::instance();
  if (!server.available()) GTEST_SKIP() << server.why();
  const auto connection = server.freshStore();
  std::filesystem::create_directories(connection.path + "/served");
  std::ofstream(connection.path + "/served/hello.txt") << "hi";
  fsp::ProviderRegistry registry;
  fsp::sftp::registerSftpProvider(registry, connection);
  const fsp::StorageItem container(
      fsp::StorageIRI(u"sftp", foundation::text::toUtf16(connection.path + "/served")));
  const auto opened = registry.open(u"sftp", container);
  EXPECT_EQ(SftpProvider::rootLocation(), opened.getLocation());
  EXPECT_EQ("hi", readAll(*fsp::StorageItem(opened, u"/hello.txt").openReadOnlyStream()));
}

// A copy gives the same bytes by the server's copy-data extension and by reads and writes in
// flight (the way for a server without the extension), over several rounds of chunks.
TEST(SftpCopy, BothWaysCopyEveryByte) {
  auto& server = SftpServer::instance();
  if (!server.available()) GTEST_SKIP() << server.why();
  const auto bytes = patternBytes(17 * 64 * 1024 + 5);  // more than one round of 16 chunks
  for (const bool serverSide : {true, false}) {
    SCOPED_TRACE(serverSide ? "copy-data" : "reads and writes");
    auto options = server.freshStore();
    options.serverSideCopy = serverSide;
    const auto provider = std::make_shared<SftpProvider>(options);
    const fsp::StorageIRI from(SftpProvider::rootLocation(), u"/from");
    const fsp::StorageIRI to(SftpProvider::rootLocation(), u"/to");
    writeFile(fsp::StorageItem(provider, from), bytes);
    provider->copyFile(from, to, fsp::ReplacementPolicy::Fail);
    EXPECT_EQ(bytes, readAll(*provider->openReadOnlyStream(to)));
  }
}

// A write stream that meets a lost connection, written to and closed again on the same stream
// once the server is back (as the overlay's replay does), ends with every byte it was given,
// whether the loss showed at a write or only at the close.
TEST(SftpStream, WritesSurviveTheServerGoingAwayAndComingBack) {
  auto& server = SftpServer::instance();
  if (!server.available()) GTEST_SKIP() << server.why();
  auto options = server.freshStore();
  options.connectTimeoutMs = 5000;
  const auto provider = std::make_shared<SftpProvider>(options);
  const fsp::StorageIRI file(SftpProvider::rootLocation(), u"/resumed");
  auto stream = provider->openStream(file, fsp::ByteStreamOpenOptions::overwrite());
  const auto before = patternBytes(8 * 64 * 1024);
  const auto after = patternBytes(3 * 64 * 1024 + 17);
  stream->write(before.data(), static_cast<long>(before.size()));  // unanswered yet, mostly
  server.stop();
  bool restarted = false;
  const auto retried = [&](const std::function<void()>& call) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      try {
        call();
        return true;
      } catch (const fsp::ByteStreamFailure& e) {
        EXPECT_EQ(fsp::ErrorCode::Unavailable, e.getErrorCode());
        if (!restarted) restarted = server.start();
      }
    }
    return false;
  };
  ASSERT_TRUE(retried([&] {
    stream->seek(static_cast<long>(before.size()), std::ios_base::beg);
    stream->write(after.data(), static_cast<long>(after.size()));
  }));
  ASSERT_TRUE(retried([&] { stream->close(); }));
  ASSERT_TRUE(restarted || server.start());
  const auto check = std::make_shared<SftpProvider>(options);
  EXPECT_EQ(before + after, readAll(*check->openReadOnlyStream(file)));
}

}  // namespace contract

namespace contract {

// Addresses as cachemount takes them: what is kept, and what is refused as InvalidLocation.
TEST(SftpAddress, FieldsAndRefusals) {
  struct Case {
    const char* text;
    const char* user;  // nullptr: refused
    const char* host;
    unsigned port;
    const char* path;
  };
  const Case cases[] = {
      {"sftp://alice@example.org:2222/srv/data", "alice", "example.org", 2222, "/srv/data"},
      {"sftp://example.org/home/x", "", "example.org", 22, "/home/x"},
      {"sftp://[::1]:23/", "", "::1", 23, "/"},
      {"sftp://host", "", "host", 22, "/"},
      {"sftp://host:0/x", nullptr, "", 0, ""},
      {"sftp://host:70000/x", nullptr, "", 0, ""},
      {"ssh://host/x", nullptr, "", 0, ""},
      {"sftp://@host/x", nullptr, "", 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    if (c.user == nullptr) {
      expectError(fsp::ErrorCode::InvalidLocation, std::nullopt,
                  [&] { fsp::sftp::SftpProvider::parseAddress(c.text, {}); });
      continue;
    }
    const auto o = fsp::sftp::SftpProvider::parseAddress(c.text, {});
    EXPECT_EQ(c.user, o.user);
    EXPECT_EQ(c.host, o.host);
    EXPECT_EQ(c.port, o.port);
    EXPECT_EQ(c.path, o.path);
  }
}

}  // namespace contract
