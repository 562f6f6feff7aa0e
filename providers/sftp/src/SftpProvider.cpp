#include "SftpByteStream.h"
#include "SftpErrors.h"
#include "SftpLog.h"
#include "SftpPoller.h"
#include "SftpProviderImpl.h"

#include <foundation/text/Unicode.h>

#include <boost/date_time/posix_time/conversion.hpp>

#include <deque>
#include <regex>

namespace foundation::storage::provider::sftp {

namespace {

constexpr auto kMoveMemory = std::chrono::minutes(2);

posix_time::ptime timeOf(const SftpAttributes& a) {
  return posix_time::from_time_t(static_cast<std::time_t>(a.mtime));
}

bool writable(const SftpAttributes& a) { return (a.permissions & 0200) != 0; }

std::uint32_t secondsOf(const posix_time::ptime& time, const StorageIRI& iri) {
  if (time.is_special()) throw Exception(ErrorCode::InvalidLocation, iri, "no such time");
  const auto seconds =
      (time - posix_time::ptime(boost::gregorian::date(1970, 1, 1))).total_seconds();
  if (seconds < 0 || seconds > 0xffffffffLL) {
    throw Exception(ErrorCode::OperationRefused, iri, "SFTP keeps times from 1970 to 2106 only");
  }
  return static_cast<std::uint32_t>(seconds);
}

}  // namespace

void throwStatus(const StatusError& e, const StorageIRI& iri) {
  throw Exception(errorCodeOf(e.code), iri, e.what());
}

// --- Impl ---

SftpProvider::Impl::Impl(const Options& o) : options(o) {
  base = o.path;
  while (!base.empty() && base.back() == '/') base.pop_back();
  ConnectionSettings settings{o.host,
                              o.port,
                              o.user,
                              o.identityFile,
                              o.knownHostsFile,
                              o.acceptNewHostKey,
                              o.connectTimeoutMs,
                              o.callTimeoutMs};
  for (unsigned i = 0; i < std::max(1u, o.sessions); ++i) {
    sessions.push_back(std::make_shared<SftpSession>(settings));
  }
}

std::string SftpProvider::Impl::remote(const StorageIRI& iri) const {
  if (iri.getScheme() != u"sftp" || iri.hasInnerIRI()) {
    throw Exception(ErrorCode::InvalidLocation, iri, "not a location of the sftp store");
  }
  for (const auto& name : iri.getPathView()) {
    for (char16_t c : name) {
      if (c < 0x20 || c == 0x7f) throw Exception(ErrorCode::InvalidName, iri, "control character");
    }
  }
  const std::string path = text::toUtf8(iri.getPath());
  if (path == "/") return base.empty() ? "/" : base;
  return base + path;
}

std::shared_ptr<SftpSession> SftpProvider::Impl::sessionFor(const std::string& path) const {
  return sessions[std::hash<std::string>{}(path) % sessions.size()];
}

std::pair<std::shared_ptr<SftpSession>, std::unique_lock<std::mutex>>
SftpProvider::Impl::lockSession(const std::string& path, Pick pick) const {
  const auto own = std::hash<std::string>{}(path) % sessions.size();
  if (pick == Pick::AnyIdleSession) {
    for (std::size_t i = 0; i < sessions.size(); ++i) {
      const auto& session = sessions[(own + i) % sessions.size()];
      if (auto lock = session->tryLock()) return {session, std::move(lock)};
    }
  }
  auto lock = sessions[own]->lock();
  return {sessions[own], std::move(lock)};
}

std::optional<SftpAttributes> SftpProvider::Impl::stat(const StorageIRI& iri) const {
  return statAll({iri}).front();
}

std::vector<std::optional<SftpAttributes>> SftpProvider::Impl::statAll(
    const std::vector<StorageIRI>& iris) const {
  std::vector<std::string> paths;
  for (const auto& iri : iris) paths.push_back(remote(iri));
  std::vector<std::optional<SftpAttributes>> found(iris.size());
  if (iris.empty()) return found;
  std::optional<std::pair<StatusError, std::size_t>> refused;  // every answer is read first
  with(
      paths.front(), iris.front(),
      [&](SftpSession& s) {
        std::vector<std::uint32_t> ids;
        for (const auto& path : paths) {
          ids.push_back(s.send(fxp::kStat, [&](OutPacket& p) { p.str(path); }));
        }
        for (std::size_t i = 0; i < ids.size(); ++i) {
          try {
            found[i] = s.expectAttrs(ids[i]);
          } catch (const StatusError& e) {
            if (errorCodeOf(e.code) != ErrorCode::NotFound && !refused) refused.emplace(e, i);
          }
        }
      },
      Pick::AnyIdleSession);
  if (refused) throwStatus(refused->first, iris[refused->second]);
  return found;
}

SftpProvider::Impl::Ends SftpProvider::Impl::statEnds(const StorageIRI& from,
                                                      const StorageIRI& to) const {
  if (from == to || !to.hasParent()) return {stat(from), std::nullopt, std::nullopt};
  auto known = statAll({from, to.getParent(), to});
  return {std::move(known[0]), std::move(known[1]), std::move(known[2])};
}

void SftpProvider::Impl::simple(const StorageIRI& iri, const std::string& path, std::uint8_t type,
                                const std::function<void(OutPacket&)>& fields) const {
  with(
      path, iri, [&](SftpSession& s) { s.expectStatus(s.send(type, fields)); },
      Pick::AnyIdleSession);
}

void SftpProvider::Impl::rename(const StorageIRI& from, const std::string& fromPath,
                                const StorageIRI& to, const std::string& toPath, bool preferAtomic,
                                bool replaced, std::uint8_t removal) const {
  if (preferAtomic && offers("posix-rename@openssh.com", from)) {
    simple(from, fromPath, fxp::kExtended,
           [&](OutPacket& p) { p.str("posix-rename@openssh.com").str(fromPath).str(toPath); });
    return;
  }
  if (replaced) simple(to, toPath, removal, [&](OutPacket& p) { p.str(toPath); });
  simple(from, fromPath, fxp::kRename, [&](OutPacket& p) { p.str(fromPath).str(toPath); });
}

bool SftpProvider::Impl::offers(const std::string& extension, const StorageIRI& iri) const {
  return with(base, iri, [&](SftpSession& s) {
    s.ensureConnected();
    return s.hasExtension(extension);
  });
}

void SftpProvider::Impl::requireParentFolder(const StorageIRI& iri) const {
  const auto parent = iri.getParent();
  const auto attrs = stat(parent);
  if (!attrs || !attrs->isFolder()) throw Exception(ErrorCode::NotFound, parent);
}

std::vector<RemoteEntry> SftpProvider::Impl::readFolder(const StorageIRI& iri) const {
  const auto path = remote(iri);
  std::vector<RemoteEntry> entries;
  std::vector<std::size_t> links;
  try {
    with(
        path, iri,
        [&](SftpSession& s) {
          const auto handle =
              s.expectHandle(s.send(fxp::kOpendir, [&](OutPacket& p) { p.str(path); }));
          for (;;) {
            Reply reply = s.wait(s.send(fxp::kReaddir, [&](OutPacket& p) { p.str(handle); }));
            if (reply.type == fxp::kStatus) {
              if (InPacket(reply.body).u32() == status::kEof) break;
              s.expectStatus(s.send(fxp::kClose, [&](OutPacket& p) { p.str(handle); }));
              throw StatusError(InPacket(reply.body).u32(), "listing refused");
            }
            if (reply.type != fxp::kName)
              throw ConnectionLost("the server sent no names for a listing");
            for (std::uint32_t n = reply.body.u32(); n > 0; --n) {
              RemoteEntry entry;
              entry.name = reply.body.str();
              reply.body.str();
              entry.attrs = reply.body.attrs();
              if (entry.name == "." || entry.name == "..") continue;
              if (entry.attrs.isLink()) links.push_back(entries.size());
              entries.push_back(std::move(entry));
            }
          }
          s.expectStatus(s.send(fxp::kClose, [&](OutPacket& p) { p.str(handle); }));
          // Links are shown as what they point to: their STATs all go out before any answer.
          std::vector<std::uint32_t> ids;
          for (auto i : links) {
            const std::string target = path + "/" + entries[i].name;
            ids.push_back(s.send(fxp::kStat, [&](OutPacket& p) { p.str(target); }));
          }
          for (std::size_t k = 0; k < ids.size(); ++k) {
            try {
              entries[links[k]].attrs = s.expectAttrs(ids[k]);
            } catch (const StatusError&) {
              entries[links[k]].attrs.permissions = 0;  // dangling: neither file nor folder
            }
          }
        },
        Pick::AnyIdleSession);
  } catch (const StatusError& e) {
    if (errorCodeOf(e.code) == ErrorCode::NotFound) throw Exception(ErrorCode::NotFound, iri);
    throwStatus(e, iri);
  }
  return entries;
}

void SftpProvider::Impl::noteMove(const StorageIRI& from, const StorageIRI& to) {
  std::lock_guard lock(movesMutex);
  const auto now = std::chrono::steady_clock::now();
  while (!moves.empty() && now - moves.front().when > kMoveMemory) moves.pop_front();
  if (moves.size() >= 1024) moves.pop_front();
  moves.push_back({from, to, now});
}

std::optional<StorageIRI> SftpProvider::Impl::movedFrom(const StorageIRI& to) const {
  std::lock_guard lock(movesMutex);
  for (auto it = moves.rbegin(); it != moves.rend(); ++it) {
    if (it->to == to) return it->from;
  }
  return std::nullopt;
}

// --- the provider ---

SftpProvider::Options SftpProvider::parseAddress(const std::string& address, Options o) {
  static const std::regex form(
      R"(sftp://(?:([^@/:]+)@)?([^@/:\[\]]+|\[[0-9a-fA-F:]+\])(?::([0-9]{1,5}))?(/.*)?)");
  std::smatch m;
  if (!std::regex_match(address, m, form)) {
    throw Exception(ErrorCode::InvalidLocation, StorageIRI(u"sftp", u"/"),
                    "not an address of the form sftp://[user@]host[:port]/path: " + address);
  }
  if (m[1].matched) o.user = m[1].str();
  o.host = m[2].str();
  if (o.host.front() == '[') o.host = o.host.substr(1, o.host.size() - 2);
  if (m[3].matched) {
    const unsigned long port = std::stoul(m[3].str());
    if (port == 0 || port > 65535) {
      throw Exception(ErrorCode::InvalidLocation, StorageIRI(u"sftp", u"/"),
                      "bad port " + m[3].str());
    }
    o.port = static_cast<unsigned>(port);
  }
  o.path = m[4].matched ? m[4].str() : "/";
  return o;
}

SftpProvider::SftpProvider(Options options)
    : impl_(std::make_shared<Impl>(options)), options_(std::move(options)) {
  poller_ = std::make_shared<SftpPoller>(impl_);
}

SftpProvider::~SftpProvider() {
  try {
    shutdown();
  } catch (const std::exception& e) {
    FOUNDATION_LOG(sftpLogger(), log::error)
        << "Shutting the sftp provider down failed: " << e.what();
  } catch (...) {
    FOUNDATION_LOG(sftpLogger(), log::error) << "Shutting the sftp provider down failed";
  }
}

StorageIRI SftpProvider::rootLocation() { return StorageIRI(u"sftp", u"/"); }

void SftpProvider::doCreateFile(const StorageIRI& iri) const {
  const auto path = impl_->remote(iri);
  if (!iri.hasParent()) throw Exception(ErrorCode::AlreadyExists, iri);
  try {
    impl_->with(
        path, iri,
        [&](SftpSession& s) {
          const auto handle = s.expectHandle(s.send(fxp::kOpen, [&](OutPacket& p) {
            p.str(path).u32(fxp::kWrite_ | fxp::kCreat | fxp::kExcl).attrs({});
          }));
          s.expectStatus(s.send(fxp::kClose, [&](OutPacket& p) { p.str(handle); }));
        },
        Impl::Pick::AnyIdleSession);
    own(events::Kind::Appeared, iri, iri, events::EntryType::File);
  } catch (const StatusError& e) {
    // OpenSSH says FAILURE for an existing name and NO_SUCH_FILE for a missing parent.
    if (impl_->stat(iri)) throw Exception(ErrorCode::AlreadyExists, iri);
    impl_->requireParentFolder(iri);
    throwStatus(e, iri);
  }
}

void SftpProvider::doCreateFolder(const StorageIRI& iri) const {
  const auto path = impl_->remote(iri);
  if (!iri.hasParent()) throw Exception(ErrorCode::AlreadyExists, iri);
  try {
    impl_->simple(iri, path, fxp::kMkdir, [&](OutPacket& p) { p.str(path).attrs({}); });
    own(events::Kind::Appeared, iri, iri, events::EntryType::Folder);
  } catch (const StatusError& e) {
    if (impl_->stat(iri)) throw Exception(ErrorCode::AlreadyExists, iri);
    impl_->requireParentFolder(iri);
    throwStatus(e, iri);
  }
}

void SftpProvider::doCreateFolderRecursive(const StorageIRI& iri) const {
  impl_->remote(iri);
  if (impl_->stat(iri)) throw Exception(ErrorCode::AlreadyExists, iri);
  // Up to the nearest existing ancestor, which must be a folder; then down, creating.
  std::vector<StorageIRI> missing{iri};
  for (auto at = iri.getParent();; at = at.getParent()) {
    const auto attrs = impl_->stat(at);
    if (attrs) {
      if (!attrs->isFolder()) throw Exception(ErrorCode::AlreadyExists, at);
      break;
    }
    missing.push_back(at);
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    try {
      doCreateFolder(*it);
    } catch (const Exception& e) {
      // Made meanwhile by someone else: only the target itself must be new.
      if (e.getErrorCode() != ErrorCode::AlreadyExists || *it == iri || !doFolderExists(*it)) {
        throw;
      }
    }
  }
}

bool SftpProvider::doFileExists(const StorageIRI& iri) const {
  const auto attrs = impl_->stat(iri);
  return attrs && !attrs->isFolder();
}

bool SftpProvider::doFolderExists(const StorageIRI& iri) const {
  const auto attrs = impl_->stat(iri);
  return attrs && attrs->isFolder();
}

void SftpProvider::doRemoveFile(const StorageIRI& iri) const {
  const auto path = impl_->remote(iri);
  try {
    impl_->simple(iri, path, fxp::kRemove, [&](OutPacket& p) { p.str(path); });
    own(events::Kind::Disappeared, iri, iri, events::EntryType::File);
  } catch (const StatusError& e) {
    const auto attrs = impl_->stat(iri);
    if (!attrs || attrs->isFolder()) throw Exception(ErrorCode::NotFound, iri);
    throwStatus(e, iri);
  }
}

void SftpProvider::doRemoveFolder(const StorageIRI& iri) const {
  const auto path = impl_->remote(iri);
  if (!iri.hasParent()) throw Exception(ErrorCode::OperationRefused, iri, "the root stays");
  try {
    impl_->simple(iri, path, fxp::kRmdir, [&](OutPacket& p) { p.str(path); });
    own(events::Kind::Disappeared, iri, iri, events::EntryType::Folder);
  } catch (const StatusError& e) {
    // OpenSSH answers FAILURE to a folder that is not empty; the folder itself tells.
    const auto attrs = impl_->stat(iri);
    if (!attrs || !attrs->isFolder()) throw Exception(ErrorCode::NotFound, iri);
    if (e.code == status::kFailure && !impl_->readFolder(iri).empty()) {
      throw Exception(ErrorCode::FolderNotEmpty, iri);
    }
    throwStatus(e, iri);
  }
}

void SftpProvider::doRemoveFolderRecursively(const StorageIRI& iri) const {
  impl_->remote(iri);
  if (!iri.hasParent()) throw Exception(ErrorCode::OperationRefused, iri, "the root stays");
  const auto attrs = impl_->stat(iri);
  if (!attrs || !attrs->isFolder()) throw Exception(ErrorCode::NotFound, iri);
  const auto entries = impl_->readFolder(iri);
  // The folder's files go in one burst of removals, all sent before any answer is awaited.
  const auto folderPath = impl_->remote(iri);
  try {
    impl_->with(folderPath, iri, [&](SftpSession& s) {
      std::vector<std::uint32_t> ids;
      for (const auto& entry : entries) {
        if (entry.attrs.isFolder()) continue;
        const std::string path = folderPath + "/" + entry.name;
        ids.push_back(s.send(fxp::kRemove, [&](OutPacket& p) { p.str(path); }));
      }
      std::optional<StatusError> first;
      for (auto id : ids) {
        try {
          s.expectStatus(id);
        } catch (const StatusError& e) {
          if (!first && errorCodeOf(e.code) != ErrorCode::NotFound) first = e;
        }
      }
      if (first) throw *first;
    });
  } catch (const StatusError& e) {
    throwStatus(e, iri);
  }
  for (const auto& entry : entries) {
    if (entry.attrs.isFolder()) {
      doRemoveFolderRecursively(StorageIRI(iri, text::toUtf16(entry.name)));
    }
  }
  doRemoveFolder(iri);
}

void SftpProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to,
                              const ReplacementPolicy& policy) const {
  const auto fromPath = impl_->remote(from);
  const auto toPath = impl_->remote(to);
  const auto [source, folder, target] = impl_->statEnds(from, to);
  if (!source || source->isFolder()) throw Exception(ErrorCode::NotFound, from);
  if (from == to) return;
  if (!to.hasParent()) throw Exception(ErrorCode::AlreadyExists, to);
  if (!folder || !folder->isFolder()) throw Exception(ErrorCode::NotFound, to.getParent());
  if (target && (target->isFolder() || !allowsReplacing(policy))) {
    throw Exception(ErrorCode::AlreadyExists, to);
  }
  try {
    impl_->rename(from, fromPath, to, toPath, allowsReplacing(policy), target.has_value(),
                  fxp::kRemove);
  } catch (const StatusError& e) {
    if (!allowsReplacing(policy) && impl_->stat(to)) throw Exception(ErrorCode::AlreadyExists, to);
    throwStatus(e, from);
  }
  impl_->noteMove(from, to);
  own(events::Kind::Disappeared, from, to, events::EntryType::File);
  own(events::Kind::Appeared, to, from, events::EntryType::File);
}

void SftpProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                const ReplacementPolicy& policy) const {
  const auto fromPath = impl_->remote(from);
  const auto toPath = impl_->remote(to);
  if (!from.hasParent()) throw Exception(ErrorCode::OperationRefused, from, "the root stays");
  const auto [source, folder, target] = impl_->statEnds(from, to);
  if (!source || !source->isFolder()) throw Exception(ErrorCode::NotFound, from);
  if (from == to) return;
  if (from.isAncestorOf(to)) {
    throw Exception(ErrorCode::OperationRefused, to, "a folder cannot move into itself");
  }
  if (!to.hasParent()) throw Exception(ErrorCode::AlreadyExists, to);
  if (!folder || !folder->isFolder()) throw Exception(ErrorCode::NotFound, to.getParent());
  if (target) {
    if (!target->isFolder() || !allowsReplacing(policy)) {
      throw Exception(ErrorCode::AlreadyExists, to);
    }
    if (policy == ReplacementPolicy::Merge) {
      for (const auto& entry : impl_->readFolder(from)) {
        const auto name = text::toUtf16(entry.name);
        if (entry.attrs.isFolder()) {
          doMoveFolder(StorageIRI(from, name), StorageIRI(to, name), policy);
        } else {
          doMoveFile(StorageIRI(from, name), StorageIRI(to, name), policy);
        }
      }
      doRemoveFolder(from);
      impl_->noteMove(from, to);
      own(events::Kind::Changed, to, to, events::EntryType::Folder);
      return;
    }
    if (!impl_->readFolder(to).empty()) throw Exception(ErrorCode::AlreadyExists, to);
  }
  try {
    impl_->rename(from, fromPath, to, toPath, target.has_value(), target.has_value(), fxp::kRmdir);
  } catch (const StatusError& e) {
    if (!target && impl_->stat(to)) throw Exception(ErrorCode::AlreadyExists, to);
    throwStatus(e, from);
  }
  impl_->noteMove(from, to);
  own(events::Kind::Disappeared, from, to, events::EntryType::Folder);
  own(events::Kind::Appeared, to, from, events::EntryType::Folder);
}

