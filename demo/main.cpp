// overlay_demo: loads the overlay bundle the way a host does, runs a small project-tree
// workload against a slow store directly and through the overlay, checks that the store
// holds exactly what was written, and prints what it measured.
//   overlay_demo [path to the bundle library]
// Exit status: 0 when both runs left the store exactly as written, 1 when not, 2 when the
// demo could not run (bundle not loadable, a store operation failed).
#include "DemoRun.h"
#include "Report.h"

#include <foundation/host/BundleHost.h>
#include <foundation/storage/provider/ProviderRegistry.h>

#include <exception>
#include <iostream>

namespace {

constexpr std::chrono::microseconds kStoreLatency{10000};

bool reportProblems(const char* run, const overlaydemo::RunResult& result) {
  for (const auto& problem : result.problems) std::cerr << run << ": " << problem << "\n";
  return result.problems.empty();
}

int runDemo(const std::string& bundlePath) {
  foundation::host::BundleHost host;
  const auto bundle = host.load(bundlePath);
  std::cout << "Loaded bundle " << bundle.symbolicName << " (" << bundle.implementationClass
            << ") from " << bundle.path << "\n";
  const auto direct = overlaydemo::runDirect(kStoreLatency);
  const auto overlay = overlaydemo::runThroughOverlay(
      foundation::storage::provider::ProviderRegistry::instance(), kStoreLatency);
  overlaydemo::printReport(std::cout, direct, overlay, kStoreLatency);
  const bool directOk = reportProblems("direct", direct);
  const bool overlayOk = reportProblems("overlay", overlay);
  std::cout << (directOk && overlayOk
                    ? "Check passed: the store holds exactly the folders, names and bytes written."
                    : "Check FAILED: the store does not hold what was written (see above).")
            << "\n";
  return directOk && overlayOk ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return runDemo(argc > 1 ? argv[1] : OVERLAY_BUNDLE_PATH);
  } catch (const std::exception& error) {
    std::cerr << "overlay_demo: " << error.what() << "\n";
    return 2;
  }
}
