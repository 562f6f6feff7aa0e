// SftpSession: one SSH connection to the server with one SFTP channel on it, speaking the
// protocol of SftpWire.h. Built on libssh (libssh-dev), which carries the transport, the
// host-key check against a known_hosts file and public-key or agent authentication; the SFTP
// layer is this file's own, so that requests can be pipelined (several writes or reads in
// flight, replies matched by id) and OpenSSH's extensions sent as they are.
//
// Ownership: shared (std::shared_ptr) by the pool and by every stream opened on it, so a
// stream keeps its connection alive after the provider is gone. Handles are valid only for
// the connection that made them: generation() changes at each reconnection.
// Locks: one mutex per session (lock()), held by a caller for a whole exchange (sending its
// requests and waiting for their replies); nothing else is locked while it is held, and no
// two sessions' mutexes are ever held together. Every method except settings(), lock() and
// tryLock() needs the caller to hold the lock.
// Threads: any thread, one at a time through the lock. A reply that arrives for another
// caller's request is kept until that caller asks for it.
// Failures: ConnectionLost when the connection is gone or a call timed out (the session then
// reconnects on the next call, after a back-off that doubles from 100 ms up to 5 s, waiting
// at most the connect time-out); ConnectRefused for
// an unknown or changed host key and for refused authentication (not retried); StatusError
// for a request the server refused.
#pragma once

#include "SftpWire.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

namespace foundation::storage::provider::sftp {

struct ConnectionSettings {
  std::string host;
  unsigned port = 22;
  std::string user;               // empty: the local user name
  std::string identityFile;       // empty: the SSH agent and the user's default keys
  std::string knownHostsFile;     // empty: ~/.ssh/known_hosts
  bool acceptNewHostKey = false;  // an unknown host's key is added to the file and trusted
  long connectTimeoutMs = 10000;
  long callTimeoutMs = 30000;
};

struct ConnectionLost : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct ConnectRefused : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct StatusError : std::runtime_error {
  StatusError(std::uint32_t c, const std::string& message) : std::runtime_error(message), code(c) {}
  std::uint32_t code;
};

// A reply: its type and the fields after the request id.
struct Reply {
  std::uint8_t type = 0;
  InPacket body;
};

class SftpSession {
 public:
  explicit SftpSession(ConnectionSettings settings);
  ~SftpSession();
  SftpSession(const SftpSession&) = delete;
  SftpSession& operator=(const SftpSession&) = delete;

  std::unique_lock<std::mutex> lock() { return std::unique_lock(mutex_); }
  // The lock when nobody holds it; an empty lock otherwise.
  std::unique_lock<std::mutex> tryLock() { return std::unique_lock(mutex_, std::try_to_lock); }
  const ConnectionSettings& settings() const { return settings_; }

  // Connects when not connected: waits for the back-off and tries again, for at most the
  // connect time-out in all (then ConnectionLost).
  void ensureConnected();
  // Counts connections made; a handle from another generation is stale.
  std::uint64_t generation() const { return generation_; }
  bool hasExtension(const std::string& name) const { return extensions_.count(name) != 0; }

  // Sends a request whose packet was started with `type`; the id is written here.
  std::uint32_t send(std::uint8_t type, const std::function<void(OutPacket&)>& fields);
  // Waits for the reply to `id`.
  Reply wait(std::uint32_t id);
  // The reply, which must be a STATUS: returns the code; OK and EOF do not throw when
  // allowed, anything else throws StatusError.
  std::uint32_t expectStatus(std::uint32_t id, bool eofAllowed = false);
  // Helpers for the common shapes of an exchange.
  std::string expectHandle(std::uint32_t id);
  SftpAttributes expectAttrs(std::uint32_t id);
  // Counts writes and size changes sent on this session. A stream's read-ahead is stale once
  // it moved: every stream on one path uses the same session, so no write escapes it.
  void noteWrite() { ++writes_; }
  std::uint64_t writeCount() const { return writes_; }
  // Drops the connection (after a protocol or transport failure): the next call reconnects.
  void disconnect(const std::string& why);

 private:
  struct Ssh;
  void connect();
  void writeAll(const std::string& bytes);
  void readExact(char* out, std::size_t n);
  // What one read asks libssh for, which is also the receive window it keeps (readExact).
  static constexpr std::uint32_t kReceiveWindow = 4u << 20;
  [[noreturn]] void fail(const std::string& what);
  [[noreturn]] static void throwStatus(Reply& reply);

  ConnectionSettings settings_;
  std::mutex mutex_;
  std::unique_ptr<Ssh> ssh_;
  std::uint64_t generation_ = 0;
  std::uint32_t nextId_ = 1;
  std::uint32_t firstIdOfConnection_ = 1;
  std::uint64_t writes_ = 0;
  std::map<std::uint32_t, Reply> stash_;
  // Bytes read off the channel and not yet taken, [receivedFrom_, receivedEnd_) of received_
  // (made at the first read; see readExact).
  std::unique_ptr<char[]> received_;
  std::size_t receivedFrom_ = 0;
  std::size_t receivedEnd_ = 0;
  std::set<std::string> extensions_;
  std::chrono::steady_clock::time_point nextAttempt_{};
  std::chrono::milliseconds backoff_{0};
};

}  // namespace foundation::storage::provider::sftp
