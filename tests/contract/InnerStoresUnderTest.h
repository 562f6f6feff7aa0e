// The two inner stores set up for the contract suite, for every test binary that needs them:
// the contract's own instantiations, and the overlay's, which wraps them.
#pragma once

#include "ProviderContract.h"

#include <foundation/storage/provider/mem/MemProvider.h>

#include <memory>
#include <string>

namespace contract {

// A FileProvider over a fresh temporary directory, removed when the object goes.
std::unique_ptr<ProviderUnderTest> makeFileUnderTest();
// A MemProvider with the given options; seen through the instrumented wrapper when
// `instrumented`, which must forward every operation, stream and subscription unchanged.
std::unique_ptr<ProviderUnderTest> makeMemUnderTest(std::string name,
                                                    fsp::mem::MemProvider::Options options = {},
                                                    bool instrumented = false);
// Options of a case-insensitive MemProvider.
fsp::mem::MemProvider::Options caseInsensitive();

}  // namespace contract
