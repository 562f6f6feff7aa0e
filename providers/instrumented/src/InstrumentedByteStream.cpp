#include "InstrumentedByteStream.h"

namespace foundation::storage::provider::instrumented {

InstrumentedByteStream::InstrumentedByteStream(ByteStreamPtr inner,
                                               std::shared_ptr<Instrumentation> instrumentation)
    : inner_(std::move(inner)), instrumentation_(std::move(instrumentation)) {}

long InstrumentedByteStream::read(char* buffer, long count) {
  instrumentation_->enterStreamCall("streamRead");
  return inner_->read(buffer, count);
}

long InstrumentedByteStream::write(const char* buffer, long count) {
  instrumentation_->enterStreamCall("streamWrite");
  return inner_->write(buffer, count);
}

long InstrumentedByteStream::seek(long offset, std::ios_base::seekdir direction) {
  instrumentation_->enterStreamCall("streamSeek");
  return inner_->seek(offset, direction);
}

void InstrumentedByteStream::close() {
  instrumentation_->enterStreamCall("streamClose");
  inner_->close();
}

}  // namespace foundation::storage::provider::instrumented
