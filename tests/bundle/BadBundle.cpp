// A bundle that is wrong in exactly one way, chosen at compile time, for the host's error
// tests. It also counts the calls of its context setter, so that a test can see that the host
// hands out the context and takes it back when loading fails.
#include <foundation/host/BundleAbi.h>

#include <atomic>
#include <cstring>

#define BAD_BUNDLE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

#define BAD_BUNDLE_MANIFEST(SCHEME_KEY, CLASS, INTERFACE)                               \
  "{\"bundle.symbolic_name\": \"bad_bundle\", \"bundle.activator\": false, " SCHEME_KEY \
  "\"scr\": {\"version\": 1, \"components\": [{\"implementation-class\": \"" CLASS      \
  "\", \"properties\": {\"scheme\": \"bad\"}, "                                         \
  "\"service\": {\"interfaces\": [\"" INTERFACE "\"]}}]}}"

#define FACTORY_INTERFACE "foundation::storage::provider::ContainerProviderFactory"

#if defined(BAD_BUNDLE_CORRUPT_JSON)
// Cut short in the middle of an object.
constexpr char kManifest[] =
    "{\"bundle.symbolic_name\": \"bad_bundle\", \"scheme\": \"bad\", \"scr\": {";
#elif defined(BAD_BUNDLE_MISSING_SCHEME)
constexpr char kManifest[] = BAD_BUNDLE_MANIFEST("", "bad::Factory", FACTORY_INTERFACE);
#elif defined(BAD_BUNDLE_WRONG_INTERFACE)
constexpr char kManifest[] = BAD_BUNDLE_MANIFEST("\"scheme\": \"bad\", ", "bad::Factory",
                                                 "foundation::storage::provider::IProvider");
#elif defined(BAD_BUNDLE_MISSING_ENTRY_POINT)
// A correct manifest, but the library has no NewInstance_bad_Factory.
constexpr char kManifest[] =
    BAD_BUNDLE_MANIFEST("\"scheme\": \"bad\", ", "bad::Factory", FACTORY_INTERFACE);
#else
#error "define the kind of bad bundle to build"
#endif

std::atomic<int> contextsSet{0};
std::atomic<int> contextsCleared{0};

}  // namespace

BAD_BUNDLE_EXPORT const char* foundation_bundle_resource(const char* name, std::size_t* size) {
  if (std::strcmp(name, foundation::host::kManifestResourceName) != 0) return nullptr;
  *size = sizeof(kManifest) - 1;
  return kManifest;
}

BAD_BUNDLE_EXPORT void _us_set_bundle_context_instance_bad_bundle(
    foundation::host::BundleContext* context) {
  ++(context != nullptr ? contextsSet : contextsCleared);
}

// How often the host set (set != 0) or cleared the context.
BAD_BUNDLE_EXPORT int bad_bundle_context_calls(int set) {
  return set != 0 ? contextsSet.load() : contextsCleared.load();
}