FileAttributes SftpProvider::doGetFileAttributes(const StorageIRI& iri) const {
  const auto attrs = impl_->stat(iri);
  if (!attrs || attrs->isFolder()) throw Exception(ErrorCode::NotFound, iri);
  return FileAttributes(attrs->size, timeOf(*attrs), writable(*attrs));
}

FolderAttributes SftpProvider::doGetFolderAttributes(const StorageIRI& iri) const {
  const auto attrs = impl_->stat(iri);
  if (!attrs || !attrs->isFolder()) throw Exception(ErrorCode::NotFound, iri);
  return FolderAttributes(timeOf(*attrs), writable(*attrs));
}

ByteStreamPtr SftpProvider::doOpenStream(const StorageIRI& iri,
                                         const ByteStreamOpenOptions& options) const {
  const auto path = impl_->remote(iri);
  std::uint32_t flags = 0;
  if (options.read) flags |= fxp::kRead_;
  if (options.write || options.append || options.truncate) flags |= fxp::kWrite_;
  if (options.create) flags |= fxp::kCreat;
  if (options.truncate) flags |= fxp::kTrunc;
  if (options.append) flags |= fxp::kAppend;
  const auto session = impl_->sessionFor(path);
  std::string handle;
  std::uint64_t end = 0;
  std::optional<SftpAttributes> before;
  try {
    impl_->with(path, iri, [&](SftpSession& s) {
      // The STAT and the OPEN go out together: one round trip, and a folder (which a POSIX
      // server opens for reading) is told apart.
      const auto statId = s.send(fxp::kStat, [&](OutPacket& p) { p.str(path); });
      const auto openId =
          s.send(fxp::kOpen, [&](OutPacket& p) { p.str(path).u32(flags).attrs({}); });
      try {
        before = s.expectAttrs(statId);
      } catch (const StatusError&) {
      }
      try {
        handle = s.expectHandle(openId);
      } catch (const StatusError& e) {
        if (before && before->isFolder()) throw Exception(ErrorCode::NotFound, iri);
        throw;
      }
      if (before && before->isFolder()) {
        s.expectStatus(s.send(fxp::kClose, [&](OutPacket& p) { p.str(handle); }));
        throw Exception(ErrorCode::NotFound, iri);
      }
      if (options.truncate) s.noteWrite();
      if (options.append) {
        end = s.expectAttrs(s.send(fxp::kFstat, [&](OutPacket& p) { p.str(handle); })).size;
      }
    });
  } catch (const StatusError& e) {
    if (errorCodeOf(e.code) == ErrorCode::NotFound) {
      if (!before && options.create) impl_->requireParentFolder(iri);
      throw Exception(ErrorCode::NotFound, iri);
    }
    throwStatus(e, iri);
  }
  if (!before) own(events::Kind::Appeared, iri, iri, events::EntryType::File);
  std::function<void()> onWritten;
  if (before || options.truncate) {
    // The stream may outlive the provider: it reaches the poller only while that exists.
    onWritten = [poller = std::weak_ptr<SftpPoller>(poller_), iri] {
      if (const auto p = poller.lock()) {
        p->own(events::Kind::Changed, iri, iri, events::EntryType::File);
      }
    };
  }
  return std::make_unique<SftpByteStream>(session, handle, path, flags, options.append, end,
                                          std::move(onWritten));
}

