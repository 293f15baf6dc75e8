#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/capture/CaptureEncoding.h"

namespace pavix {

// How much of the machine a recording's encoder may take, and so at which size and effort a
// recording starts. A recording exists to show the user's work smoothly while the recorded
// application keeps the machine: the encoder gets at most `machineShare` of the processors, the
// rest stays with the application, the display server and the capture itself.
//
// The candidates are walked largest first; each is tried at full effort, then at reduced effort.
// The first that fits the budget at the frame rate is chosen. A hardware encoder (no CPU cost)
// always fits. When nothing fits, the smallest candidate at reduced effort is chosen anyway: a
// recording at a lower frame rate is better than none.
namespace EncoderBudget {

inline constexpr double machineShare = 0.5;

// CPU seconds to encode one frame of an encoding at its size and effort; absent when it costs
// the processors nothing (a hardware encoder).
using CostOfFrame = std::function<std::optional<double>(const CaptureEncoding&)>;

struct Plan {
    // The chosen encoding, then the smaller ones to fall back to when the encoder refuses it,
    // each at the effort that fits it best.
    std::vector<CaptureEncoding> encodings;
    double cpuPerSecond = 0;  // the chosen encoding's expected cost at the frame rate
    double budget = 0;        // CPU seconds per second the encoder may use
    bool fits = true;         // false when even the smallest at reduced effort is over budget
};

// The CPU seconds per second this many processors leave to the encoder.
double budgetFor(unsigned processors);

// Plans the start over `kept`, the encodable candidates, largest first. Empty `kept` gives an
// empty plan. Costs are asked lazily: a machine that holds the largest at full effort measures
// nothing else.
Plan plan(const std::vector<CaptureEncoding>& kept, const CostOfFrame& cost, unsigned processors,
          int frameRate);

// The log line of a plan: "encoder: 1920x1080 at reduced effort, 0.56 of 0.80 CPU s/s".
std::string describe(const Plan& plan);

}  // namespace EncoderBudget
}  // namespace pavix
