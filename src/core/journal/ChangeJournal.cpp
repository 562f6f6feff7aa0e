#include "core/journal/ChangeJournal.h"

#include "core/support/OverlayLog.h"
#include "core/support/ThreadName.h"

#include <foundation/storage/provider/Exception.h>
#include <foundation/text/Unicode.h>

#include <cryptopp/crc.h>
#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>

namespace storage::overlayprovider {

namespace fs = boost::filesystem;
namespace fsp = foundation::storage::provider;

namespace {

constexpr char kMagic[4] = {'O', 'V', 'J', 'L'};
constexpr std::uint8_t kChangeRecord = 1;
constexpr std::uint8_t kConfirmationRecord = 2;
constexpr std::uint8_t kHasDestination = 1;
constexpr std::uint8_t kHasTime = 2;
constexpr std::uint8_t kLastAction = static_cast<std::uint8_t>(ChangeAction::Invalidate);
constexpr std::uint32_t kLastKind = EXTERNAL_EVENT;
// Confirmations per record when a backlog is written at once.
constexpr std::size_t kConfirmationsPerRecord = 4096;

fsp::StorageIRI locationOf(const fs::path& path) {
  return fsp::StorageIRI(u"file", foundation::text::toUtf16(path.string()));
}

[[noreturn]] void throwIo(const fs::path& path, const std::string& what, int error = errno) {
  throw fsp::Exception(fsp::ErrorCode::IOError, locationOf(path),
                       "journal: " + what + ": " + std::strerror(error));
}

// Fixed-width little-endian fields, byte by byte, so that the layout does not depend on the
// host's struct padding or byte order.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}
  void u8(std::uint8_t value) { out_.push_back(static_cast<char>(value)); }
  void u32(std::uint32_t value) {
    for (int i = 0; i < 4; ++i) u8(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  void u64(std::uint64_t value) {
    for (int i = 0; i < 8; ++i) u8(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  void str(const std::string& text) {
    u32(static_cast<std::uint32_t>(text.size()));
    out_ += text;
  }

 private:
  std::string& out_;
};

// Reads what Writer wrote; any read past the end clears ok() and yields zeros.
class Reader {
 public:
  Reader(const char* data, std::size_t size) : data_(data), left_(size) {}
  bool ok() const { return ok_; }
  bool atEnd() const { return left_ == 0; }
  std::uint8_t u8() {
    if (left_ == 0) {
      ok_ = false;
      return 0;
    }
    --left_;
    return static_cast<std::uint8_t>(*data_++);
  }
  std::uint32_t u32() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value |= std::uint32_t{u8()} << (8 * i);
    return value;
  }
  std::uint64_t u64() {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value |= std::uint64_t{u8()} << (8 * i);
    return value;
  }
  std::string str() {
    std::uint32_t size = u32();
    if (!ok_ || size > left_) {
      ok_ = false;
      return {};
    }
    std::string text(data_, size);
    data_ += size;
    left_ -= size;
    return text;
  }

 private:
  const char* data_;
  std::size_t left_;
  bool ok_ = true;
};

std::string crc32c(const char* data, std::size_t size) {
  CryptoPP::CRC32C crc;
  crc.Update(reinterpret_cast<const CryptoPP::byte*>(data), size);
  std::string digest(CryptoPP::CRC32C::DIGESTSIZE, '\0');
  crc.Final(reinterpret_cast<CryptoPP::byte*>(digest.data()));
  return digest;
}

// length, CRC32C, payload.
std::string frame(const std::string& payload) {
  std::string record;
  record.reserve(8 + payload.size());
  Writer(record).u32(static_cast<std::uint32_t>(payload.size()));
  record += crc32c(payload.data(), payload.size());
  record += payload;
  return record;
}

std::string header() {
  std::string bytes(kMagic, sizeof kMagic);
  Writer(bytes).u32(ChangeJournal::kVersion);
  return bytes;
}

const boost::posix_time::ptime kEpoch(boost::gregorian::date(1970, 1, 1));

// The change's fields after its sequence number.
std::string encodeChange(const ReplayChange& change) {
  std::string body;
  Writer out(body);
  out.u8(static_cast<std::uint8_t>(change.action));
  out.u32(static_cast<std::uint32_t>(change.kind));
  out.u64(static_cast<std::uint64_t>(change.offset));
  out.u64(static_cast<std::uint64_t>(change.length));
  out.u32(static_cast<std::uint32_t>(change.flags));
  out.u8((change.destination ? kHasDestination : 0) | (change.time ? kHasTime : 0));
  out.str(change.location.toString());
  if (change.destination) out.str(change.destination->toString());
  if (change.time) {
    const boost::posix_time::ptime& time = *change.time;
    if (time.is_not_a_date_time()) {
      out.u8(1);
    } else if (time.is_neg_infinity()) {
      out.u8(2);
    } else if (time.is_pos_infinity()) {
      out.u8(3);
    } else {
      out.u8(0);
      out.u64(static_cast<std::uint64_t>((time - kEpoch).total_microseconds()));
    }
  }
  return body;
}

fsp::StorageIRI decodeIri(Reader& in) {
  return fsp::StorageIRI(foundation::text::toUtf16(in.str()));
}

// A change's fields after its sequence; nothing when they are not a change this build knows.
std::optional<ReplayChange> decodeChange(Reader& in) {
  std::uint8_t action = in.u8();
  std::uint32_t kind = in.u32();
  auto offset = static_cast<std::int64_t>(in.u64());
  auto length = static_cast<std::int64_t>(in.u64());
  auto flags = static_cast<std::int32_t>(in.u32());
  std::uint8_t present = in.u8();
  if (!in.ok() || action > kLastAction || kind > kLastKind ||
      (present & ~(kHasDestination | kHasTime)) != 0) {
    return std::nullopt;
  }
  ReplayChange change(static_cast<ObservableTransactionType>(kind),
                      static_cast<ChangeAction>(action), decodeIri(in));
  change.range(offset, length);
  change.flags = flags;
  if (present & kHasDestination) change.to(decodeIri(in));
  if (present & kHasTime) {
    switch (in.u8()) {
      case 0:
        change.at(kEpoch + boost::posix_time::microseconds(static_cast<std::int64_t>(in.u64())));
        break;
      case 1:
        change.at(boost::posix_time::ptime(boost::posix_time::not_a_date_time));
        break;
      case 2:
        change.at(boost::posix_time::ptime(boost::posix_time::neg_infin));
        break;
      case 3:
        change.at(boost::posix_time::ptime(boost::posix_time::pos_infin));
        break;
      default:
        return std::nullopt;
    }
  }
  if (!in.ok()) return std::nullopt;
  return change;
}

void writeAll(int fd, const std::string& bytes, const fs::path& path) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throwIo(path, "write failed", n < 0 ? errno : EIO);
    done += static_cast<std::size_t>(n);
  }
}

void syncFolder(const fs::path& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) throwIo(folder, "cannot open the folder to sync it");
  int result = ::fsync(fd);
  int error = errno;
  ::close(fd);
  if (result != 0) throwIo(folder, "fsync of the folder failed", error);
}

}  // namespace

