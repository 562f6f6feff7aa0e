// SftpProvider::Impl: the state a provider shares with its poller: the pool of sessions, the
// served folder, and the moves it made lately (so that polling can tell a move from a
// removal and a creation). Owned by the provider (shared with the poller thread, which
// holds it while it runs). Locks: a session's mutex for one exchange at a time; movesMutex
// alone, never with a session's. Any thread.
#pragma once

#include "SftpSession.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/sftp/SftpProvider.h>

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace foundation::storage::provider::sftp {

struct RemoteEntry {
  std::string name;
  SftpAttributes attrs;
};

struct SftpProvider::Impl {
  explicit Impl(const Options& options);

  // The remote path of a location (InvalidLocation for another scheme, InvalidName for a
  // name with control characters).
  std::string remote(const StorageIRI& iri) const;
  // The session that every stream on `path` and every change of its size uses, so that a
  // stream's read-ahead sees each write (SftpSession::writeCount).
  std::shared_ptr<SftpSession> sessionFor(const std::string& path) const;
  // Which session an exchange may use: the path's own, or the first idle one (from the path's
  // own on; the path's own, waited for, when all are busy). A session carries one exchange at a
  // time, so exchanges that neither write bytes nor change a size take any idle one: with
  // sessions picked by path alone, the replay workers of the overlay queued behind each other
  // on a few sessions while others stood idle.
  enum class Pick { PathSession, AnyIdleSession };
  // Runs `body` on the picked session under its lock; a lost connection or an answer that
  // does not parse becomes Unavailable, a refused connection AccessDenied (both at `iri`).
  // StatusError passes through.
  template <class F>
  auto with(const std::string& path, const StorageIRI& iri, F&& body,
            Pick pick = Pick::PathSession) const {
    auto [session, lock] = lockSession(path, pick);
    try {
      return body(*session);
    } catch (const WireError& e) {
      // The server's answer did not parse: nothing more on this connection can be trusted.
      session->disconnect(e.what());
      throw Exception(ErrorCode::Unavailable, iri, e.what());
    } catch (const ConnectionLost& e) {
      throw Exception(ErrorCode::Unavailable, iri, e.what());
    } catch (const ConnectRefused& e) {
      throw Exception(ErrorCode::AccessDenied, iri, e.what());
    }
  }
  std::pair<std::shared_ptr<SftpSession>, std::unique_lock<std::mutex>> lockSession(
      const std::string& path, Pick pick) const;
  // The entry's attributes (links followed), nullopt when there is none.
  std::optional<SftpAttributes> stat(const StorageIRI& iri) const;
  // A request answered by a status, on the session of `path`.
  void simple(const StorageIRI& iri, const std::string& path, std::uint8_t type,
              const std::function<void(OutPacket&)>& fields) const;
  // Every entry of a folder from one directory read (NotFound when it is not a folder).
  std::vector<RemoteEntry> readFolder(const StorageIRI& iri) const;
  // The attributes of each location (nullopt for none), asked in one round trip: the STATs
  // all go out before the first answer is read.
  std::vector<std::optional<SftpAttributes>> statAll(const std::vector<StorageIRI>& iris) const;
  // What a move or copy from `from` to `to` checks first, in one round trip: the source, and,
  // unless `to` is `from` or the root, the destination's folder and the destination.
  struct Ends {
    std::optional<SftpAttributes> source, folder, target;
  };
  Ends statEnds(const StorageIRI& from, const StorageIRI& to) const;
  // NotFound at the parent unless the parent is a folder.
  void requireParentFolder(const StorageIRI& iri) const;
  bool offers(const std::string& extension, const StorageIRI& iri) const;
  // Renames `from` to `to` on the server: with OpenSSH's posix-rename (atomic, replacing) when
  // `preferAtomic` and the server offers it; else with a plain RENAME, which never replaces
  // (OpenSSH links, then unlinks), so an entry already at `to` (`replaced`) is first removed
  // with `removal` (REMOVE or RMDIR), which is not atomic.
  void rename(const StorageIRI& from, const std::string& fromPath, const StorageIRI& to,
              const std::string& toPath, bool preferAtomic, bool replaced,
              std::uint8_t removal) const;

  void noteMove(const StorageIRI& from, const StorageIRI& to);
  // The source of a recent move to `to`, if this provider made one.
  std::optional<StorageIRI> movedFrom(const StorageIRI& to) const;

  Options options;
  std::string base;  // the served folder, no trailing "/" ("" for "/")
  std::vector<std::shared_ptr<SftpSession>> sessions;

  struct Move {
    StorageIRI from, to;
    std::chrono::steady_clock::time_point when;
  };
  mutable std::mutex movesMutex;
  std::deque<Move> moves;
};

// Throws the framework's Exception for a status the server answered about `iri`.
[[noreturn]] void throwStatus(const StatusError& e, const StorageIRI& iri);

}  // namespace foundation::storage::provider::sftp
