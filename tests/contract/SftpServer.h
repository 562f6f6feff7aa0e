// SftpServer: a real OpenSSH server for the tests of the sftp store, started once per test
// binary (a GoogleTest global environment) on 127.0.0.1 and a free port, with a host key and
// a user key made by ssh-keygen in a temporary folder, removed at the end. Where sshd cannot
// start, available() is false and why() says why; the tests then skip with that message.
// Threads: set up and torn down on GoogleTest's main thread; the accessors are read-only.
#pragma once

#include <foundation/storage/provider/sftp/SftpProvider.h>

#include "ProviderContract.h"

#include <gtest/gtest.h>

#include <memory>

#include <string>

namespace contract {

class SftpServer final : public ::testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;

  static SftpServer& instance();
  bool available() const { return pid_ > 0; }
  const std::string& why() const { return why_; }
  const std::string& folder() const { return dir_; }
  // Options for a store over a fresh, empty remote folder, trusting the server's host key.
  foundation::storage::provider::sftp::SftpProvider::Options freshStore();
  // A known_hosts file naming the server with another key than its own.
  std::string wrongKnownHosts();
  // Stops the server and drops every connection it serves; start() starts it again on the
  // same port with the same keys.
  void stop();
  bool start();

 private:
  std::string dir_;
  std::string why_;
  unsigned port_ = 0;
  int pid_ = -1;
  int stores_ = 0;
};

// The sftp store over a fresh remote folder of the server (the server registers itself with
// GoogleTest on first use; the provider's tests skip with its reason where it cannot start).
std::unique_ptr<ProviderUnderTest> makeSftpUnderTest();

}  // namespace contract
