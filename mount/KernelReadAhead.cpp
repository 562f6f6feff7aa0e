#include "KernelReadAhead.h"

#include "MountLog.h"

#include <fstream>
#include <sstream>

namespace storage::mount {

namespace {

// mountinfo writes a space, tab, newline and backslash in a path as an octal escape (\040).
std::string unescaped(const std::string& field) {
  const auto octal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    const bool escape = field[i] == '\\' && i + 3 < field.size() && octal(field[i + 1]) &&
                        octal(field[i + 2]) && octal(field[i + 3]);
    if (!escape) {
      out.push_back(field[i]);
      continue;
    }
    out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                    (field[i + 3] - '0')));
    i += 3;
  }
  return out;
}

}  // namespace

std::optional<std::string> mountedDevice(const std::string& mountinfo,
                                         const std::string& mountpoint) {
  std::optional<std::string> device;
  std::istringstream lines(mountinfo);
  std::string line;
  while (std::getline(lines, line)) {
    // mount ID, parent ID, major:minor, root, mount point, ...
    std::istringstream fields(line);
    std::string id, parent, majorMinor, root, point;
    if (!(fields >> id >> parent >> majorMinor >> root >> point)) continue;
    if (unescaped(point) == mountpoint) device = majorMinor;
  }
  return device;
}

std::string setKernelReadAhead(const std::string& mountpoint, unsigned kibibytes) {
  std::ifstream mountinfo("/proc/self/mountinfo");
  std::stringstream text;
  text << mountinfo.rdbuf();
  const auto device = mountedDevice(text.str(), mountpoint);
  if (!device) return "kernel read-ahead not set: the mount is not in /proc/self/mountinfo";
  const std::string setting = "/sys/class/bdi/" + *device + "/read_ahead_kb";
  std::ofstream out(setting);
  out << kibibytes << std::flush;
  if (!out) return "kernel read-ahead not set: cannot write " + setting + " (it needs root)";
  return "kernel read-ahead " + std::to_string(kibibytes) + " KiB";
}

void setKernelReadAheadLogged(const std::string& mountpoint, unsigned kibibytes) noexcept {
  try {
    if (kibibytes == 0) return;
    // Set first: a log record whose severity is masked never evaluates what it streams.
    const auto outcome = setKernelReadAhead(mountpoint, kibibytes);
    MOUNT_LOG(foundation::log::notice) << outcome;
  } catch (...) {
    logCaughtException("setting the kernel's read-ahead");
  }
}

}  // namespace storage::mount
