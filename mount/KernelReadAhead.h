// KernelReadAhead: sets how far ahead the kernel reads for this mount. The kernel gives a
// FUSE mount the block layer's default, 128 KiB, so a sequential reader's bytes reach the
// mount in requests of 256 KiB at most, and each request costs a round trip through the
// kernel and a pass through the mount (locks, a pread of the cached body, a reply). With a
// read-ahead of 1 MiB or more the kernel asks in requests as large as FUSE allows (1 MiB)
// and keeps the next one in flight while the reader copies the last: a warm sequential read
// measured 794 MiB/s with the default and 1,177 MiB/s with 1,024 KiB (fio, 1 MiB blocks).
//
// The setting lives in sysfs, in the mount's backing device
// (/sys/class/bdi/MAJOR:MINOR/read_ahead_kb), which only root may write; the device is read
// from /proc/self/mountinfo. The kernel sets a FUSE mount's read-ahead itself when the session
// starts (to at most what it offered, 128 KiB), over any earlier setting, so the session sets
// it when the mount takes its first request. Where it cannot be set the kernel's default stays
// and a notice says so: a slower read, never a failed mount.
//
// Ownership: none; functions. Threads: any; setKernelReadAheadLogged catches and logs
// everything.
#pragma once

#include <optional>
#include <string>

namespace storage::mount {

// The "MAJOR:MINOR" of the file system mounted at `mountpoint` (absolute, as mounted), from
// a mountinfo text; nothing when no line names it. The last such line wins: a mount over an
// earlier one hides it.
std::optional<std::string> mountedDevice(const std::string& mountinfo,
                                         const std::string& mountpoint);

// Sets the read-ahead of the mount at `mountpoint` to `kibibytes`. Returns what happened, for
// the mount's log.
std::string setKernelReadAhead(const std::string& mountpoint, unsigned kibibytes);
// Sets the read-ahead and logs what happened; with 0 KiB does nothing (the kernel's stays).
void setKernelReadAheadLogged(const std::string& mountpoint, unsigned kibibytes) noexcept;

}  // namespace storage::mount
