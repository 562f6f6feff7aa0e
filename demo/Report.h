// Prints what the two demo runs measured, side by side, and a one-line reading of it that is
// derived from the numbers. Stateless; writes to the stream it is given.
#pragma once

#include "DemoRun.h"

#include <chrono>
#include <ostream>

namespace overlaydemo {

void printReport(std::ostream& out, const RunResult& direct, const RunResult& overlay,
                 std::chrono::microseconds latency);

}  // namespace overlaydemo
