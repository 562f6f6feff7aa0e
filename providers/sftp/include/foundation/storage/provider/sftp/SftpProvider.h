// SftpProvider: a remote folder reached over SFTP (scheme "sftp"), the slow store that the
// overlay is meant to sit over. Locations are "sftp:/<path>", relative to the folder named
// by the store's address sftp://[user@]host[:port]/path (parseAddress).
//
// SSH library: libssh (Debian's libssh-dev) for the SSH transport, known_hosts checking and
// key-file or agent authentication. Its SFTP API is not used: libssh 0.10 (Debian 12) has no
// pipelined writes and no way to send OpenSSH's extensions (posix-rename, copy-data,
// statvfs), so the SFTP packets are this provider's own (SftpWire.h); libssh2 was the other
// candidate, but it hides the SFTP layer the same way and has no known_hosts update API for
// accepting a new key.
//
// Ownership: held by std::shared_ptr like every provider. The connections live in a pool of
// SftpSession objects shared with the streams opened on them, so a stream outlives the
// provider. Change polling owns a thread (SftpPoller) stopped by shutdown().
// Locks: each session's own mutex, one at a time, for the length of one exchange with the
// server; the recent-move list's mutex (never held while a session's is); the poller's mutex
// (see SftpPoller.h).
// Threads: every operation may be called from any thread, several at once: the calls about
// one path go to one session (picked by a hash of the path) and run in order there, calls
// about different paths spread over the pool. Subscribers are called on the poller thread.
// Failures: Exception with the ErrorCode that the SFTP status maps to (table in the
// provider's README); a lost connection or a call that timed out is Unavailable, and the next
// call reconnects (after a back-off of at most 5 s); an unknown or changed host key and a
// refused login are AccessDenied, with the reason.
#pragma once

#include <foundation/storage/provider/IProvider.h>
#include <foundation/storage/provider/extensions/IWholeFileWrites.h>

#include <cstdint>
#include <memory>
#include <string>

namespace foundation::storage::provider::sftp {

class SftpPool;
class SftpPoller;

class SftpProvider final : public IProvider, public extensions::IWholeFileWrites {
 public:
  struct Options {
    std::string host;
    unsigned port = 22;
    std::string user;            // empty: the local user
    std::string path = "/";      // the remote folder served as the root
    std::string identityFile;    // empty: the SSH agent and default keys
    std::string knownHostsFile;  // empty: ~/.ssh/known_hosts
    bool acceptNewHostKey = false;
    long connectTimeoutMs = 10000;
    long callTimeoutMs = 30000;
    unsigned sessions = 4;              // SFTP sessions opened at most
    long pollIntervalMs = 10000;        // change polling of subscribed folders and files
    unsigned pollFoldersPerRound = 64;  // folders listed at most per polling round
    // Copies with the server's copy-data extension where it offers it; false, or a server
    // without it: through reads and writes in flight together.
    bool serverSideCopy = true;
  };

  // Reads sftp://[user@]host[:port]/path into the address fields of `base` (InvalidLocation
  // for anything else).
  static Options parseAddress(const std::string& address, Options base);

  explicit SftpProvider(Options options);
  ~SftpProvider() override;

  static StorageIRI rootLocation();
  const Options& options() const { return options_; }

 protected:
  void doCreateFile(const StorageIRI&) const override;
  void doCreateFolder(const StorageIRI&) const override;
  void doCreateFolderRecursive(const StorageIRI&) const override;
  bool doFileExists(const StorageIRI&) const override;
  bool doFolderExists(const StorageIRI&) const override;
  void doRemoveFile(const StorageIRI&) const override;
  void doMoveFile(const StorageIRI& from, const StorageIRI& to,
                  const ReplacementPolicy&) const override;
  void doRemoveFolder(const StorageIRI&) const override;
  void doRemoveFolderRecursively(const StorageIRI&) const override;
  void doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                    const ReplacementPolicy&) const override;
  FileAttributes doGetFileAttributes(const StorageIRI&) const override;
  FolderAttributes doGetFolderAttributes(const StorageIRI&) const override;
  ByteStreamPtr doOpenStream(const StorageIRI&, const ByteStreamOpenOptions&) const override;
  ByteStreamPtr doOpenReadOnlyStream(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListAll(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListFiles(const StorageIRI&) const override;
  FolderEntryIteratorPtr doListFolders(const StorageIRI&) const override;
  void doCopyFile(const StorageIRI& from, const StorageIRI& to,
                  const ReplacementPolicy&) const override;
  void doSetLastModified(const StorageIRI&, const posix_time::ptime&) const override;
  void doSetWritable(const StorageIRI&, bool) const override;
  // A SETSTAT of the size: the server truncates or extends in place.
  void doTruncateToSize(const StorageIRI&, std::uint64_t size) const override;
  // Two round trips: the OPEN (with a STAT beside it), then the WRITEs, an FSETSTAT of the
  // time and the CLOSE, all in flight together (a stream and a time stamp take four).
  void doWriteWholeFile(const StorageIRI&, std::string_view bytes,
                        const posix_time::ptime& lastModified) const override;
  void doPublishFolderEventsFor(const StorageIRI&, const EventPublisher&,
                                const std::vector<events::Kind>&,
                                RecursiveFileWatching) const override;
  void doPublishFileEventsFor(const StorageIRI&, const EventPublisher&,
                              const std::vector<events::Kind>&) const override;
  void doStopPublishingEventsFor(const StorageIRI&) const override;
  bool doHasFeature(const ExtendedFeature&) const override;
  void doShutdown() override;
  // NotFound for a missing entry, NotSupported otherwise: SFTP carries no extended attributes.
  ExtendedAttributes doGetExtendedAttributes(const StorageIRI&) const override;
  ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI&) const override;

 private:
  friend class SftpPoller;
  struct Impl;
  // Publishes a change this provider made (see SftpPoller::own).
  void own(events::Kind kind, const StorageIRI& at, const StorageIRI& other,
           events::EntryType type) const;

  std::shared_ptr<Impl> impl_;
  Options options_;
  std::shared_ptr<SftpPoller> poller_;
};

}  // namespace foundation::storage::provider::sftp
