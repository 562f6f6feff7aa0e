// IWholeFileWrites: a provider that can give a file its whole content and its last-modified
// time in one call, where a stream takes four (open, write, close, then the time stamp). A
// store a network away pays a round trip for each of those; a host that writes many small
// files (a replay of new files, an unpacked archive) asks for this instead where the provider
// offers it, and uses a stream otherwise. Hosts find it with dynamic_cast on the provider.
//
// Threads: any thread, several at once, like every provider call.
#pragma once

#include <foundation/storage/provider/IProvider.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <boost/date_time/posix_time/ptime.hpp>

#include <string_view>

namespace foundation::storage::provider::extensions {

class IWholeFileWrites {
 public:
  virtual ~IWholeFileWrites() = default;

  // Makes `bytes` the whole content of the file at `location`: the file is created when it
  // does not exist and emptied first when it does (its folder must exist: NotFound
  // otherwise). Its last-modified time is then `lastModified`. Fails like the stream and the
  // time stamp it stands for (Exception with the store's code); a failure may leave the file
  // created, emptied or partly written, as a failed stream would, and the call may simply be
  // made again.
  void writeWholeFile(const StorageIRI& location, std::string_view bytes,
                      const boost::posix_time::ptime& lastModified) const {
    doWriteWholeFile(location, bytes, lastModified);
  }

 protected:
  virtual void doWriteWholeFile(const StorageIRI& location, std::string_view bytes,
                                const boost::posix_time::ptime& lastModified) const = 0;
};

// What a whole-file write stands for, through `provider`'s own public calls: a stream that
// creates or empties the file, its bytes, the close, then the time stamp. For a provider that
// has no cheaper way, and for a wrapper whose inner provider offers no whole-file writes.
void writeWholeFileThroughStream(const IProvider& provider, const StorageIRI& location,
                                 std::string_view bytes,
                                 const boost::posix_time::ptime& lastModified);

}  // namespace foundation::storage::provider::extensions
