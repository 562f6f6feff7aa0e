// nameThisThread: gives the calling thread the name that `top -H`, `ps -L`, perf and gdb show,
// so that whoever watches a busy process can tell the replay from the journal's syncs or the
// quota poll. Linux keeps 15 bytes of it; a longer name is cut there. Never throws, and a
// refusal is ignored: the name only helps a reader, nothing depends on it.
#pragma once

namespace storage::overlayprovider {

void nameThisThread(const char* name) noexcept;

}  // namespace storage::overlayprovider
