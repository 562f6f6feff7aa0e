// RecordRefreshingByteStream: a stream of the inner store, handed to the host by the overlay,
// that tells the overlay when the file's body may have changed: after the stream is closed
// (or destroyed unclosed, which closes the inner stream too), if it wrote anything.
//
// Owned by the host (through ByteStreamPtr); used by one thread at a time, as every stream.
// The callback runs on that thread, with no lock of the stream held; its failures are
// logged, never thrown (the bytes have reached the inner store).
#pragma once

#include <foundation/storage/provider/ByteStream.h>

#include <functional>

namespace storage::overlayprovider {

class RecordRefreshingByteStream final : public foundation::storage::provider::ByteStream {
 public:
  RecordRefreshingByteStream(foundation::storage::provider::ByteStreamPtr inner,
                             std::function<void()> bodyChanged);
  ~RecordRefreshingByteStream() override;

  long read(char* buffer, long count) override { return inner_->read(buffer, count); }
  long write(const char* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir direction) override {
    return inner_->seek(offset, direction);
  }
  void close() override;

 private:
  void reportChange() noexcept;

  foundation::storage::provider::ByteStreamPtr inner_;
  std::function<void()> bodyChanged_;
  bool wrote_ = false;
};

}  // namespace storage::overlayprovider
