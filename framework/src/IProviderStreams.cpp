// The framework's default transactional streams, atomic copy and truncation, built on a
// provider's own streams, moves and removals. All three work through a scratch file beside
// the target that replaces the target in one move at the end.
#include <foundation/log/DiagnosticLogger.h>
#include <foundation/storage/provider/ByteStreamFailure.h>
#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/IProvider.h>
#include <foundation/text/Unicode.h>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <vector>

namespace foundation::storage::provider {

namespace {

constexpr long kChunkSize = 64 * 1024;

const log::diagnostic_logger& frameworkLogger() {
  static const log::diagnostic_logger logger("foundation::storage::provider");
  return logger;
}

StorageIRI scratchBeside(const StorageIRI& target) {
  const auto tag = boost::uuids::to_string(boost::uuids::random_generator()());
  // Appended piece by piece: g++ 12 misreads `u"." + std::u16string&&` as an overlapping copy.
  std::u16string name(u".");
  name += target.getName();
  name += u".~tx-";
  name += text::toUtf16(tag);
  return StorageIRI(target.getParent(), name);
}

// Copies up to `limit` bytes; returns the count copied. Asks `interrupt` between chunks.
std::uint64_t copyBytes(ByteStream& from, ByteStream& to, std::uint64_t limit,
                        const InterruptCallback& interrupt, const StorageIRI& target) {
  std::vector<char> buffer(kChunkSize);
  std::uint64_t copied = 0;
  while (copied < limit) {
    if (interrupt && interrupt() == InterruptSignal::Interrupt) {
      throw Exception(ErrorCode::Interrupted, target, "copy interrupted by the caller");
    }
    const auto want = static_cast<long>(std::min<std::uint64_t>(kChunkSize, limit - copied));
    const long got = from.read(buffer.data(), want);
    if (got <= 0) break;
    to.write(buffer.data(), got);
    copied += static_cast<std::uint64_t>(got);
  }
  return copied;
}

void removeQuietly(const IProvider& provider, const StorageIRI& scratch) {
  try {
    if (provider.fileExists(scratch)) provider.removeFile(scratch);
  } catch (...) {
    FOUNDATION_LOG(frameworkLogger(), log::error)
        << "Could not remove the scratch file " << scratch << ": "
        << boost::current_exception_diagnostic_information();
  }
}

// A stream on the scratch file; close() moves the scratch file onto the target. Destroying
// it without close() abandons the transaction: the target is left as it was. It shares the
// ownership of its provider, which it calls from close() and from its destructor.
class TransactionalByteStream final : public ByteStream {
 public:
  TransactionalByteStream(std::shared_ptr<const IProvider> provider, StorageIRI target,
                          StorageIRI scratch, ByteStreamPtr stream)
      : provider_(std::move(provider)),
        target_(std::move(target)),
        scratch_(std::move(scratch)),
        stream_(std::move(stream)) {}
  ~TransactionalByteStream() override {
    try {
      if (stream_) {
        stream_.reset();
        removeQuietly(*provider_, scratch_);
      }
    } catch (...) {
    }
  }
  long read(char* buffer, long count) override { return open(true).read(buffer, count); }
  long write(const char* buffer, long count) override { return open(false).write(buffer, count); }
  long seek(long offset, std::ios_base::seekdir direction) override {
    if (!stream_) throw ByteStreamSeekFailure(ErrorCode::IOError);
    return stream_->seek(offset, direction);
  }
  void close() override {
    if (!stream_) throw ByteStreamCloseFailure(ErrorCode::IOError);
    auto stream = std::move(stream_);
    try {
      stream->close();
      provider_->moveFile(scratch_, target_, ReplacementPolicy::Overwrite);
    } catch (const Exception& e) {
      removeQuietly(*provider_, scratch_);
      throw ByteStreamCloseFailure(e.getErrorCode());
    }
  }

 private:
  ByteStream& open(bool reading) {
    if (stream_) return *stream_;
    if (reading) throw ByteStreamReadFailure(ErrorCode::IOError);
    throw ByteStreamWriteFailure(ErrorCode::IOError);
  }

  std::shared_ptr<const IProvider> provider_;
  StorageIRI target_;
  StorageIRI scratch_;
  ByteStreamPtr stream_;
};

}  // namespace

ByteStreamPtr IProvider::doOpenTransactionalStream(const StorageIRI& iri,
                                                   const ByteStreamOpenOptions& options) const {
  return doOpenTransactionalStreamAtScratchLocation(iri, scratchBeside(iri), options);
}

ByteStreamPtr IProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& iri, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const {
  auto self = weak_from_this().lock();
  if (!self) {
    throw Exception(ErrorCode::NotSupported, iri,
                    "transactional streams need a provider owned by std::shared_ptr");
  }
  const bool exists = doFileExists(iri);
  if (!exists && options.mustExist()) throw Exception(ErrorCode::NotFound, iri);
  {
    // The scratch file starts as a copy of the target unless the caller truncates.
    auto copy = doOpenStream(scratch, ByteStreamOpenOptions::overwrite());
    if (exists && !options.truncate) {
      auto source = doOpenReadOnlyStream(iri);
      copyBytes(*source, *copy, UINT64_MAX, {}, iri);
      source->close();
    }
    copy->close();
  }
  auto scratchOptions = options;
  scratchOptions.create = false;
  scratchOptions.truncate = false;
  try {
    return std::make_unique<TransactionalByteStream>(std::move(self), iri, scratch,
                                                     doOpenStream(scratch, scratchOptions));
  } catch (...) {
    removeQuietly(*this, scratch);
    throw;
  }
}

void IProvider::doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to,
                                 const ReplacementPolicy& policy,
                                 const InterruptCallback& interrupt) const {
  if (!doFileExists(from)) throw Exception(ErrorCode::NotFound, from);
  if (doFolderExists(to)) throw Exception(ErrorCode::AlreadyExists, to);
  if (!allowsReplacing(policy) && doFileExists(to)) throw Exception(ErrorCode::AlreadyExists, to);
  if (!doFolderExists(to.getParent())) throw Exception(ErrorCode::NotFound, to.getParent());
  const auto scratch = scratchBeside(to);
  try {
    auto source = doOpenReadOnlyStream(from);
    auto copy = doOpenStream(scratch, ByteStreamOpenOptions::overwrite());
    copyBytes(*source, *copy, UINT64_MAX, interrupt, to);
    copy->close();
    source->close();
    doMoveFile(scratch, to, ReplacementPolicy::Overwrite);
  } catch (...) {
    removeQuietly(*this, scratch);
    throw;
  }
}

void IProvider::doTruncateToSize(const StorageIRI& iri, std::uint64_t size) const {
  if (!doFileExists(iri)) throw Exception(ErrorCode::NotFound, iri);
  const auto scratch = scratchBeside(iri);
  try {
    auto source = doOpenReadOnlyStream(iri);
    auto copy = doOpenStream(scratch, ByteStreamOpenOptions::overwrite());
    std::uint64_t written = copyBytes(*source, *copy, size, {}, iri);
    const std::vector<char> zeros(kChunkSize, '\0');
    while (written < size) {
      const auto n = static_cast<long>(std::min<std::uint64_t>(kChunkSize, size - written));
      copy->write(zeros.data(), n);
      written += static_cast<std::uint64_t>(n);
    }
    copy->close();
    source->close();
    doMoveFile(scratch, iri, ReplacementPolicy::Overwrite);
  } catch (...) {
    removeQuietly(*this, scratch);
    throw;
  }
}

}  // namespace foundation::storage::provider