struct ChangeJournal::File {
  explicit File(int descriptor) : fd(descriptor) {}
  ~File() {
    if (fd >= 0) ::close(fd);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int fd;
};

ChangeJournal::ChangeJournal(Options options) : options_(std::move(options)) {}

std::shared_ptr<ChangeJournal> ChangeJournal::open(Options options) {
  if (options.folder.empty()) {
    throw fsp::Exception(fsp::ErrorCode::InvalidLocation, locationOf(options.folder),
                         "journal: no cache root given");
  }
  std::shared_ptr<ChangeJournal> journal(new ChangeJournal(std::move(options)));
  const fs::path& folder = journal->options_.folder;
  boost::system::error_code error;
  fs::create_directories(folder, error);
  if (error) throwIo(folder, "cannot create the cache root", error.value());

  fs::path lockPath = folder / "lock";
  int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lockFd < 0) throwIo(lockPath, "cannot open the lock file");
  journal->lockFile_ = std::make_unique<File>(lockFd);
  if (::flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      throw fsp::Exception(fsp::ErrorCode::ResourceBusy, locationOf(folder),
                           "the cache root is in use by another process");
    }
    throwIo(lockPath, "cannot lock");
  }
  try {
    journal->recover();
  } catch (const fs::filesystem_error& failure) {
    throw fsp::Exception(fsp::ErrorCode::IOError, locationOf(failure.path1()),
                         std::string("journal: ") + failure.what());
  }
  journal->syncThread_ = std::thread([raw = journal.get()] { raw->syncLoop(); });
  return journal;
}

