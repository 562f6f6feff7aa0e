#include <foundation/storage/provider/Exception.h>
#include <foundation/storage/provider/extensions/IWholeFileWrites.h>

namespace foundation::storage::provider::extensions {

void writeWholeFileThroughStream(const IProvider& provider, const StorageIRI& location,
                                 std::string_view bytes,
                                 const boost::posix_time::ptime& lastModified) {
  const auto stream = provider.openStream(location, ByteStreamOpenOptions::overwrite());
  for (std::size_t done = 0; done < bytes.size();) {
    const long n = stream->write(bytes.data() + done, static_cast<long>(bytes.size() - done));
    if (n <= 0) throw Exception(ErrorCode::IOError, location, "the stream took nothing");
    done += static_cast<std::size_t>(n);
  }
  stream->close();
  provider.setLastModified(location, lastModified);
}

}  // namespace foundation::storage::provider::extensions
