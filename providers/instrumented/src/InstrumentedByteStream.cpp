#include "InstrumentedByteStream.h"

namespace foundation::storage::provider::instrumented {

InstrumentedByteStream::InstrumentedByteStream(ByteStreamPtr inner,
                                               std::shared_ptr<Instrumentation> instrumentation,
                                               std::u16string path)
    : inner_(std::move(inner)),
      instrumentation_(std::move(instrumentation)),
      path_(std::move(path)) {}

long InstrumentedByteStream::read(char* buffer, long count) {
  instrumentation_->enterStreamCall("streamRead");
  return inner_->read(buffer, count);
}

long InstrumentedByteStream::write(const char* buffer, long count) {
  instrumentation_->enterStreamCall("streamWrite");
  const auto written = inner_->write(buffer, count);
  instrumentation_->log.record({"streamWrite", path_, {}, false});
  return written;
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