namespace {

struct Reading {
  std::vector<std::pair<std::uint64_t, ReplayChange>> changes;
  std::set<std::uint64_t> confirmed;
  std::uint64_t highest = 0;
};

// Reads `path` up to its first bad record and cuts it there.
Reading readJournal(const fs::path& path) {
  Reading reading;
  int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return reading;
    throwIo(path, "cannot open");
  }
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  std::string bytes;
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throwIo(path, "read failed");
    if (n == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  std::size_t good = 0;
  if (bytes.size() >= ChangeJournal::kHeaderSize) {
    if (bytes.compare(0, ChangeJournal::kHeaderSize, header()) != 0) {
      throw fsp::Exception(
          fsp::ErrorCode::IOError, locationOf(path),
          "journal: not a change journal of version " + std::to_string(ChangeJournal::kVersion));
    }
    good = ChangeJournal::kHeaderSize;
  }
  std::uint64_t lastChange = 0;
  while (good > 0 && bytes.size() - good >= 8) {
    Reader frameIn(bytes.data() + good, 4);
    std::uint32_t size = frameIn.u32();
    if (size == 0 || size > ChangeJournal::kMaxPayload || bytes.size() - good - 8 < size) break;
    const char* payload = bytes.data() + good + 8;
    if (crc32c(payload, size) != bytes.substr(good + 4, 4)) break;
    Reader in(payload, size);
    std::uint8_t type = in.u8();
    if (type == kChangeRecord) {
      std::uint64_t sequence = in.u64();
      std::optional<ReplayChange> change;
      try {
        change = decodeChange(in);
      } catch (...) {
        // A location this build cannot parse is as unusable as a torn record.
      }
      // A sequence not above the last one is a stale tail, left past a cut that did not
      // reach the disk before a crash.
      if (!change || !in.atEnd() || sequence <= lastChange) break;
      lastChange = sequence;
      reading.changes.emplace_back(sequence, std::move(*change));
    } else if (type == kConfirmationRecord) {
      std::uint32_t count = in.u32();
      if (!in.ok() || count > size / 8) break;
      std::vector<std::uint64_t> batch(count);
      for (std::uint64_t& sequence : batch) sequence = in.u64();
      if (!in.ok() || !in.atEnd()) break;
      reading.confirmed.insert(batch.begin(), batch.end());
    } else {
      break;
    }
    good += 8 + size;
  }
  reading.highest = lastChange;
  if (good < bytes.size()) {
    OVERLAY_LOG(foundation::log::warning)
        << "journal: cut " << bytes.size() - good << " bytes of a torn or corrupt record at offset "
        << good << " of " << path.string();
    if (::ftruncate(fd, static_cast<off_t>(good)) != 0 || ::fdatasync(fd) != 0) {
      throwIo(path, "cannot cut the torn tail");
    }
  }
  return reading;
}

}  // namespace

