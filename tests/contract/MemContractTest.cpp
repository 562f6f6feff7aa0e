// The contract checked against MemProvider: with default options, case-insensitive so that the
// other answer of getFilenameSensitivity is checked too, and through the instrumented wrapper,
// which must not change what the caller sees.
#include "InnerStoresUnderTest.h"

namespace contract {

INSTANTIATE_TEST_SUITE_P(
    Contract, ProviderContract,
    ::testing::Values(ContractParam{"mem", [] { return makeMemUnderTest("mem"); }},
                      ContractParam{
                          "memCaseInsensitive",
                          [] { return makeMemUnderTest("memCaseInsensitive", caseInsensitive()); }},
                      ContractParam{"instrumentedMem",
                                    [] { return makeMemUnderTest("instrumentedMem", {}, true); }}),
    paramName);

}  // namespace contract