ByteStreamPtr SftpProvider::doOpenReadOnlyStream(const StorageIRI& iri) const {
  return doOpenStream(iri, ByteStreamOpenOptions::readOnly());
}

namespace {

std::vector<FolderEntry> rowsOf(const std::vector<RemoteEntry>& entries, bool files, bool folders) {
  std::vector<FolderEntry> rows;
  for (const auto& e : entries) {
    const auto name = text::toUtf16(e.name);
    if (e.attrs.isFolder()) {
      if (folders) rows.emplace_back(name, FolderAttributes(timeOf(e.attrs), writable(e.attrs)));
    } else if (e.attrs.isRegular() && files) {
      rows.emplace_back(name, FileAttributes(e.attrs.size, timeOf(e.attrs), writable(e.attrs)));
    }
  }
  return rows;
}

}  // namespace

FolderEntryIteratorPtr SftpProvider::doListAll(const StorageIRI& iri) const {
  return std::make_unique<VectorFolderEntryIterator>(rowsOf(impl_->readFolder(iri), true, true));
}

FolderEntryIteratorPtr SftpProvider::doListFiles(const StorageIRI& iri) const {
  return std::make_unique<VectorFolderEntryIterator>(rowsOf(impl_->readFolder(iri), true, false));
}

FolderEntryIteratorPtr SftpProvider::doListFolders(const StorageIRI& iri) const {
  return std::make_unique<VectorFolderEntryIterator>(rowsOf(impl_->readFolder(iri), false, true));
}

void SftpProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to,
                              const ReplacementPolicy& policy) const {
  const auto fromPath = impl_->remote(from);
  const auto toPath = impl_->remote(to);
  const auto [source, folder, target] = impl_->statEnds(from, to);
  if (!source || source->isFolder()) throw Exception(ErrorCode::NotFound, from);
  if (from == to) return;
  if (!to.hasParent()) throw Exception(ErrorCode::AlreadyExists, to);
  if (!folder || !folder->isFolder()) throw Exception(ErrorCode::NotFound, to.getParent());
  if (target && (target->isFolder() || !allowsReplacing(policy))) {
    throw Exception(ErrorCode::AlreadyExists, to);
  }
  try {
    // Both handles on the source's session: copy-data needs them on one connection.
    impl_->with(fromPath, from, [&](SftpSession& s) {
      const auto inId =
          s.send(fxp::kOpen, [&](OutPacket& p) { p.str(fromPath).u32(fxp::kRead_).attrs({}); });
      const std::uint32_t outFlags =
          fxp::kWrite_ | fxp::kCreat | fxp::kTrunc | (allowsReplacing(policy) ? 0 : fxp::kExcl);
      const auto outId =
          s.send(fxp::kOpen, [&](OutPacket& p) { p.str(toPath).u32(outFlags).attrs({}); });
      std::optional<std::string> in, out;
      std::optional<StatusError> failure;
      try {
        in = s.expectHandle(inId);
      } catch (const StatusError& e) {
        failure = e;
      }
      try {
        out = s.expectHandle(outId);
      } catch (const StatusError& e) {
        if (!failure) failure = e;
      }
      s.noteWrite();
      try {
        if (!failure && impl_->options.serverSideCopy && s.hasExtension("copy-data")) {
          s.expectStatus(s.send(fxp::kExtended, [&](OutPacket& p) {
            p.str("copy-data").str(*in).u64(0).u64(0).str(*out).u64(0);
          }));
        } else if (!failure) {
          // Reads and writes in flight together, kMaxInFlight chunks at a time.
          const std::uint32_t chunk = SftpByteStream::kChunk;
          std::uint64_t offset = 0;
          for (bool more = true; more;) {
            std::vector<std::uint32_t> reads;
            for (std::size_t i = 0; i < SftpByteStream::kMaxInFlight; ++i) {
              const std::uint64_t at = offset + i * chunk;
              reads.push_back(
                  s.send(fxp::kRead, [&](OutPacket& p) { p.str(*in).u64(at).u32(chunk); }));
            }
            std::vector<std::uint32_t> writes;
            for (std::size_t i = 0; i < reads.size(); ++i) {
              Reply reply = s.wait(reads[i]);
              if (!more) continue;
              if (reply.type == fxp::kStatus) {
                const auto code = InPacket(reply.body).u32();
                if (code != status::kEof) throw StatusError(code, "copy: read refused");
                more = false;
                continue;
              }
              const std::string data = reply.body.str();
              const std::uint64_t at = offset + i * chunk;
              writes.push_back(
                  s.send(fxp::kWrite, [&](OutPacket& p) { p.str(*out).u64(at).str(data); }));
              if (data.size() < chunk) more = false;
            }
            for (auto id : writes) s.expectStatus(id);
            offset += std::uint64_t{chunk} * SftpByteStream::kMaxInFlight;
          }
        }
      } catch (const StatusError& e) {
        failure = e;
      }
      for (const auto* handle : {&in, &out}) {
        if (*handle) s.expectStatus(s.send(fxp::kClose, [&](OutPacket& p) { p.str(**handle); }));
      }
      if (failure) throw *failure;
    });
  } catch (const StatusError& e) {
    if (!impl_->stat(from)) throw Exception(ErrorCode::NotFound, from);
    if (!allowsReplacing(policy) && impl_->stat(to)) throw Exception(ErrorCode::AlreadyExists, to);
    throwStatus(e, to);
  }
  own(target ? events::Kind::Changed : events::Kind::Appeared, to, to, events::EntryType::File);
}