void ChangeJournal::recover() {
  const fs::path& folder = options_.folder;
  const fs::path journal = folder / "journal";
  const fs::path previous = folder / "journal.recovering";
  fs::remove(folder / "journal.tmp");
  const bool resuming = fs::exists(previous);
  if (resuming) fs::remove(journal);  // a re-application cut short: the source is read again

  Reading reading = readJournal(resuming ? previous : journal);
  for (auto& [sequence, change] : reading.changes) {
    if (!reading.confirmed.count(sequence)) recovered_.push_back(std::move(change));
  }
  recovering_ = !recovered_.empty();
  if (!resuming && recovering_) {
    fs::rename(journal, previous);
  } else if (resuming && !recovering_) {
    fs::remove(previous);
  }

  int fd = ::open(journal.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) throwIo(journal, "cannot create");
  auto file = std::make_shared<File>(fd);
  writeAll(fd, header(), journal);
  if (::fdatasync(fd) != 0) throwIo(journal, "fdatasync failed");
  syncFolder(folder);

  MutexLock lock(mutex_);
  file_ = std::move(file);
  size_ = kHeaderSize;
  nextSequence_ = reading.highest + 1;
}

ChangeJournal::~ChangeJournal() {
  try {
    {
      std::lock_guard lock(stopMutex_);
      stopping_ = true;
    }
    stopWake_.notify_all();
    if (syncThread_.joinable()) syncThread_.join();
  } catch (...) {
    logCaughtException("journal: the sync thread did not stop");
  }
  try {
    sync();
  } catch (...) {
    logCaughtException("journal: the last sync failed");
  }
}

void ChangeJournal::syncLoop() noexcept {
  nameThisThread("ovl journal");
  const auto interval = std::max(options_.syncInterval, std::chrono::milliseconds(1));
  for (;;) {
    try {
      {
        std::unique_lock lock(stopMutex_);
        if (stopWake_.wait_for(lock, interval, [this] { return stopping_; })) return;
      }
      sync();
    } catch (...) {
      logCaughtException("journal: the periodic sync failed");
    }
  }
}

void ChangeJournal::finishRecovery() {
  if (!recovering_) return;
  sync();
  fs::remove(options_.folder / "journal.recovering");
  syncFolder(options_.folder);
  recovering_ = false;
}

std::uint64_t ChangeJournal::append(const ReplayChange& change) {
  const std::string body = encodeChange(change);
  if (body.size() + 9 > kMaxPayload) {
    throw fsp::Exception(fsp::ErrorCode::InvalidLocation, change.location,
                         "journal: the change's record is too long");
  }
  MutexLock lock(mutex_);
  const std::uint64_t sequence = nextSequence_;
  std::string payload;
  payload.reserve(9 + body.size());
  Writer out(payload);
  out.u8(kChangeRecord);
  out.u64(sequence);
  payload += body;
  std::string record = frame(payload);
  // The confirmations waiting for their batch ride along at no extra call: the fewer of them a
  // crash loses, the less the next process replays again.
  writeLocked(takeConfirmationsLocked() + record);
  ++nextSequence_;
  pendingBytes_ += record.size();
  pending_.emplace(sequence, std::move(record));
  compactIfNeededLocked();
  return sequence;
}

void ChangeJournal::confirm(std::uint64_t sequence) {
  try {
    MutexLock lock(mutex_);
    auto found = pending_.find(sequence);
    if (found == pending_.end()) return;
    pendingBytes_ -= found->second.size();
    pending_.erase(found);
    if (pending_.empty()) {
      // Nothing left to replay: the header alone says so, and earlier confirmations with it.
      if (::ftruncate(file_->fd, static_cast<off_t>(kHeaderSize)) == 0) {
        size_ = kHeaderSize;
        confirmations_.clear();
        ++written_;
        return;
      }
      OVERLAY_LOG(foundation::log::warning)
          << "journal: cannot empty the journal: " << std::strerror(errno);
    }
    confirmations_.push_back(sequence);
    if (confirmations_.size() >= kConfirmBatch) flushConfirmationsLocked();
    compactIfNeededLocked();
  } catch (...) {
    // Kept in the batch: a confirmation that never reaches the disk only replays its change.
    logCaughtException("journal: a confirmation could not be written");
  }
}

