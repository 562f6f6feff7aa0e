#include "core/provider/RecordRefreshingByteStream.h"

#include "core/provider/OverlayLog.h"

#include <boost/exception/diagnostic_information.hpp>

namespace storage::overlayprovider {

RecordRefreshingByteStream::RecordRefreshingByteStream(
    foundation::storage::provider::ByteStreamPtr inner, std::function<void()> bodyChanged)
    : inner_(std::move(inner)), bodyChanged_(std::move(bodyChanged)) {}

RecordRefreshingByteStream::~RecordRefreshingByteStream() {
  // The inner stream closes itself as it goes; what it wrote is then in the store.
  inner_.reset();
  reportChange();
}

long RecordRefreshingByteStream::write(const char* buffer, long count) {
  const long written = inner_->write(buffer, count);
  wrote_ = true;
  return written;
}

void RecordRefreshingByteStream::close() {
  inner_->close();
  reportChange();
}

void RecordRefreshingByteStream::reportChange() noexcept {
  if (!wrote_) return;
  wrote_ = false;
  try {
    bodyChanged_();
  } catch (...) {
    OVERLAY_LOG(foundation::log::exception)
        << "Exception caught: " << boost::current_exception_diagnostic_information();
  }
}

}  // namespace storage::overlayprovider