void SftpProvider::doSetLastModified(const StorageIRI& iri, const posix_time::ptime& time) const {
  const auto path = impl_->remote(iri);
  SftpAttributes attrs;
  attrs.has = fxp::kAttrAcModTime;
  attrs.atime = attrs.mtime = secondsOf(time, iri);
  // When someone listens, the STAT that tells a file from a folder for the event goes out with
  // the SETSTAT: one round trip, not two.
  const bool listening = poller_->listening();
  std::optional<SftpAttributes> after;
  try {
    impl_->with(
        path, iri,
        [&](SftpSession& s) {
          const auto set = s.send(fxp::kSetstat, [&](OutPacket& p) { p.str(path).attrs(attrs); });
          const auto asked = listening ? s.send(fxp::kStat, [&](OutPacket& p) { p.str(path); }) : 0;
          std::optional<StatusError> refused;
          try {
            s.expectStatus(set);
          } catch (const StatusError& e) {
            refused = e;
          }
          if (listening) {
            try {
              after = s.expectAttrs(asked);
            } catch (const StatusError&) {
            }
          }
          if (refused) throw *refused;
        },
        Impl::Pick::AnyIdleSession);
  } catch (const StatusError& e) {
    throwStatus(e, iri);
  }
  if (after) {
    own(events::Kind::Changed, iri, iri,
        after->isFolder() ? events::EntryType::Folder : events::EntryType::File);
  }
}

