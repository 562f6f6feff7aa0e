// The contract checked against MemProvider: with default options, and case-insensitive so
// that the other answer of getFilenameSensitivity is checked too.
#include "InnerStoresUnderTest.h"

namespace contract {

INSTANTIATE_TEST_SUITE_P(Contract, ProviderContract,
                         ::testing::Values(ContractParam{"mem",
                                                         [] { return makeMemUnderTest("mem"); }},
                                           ContractParam{"memCaseInsensitive",
                                                         [] {
                                                           return makeMemUnderTest(
                                                               "memCaseInsensitive",
                                                               caseInsensitive());
                                                         }}),
                         paramName);

}  // namespace contract