void ChangeJournal::sync() {
  MutexLock serial(syncMutex_);
  std::shared_ptr<File> current;
  std::uint64_t target = 0;
  bool recordsUnsynced = false;
  {
    MutexLock lock(mutex_);
    flushConfirmationsLocked();
    target = written_;
    if (!file_) return;  // an open that failed
    current = file_;
    recordsUnsynced = synced_ < target;
  }
  // With the mutex released, so appends go on meanwhile. The bodies before the records, so
  // that a record never reaches the disk before the bytes it refers to; a body noted after the
  // target was taken belongs to a record not yet covered, or to one already synced (whose
  // write had not reached the body then), and is synced now or at the next sync.
  const bool bodiesWritten = bodies_.sync(current->fd);
  if (!recordsUnsynced && !bodiesWritten) return;
  if (const auto folder = options_.folder / "V1.0"; fs::exists(folder)) syncFolder(folder);
  if (!recordsUnsynced) return;
  // Should a compaction replace the file meanwhile, it has synced its new file itself;
  // syncing the old one is harmless.
  if (::fdatasync(current->fd) != 0) throwIo(options_.folder / "journal", "fdatasync failed");
  MutexLock lock(mutex_);
  synced_ = std::max(synced_, target);
}

std::size_t ChangeJournal::pendingCount() const {
  MutexLock lock(mutex_);
  return pending_.size();
}

std::uintmax_t ChangeJournal::fileSize() const {
  MutexLock lock(mutex_);
  struct stat status {};
  if (::fstat(file_->fd, &status) != 0) throwIo(options_.folder / "journal", "fstat failed");
  return static_cast<std::uintmax_t>(status.st_size);
}

void ChangeJournal::writeLocked(const std::string& bytes) {
  const fs::path path = options_.folder / "journal";
  if (broken_) {
    throw fsp::Exception(fsp::ErrorCode::IOError, locationOf(path),
                         "journal: a failed write could not be cut off; no further records");
  }
  try {
    writeAll(file_->fd, bytes, path);
  } catch (...) {
    // A partial record would end the good part of the file for every record after it.
    if (::ftruncate(file_->fd, static_cast<off_t>(size_)) != 0) broken_ = true;
    throw;
  }
  size_ += bytes.size();
  ++written_;
}

void ChangeJournal::flushConfirmationsLocked() {
  if (!confirmations_.empty()) writeLocked(takeConfirmationsLocked());
}

std::string ChangeJournal::takeConfirmationsLocked() {
  std::string records;
  while (!confirmations_.empty()) {
    std::size_t count = std::min(confirmations_.size(), kConfirmationsPerRecord);
    std::string payload;
    Writer out(payload);
    out.u8(kConfirmationRecord);
    out.u32(static_cast<std::uint32_t>(count));
    for (std::size_t i = 0; i < count; ++i) out.u64(confirmations_[i]);
    records += frame(payload);
    confirmations_.erase(confirmations_.begin(),
                         confirmations_.begin() + static_cast<std::ptrdiff_t>(count));
  }
  return records;
}

void ChangeJournal::compactIfNeededLocked() {
  if (size_ <= std::max<std::uintmax_t>(kCompactionFloor, 4 * pendingBytes_)) return;
  const fs::path journal = options_.folder / "journal";
  const fs::path temporary = options_.folder / "journal.tmp";
  try {
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) throwIo(temporary, "cannot create");
    auto file = std::make_shared<File>(fd);
    std::string bytes = header();
    bytes.reserve(kHeaderSize + pendingBytes_);
    for (const auto& entry : pending_) bytes += entry.second;
    writeAll(fd, bytes, temporary);
    if (::fdatasync(fd) != 0) throwIo(temporary, "fdatasync failed");
    if (::rename(temporary.c_str(), journal.c_str()) != 0) throwIo(journal, "rename failed");
    // From here on "journal" is the new file, whatever the folder's sync says.
    file_ = std::move(file);
    size_ = bytes.size();
    confirmations_.clear();  // the confirmed records are gone from the new file
    synced_ = ++written_;
    syncFolder(options_.folder);
  } catch (...) {
    ::unlink(temporary.c_str());
    logCaughtException("journal: compaction failed; the journal keeps growing");
  }
}

}  // namespace storage::overlayprovider