void SftpProvider::doWriteWholeFile(const StorageIRI& iri, std::string_view bytes,
                                    const posix_time::ptime& lastModified) const {
  const auto path = impl_->remote(iri);
  SftpAttributes stamp;
  stamp.has = fxp::kAttrAcModTime;
  stamp.atime = stamp.mtime = secondsOf(lastModified, iri);
  std::optional<SftpAttributes> before;
  try {
    impl_->with(path, iri, [&](SftpSession& s) {
      const auto statId = s.send(fxp::kStat, [&](OutPacket& p) { p.str(path); });
      const auto openId = s.send(fxp::kOpen, [&](OutPacket& p) {
        p.str(path).u32(fxp::kWrite_ | fxp::kCreat | fxp::kTrunc).attrs({});
      });
      before.reset();
      try {
        before = s.expectAttrs(statId);
      } catch (const StatusError&) {
      }
      std::string handle;
      try {
        handle = s.expectHandle(openId);
      } catch (const StatusError&) {
        if (before && before->isFolder()) throw Exception(ErrorCode::NotFound, iri);
        throw;
      }
      if (before && before->isFolder()) {
        s.expectStatus(s.send(fxp::kClose, [&](OutPacket& p) { p.str(handle); }));
        throw Exception(ErrorCode::NotFound, iri);
      }
      s.noteWrite();
      // The server answers in order: each write is answered before the time is set, and
      // the close comes last; all of it is asked for before the first answer is awaited.
      std::deque<std::uint32_t> asked;
      std::optional<StatusError> refused;
      const auto answer = [&] {
        try {
          s.expectStatus(asked.front());
        } catch (const StatusError& e) {
          if (!refused) refused = e;
        }
        asked.pop_front();
      };
      for (std::size_t at = 0; at < bytes.size(); at += SftpByteStream::kChunk) {
        const auto chunk = bytes.substr(at, SftpByteStream::kChunk);
        asked.push_back(
            s.send(fxp::kWrite, [&](OutPacket& p) { p.str(handle).u64(at).str(chunk); }));
        if (asked.size() > SftpByteStream::kMaxInFlight) answer();
      }
      asked.push_back(s.send(fxp::kFsetstat, [&](OutPacket& p) { p.str(handle).attrs(stamp); }));
      asked.push_back(s.send(fxp::kClose, [&](OutPacket& p) { p.str(handle); }));
      while (!asked.empty()) answer();
      if (refused) throw *refused;
    });
  } catch (const StatusError& e) {
    if (errorCodeOf(e.code) == ErrorCode::NotFound) {
      if (!before) impl_->requireParentFolder(iri);
      throw Exception(ErrorCode::NotFound, iri);
    }
    throwStatus(e, iri);
  }
  own(before ? events::Kind::Changed : events::Kind::Appeared, iri, iri, events::EntryType::File);
}

