// EventPublisher: the callback through which a provider delivers change events.
//
// Arguments, in order: what happened, the entry's location, the other location (the other
// end of a move when known, see Events.h; otherwise the same location), the kind of entry,
// and further details (may be empty). Providers call publishers on their own threads, never while
// holding a lock that an operation of the same provider could need.
#pragma once

#include <foundation/storage/events/Events.h>
#include <foundation/storage/provider/StorageIRI.h>

#include <boost/property_tree/ptree.hpp>
#include <functional>

namespace foundation::storage::provider {

using EventPublisher = std::function<void(events::Kind, const StorageIRI&, const StorageIRI&,
                                          events::EntryType, boost::property_tree::ptree)>;

}  // namespace foundation::storage::provider
