// What a store holds, read back below its root for comparing with what the workload wrote.
// Stateless functions; call them from one thread while nothing else writes the store.
#pragma once

#include "Workload.h"

#include <foundation/storage/provider/StorageItem.h>

#include <string>
#include <vector>

namespace overlaydemo {

// Every folder and file below `root` (paths "/a/b"), with the files' bytes.
ExpectedTree readTree(const foundation::storage::provider::StorageItem& root);

// One line per difference between `expected` and `actual`; empty when they are equal.
std::vector<std::string> differences(const ExpectedTree& expected, const ExpectedTree& actual);

}  // namespace overlaydemo