void SftpProvider::doSetWritable(const StorageIRI& iri, bool on) const {
  const auto path = impl_->remote(iri);
  const auto current = impl_->stat(iri);
  if (!current) throw Exception(ErrorCode::NotFound, iri);
  SftpAttributes attrs;
  attrs.has = fxp::kAttrPermissions;
  attrs.permissions = (current->permissions & 07777 & ~0222u) | (on ? 0200u : 0u);
  if (on) attrs.permissions |= current->permissions & 0022u;
  try {
    impl_->simple(iri, path, fxp::kSetstat, [&](OutPacket& p) { p.str(path).attrs(attrs); });
  } catch (const StatusError& e) {
    throwStatus(e, iri);
  }
  // The STAT above told the kind: no second one for the event.
  if (poller_->listening()) {
    own(events::Kind::Changed, iri, iri,
        current->isFolder() ? events::EntryType::Folder : events::EntryType::File);
  }
}

void SftpProvider::doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const {
  const auto path = impl_->remote(iri);
  SftpAttributes attrs;
  attrs.has = fxp::kAttrSize;
  attrs.size = size;
  try {
    impl_->with(path, iri, [&](SftpSession& s) {
      s.noteWrite();
      s.expectStatus(s.send(fxp::kSetstat, [&](OutPacket& p) { p.str(path).attrs(attrs); }));
    });
    own(events::Kind::Changed, iri, iri, events::EntryType::File);
  } catch (const StatusError& e) {
    const auto current = impl_->stat(iri);
    if (!current || current->isFolder()) throw Exception(ErrorCode::NotFound, iri);
    throwStatus(e, iri);
  }
}

bool SftpProvider::doHasFeature(const ExtendedFeature& feature) const {
  switch (feature) {
    case ExtendedFeature::ReadWrite:
    case ExtendedFeature::ChangeEvents:  // by polling, see SftpPoller
    case ExtendedFeature::SettableLastModified:
    case ExtendedFeature::RemoveWhileOpen:  // a POSIX server unlinks open files
      return true;
    default:
      return false;
  }
}

void SftpProvider::doShutdown() { poller_->stop(); }

void SftpProvider::own(events::Kind kind, const StorageIRI& at, const StorageIRI& other,
                       events::EntryType type) const {
  poller_->own(kind, at, other, type);
}

void SftpProvider::doPublishFolderEventsFor(const StorageIRI& iri, const EventPublisher& publisher,
                                            const std::vector<events::Kind>& kinds,
                                            RecursiveFileWatching recursive) const {
  if (!doFolderExists(iri)) throw Exception(ErrorCode::NotFound, iri);
  poller_->addFolder(iri, publisher, kinds, recursive);
}

void SftpProvider::doPublishFileEventsFor(const StorageIRI& iri, const EventPublisher& publisher,
                                          const std::vector<events::Kind>& kinds) const {
  impl_->remote(iri);
  poller_->addFile(iri, publisher, kinds);
}

void SftpProvider::doStopPublishingEventsFor(const StorageIRI& iri) const {
  impl_->remote(iri);
  poller_->remove(iri);
}

ExtendedAttributes SftpProvider::doGetExtendedAttributes(const StorageIRI& iri) const {
  if (!impl_->stat(iri)) throw Exception(ErrorCode::NotFound, iri);
  throw Exception(ErrorCode::NotSupported, iri, "SFTP carries no extended attributes");
}

ProviderStorageInfo SftpProvider::doGetProviderStorageInfo(const StorageIRI& iri) const {
  impl_->remote(iri);
  const std::string path = impl_->base.empty() ? "/" : impl_->base;
  if (!impl_->offers("statvfs@openssh.com", iri)) {
    throw Exception(ErrorCode::NotSupported, iri, "the server offers no statvfs@openssh.com");
  }
  try {
    return impl_->with(path, iri, [&](SftpSession& s) {
      Reply reply = s.wait(
          s.send(fxp::kExtended, [&](OutPacket& p) { p.str("statvfs@openssh.com").str(path); }));
      if (reply.type == fxp::kStatus)
        throw StatusError(InPacket(reply.body).u32(), "statvfs refused");
      if (reply.type != fxp::kExtendedReply) throw ConnectionLost("bad statvfs reply");
      reply.body.u64();  // f_bsize
      const std::uint64_t frsize = reply.body.u64();
      const std::uint64_t blocks = reply.body.u64();
      const std::uint64_t bfree = reply.body.u64();
      return ProviderStorageInfo()
          .withStorageCapacity(blocks * frsize)
          .withSpaceOccupied((blocks - std::min(blocks, bfree)) * frsize);
    });
  } catch (const StatusError& e) {
    throwStatus(e, iri);
  }
}

}  // namespace foundation::storage::provider::sftp
