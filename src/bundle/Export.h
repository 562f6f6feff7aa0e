// The bundle is built with hidden visibility: only what this macro marks is exported, which is
// exactly the entry points a host looks up by name (the resource lookup, the context setter
// and the component's NewInstance_/DeleteInstance_ pair).
#pragma once

#define OVERLAYPROVIDER_EXPORT __attribute__((visibility("default")))
