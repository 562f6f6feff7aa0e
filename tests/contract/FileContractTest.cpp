// The contract checked against FileProvider, each test over a fresh temporary directory.
#include "InnerStoresUnderTest.h"

namespace contract {

INSTANTIATE_TEST_SUITE_P(Contract, ProviderContract,
                         ::testing::Values(ContractParam{"file",
                                                         [] { return makeFileUnderTest(); }}),
                         paramName);

}  // namespace contract
