// InstrumentedByteStream: wraps a stream opened by an InstrumentedProvider so that its calls
// are counted, delayed (stream delay) and can be failed like provider calls.
// Ownership: owns the inner stream; shares the provider's Instrumentation, so it may
// outlive the provider. Locks: none of its own. Threads: one at a time (ByteStream rule).
#pragma once

#include <foundation/storage/provider/ByteStream.h>
#include <foundation/storage/provider/instrumented/Instrumentation.h>

#include <memory>
#include <string>

namespace foundation::storage::provider::instrumented {

class InstrumentedByteStream final : public ByteStream {
 public:
  // `path`: the file's, for the call log.
  InstrumentedByteStream(ByteStreamPtr inner, std::shared_ptr<Instrumentation> instrumentation,
                         std::u16string path);

  long read(char* buffer, long count) override;
  long write(const char* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir direction) override;
  // The inner stream is closed by its own destructor when this stream is dropped unclosed.
  void close() override;

 private:
  ByteStreamPtr inner_;
  std::shared_ptr<Instrumentation> instrumentation_;
  std::u16string path_;
};

}  // namespace foundation::storage::provider::instrumented
