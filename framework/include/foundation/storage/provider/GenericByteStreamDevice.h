// GenericByteStreamDevice: adapts an owned ByteStream to a Boost.Iostreams seekable,
// closable device, so it can sit under a boost::iostreams::stream.
//
// Built from a reference to the owning pointer, which must outlive the device (devices are
// copied by Boost.Iostreams; all copies use the same stream). close() closes the stream once.
#pragma once

#include <foundation/storage/provider/ByteStream.h>

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>
#include <memory>

namespace foundation::storage::provider {

template <class Stream = ByteStream>
class GenericByteStreamDevice {
 public:
  using char_type = char;
  struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

  explicit GenericByteStreamDevice(std::unique_ptr<Stream>& stream) : stream_(&stream) {}

  std::streamsize read(char* buffer, std::streamsize count) {
    return (*stream_)->read(buffer, static_cast<long>(count));
  }
  std::streamsize write(const char* buffer, std::streamsize count) {
    return (*stream_)->write(buffer, static_cast<long>(count));
  }
  std::streampos seek(boost::iostreams::stream_offset offset, std::ios_base::seekdir way) {
    return (*stream_)->seek(static_cast<long>(offset), way);
  }
  void close() {
    if (*stream_) {
      (*stream_)->close();
    }
  }

 private:
  std::unique_ptr<Stream>* stream_;
};

}  // namespace foundation::storage::provider
