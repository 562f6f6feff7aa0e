// cachemount: mounts a store through the overlay provider (or, with --pass-through, without
// it) with FUSE 3, so that any program works on a slow store at local speed.
//   cachemount [options] STORE MOUNTPOINT      (cachemount --help lists the options)
// Exit status: 0 after a clean unmount with every change flushed to the store; 1 when the
// mount, the store or the flush failed; 2 for a command line that cannot be used.
#include "MountLog.h"
#include "MountOptions.h"
#include "MountSession.h"

#include <foundation/log/DiagnosticLogger.h>

#include <filesystem>
#include <iostream>

namespace {

int runCommand(int argc, char** argv) {
  const auto options = storage::mount::parseMountOptions(argc, argv, std::cout);
  if (!options) return 0;
  if (options->logMask) foundation::log::setSeverityMask(*options->logMask);
  std::error_code error;
  if (!options->passThrough && !std::filesystem::is_regular_file(options->bundlePath, error)) {
    std::cerr << "cachemount: no overlay bundle at " << options->bundlePath << "\n";
    return 2;
  }
  storage::mount::MountSession session(*options, std::cerr);
  return session.run();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return runCommand(argc, argv);
  } catch (const storage::mount::UsageError& e) {
    std::cerr << "cachemount: " << e.what() << "\n";
    return 2;
  } catch (const std::exception& e) {
    std::cerr << "cachemount: " << e.what() << "\n";
    return 1;
  } catch (...) {
    std::cerr << "cachemount: unexpected failure\n";
    return 1;
  }
}
