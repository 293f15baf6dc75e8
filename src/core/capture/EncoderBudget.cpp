#include "core/capture/EncoderBudget.h"

#include <algorithm>
#include <cstdio>

namespace pavix::EncoderBudget {
namespace {

struct Fit {
    CaptureEncoding encoding;
    double cpuPerSecond = 0;
    bool fits = false;
};

// The encoding at the first effort that fits, or at reduced effort when neither does.
Fit best(CaptureEncoding encoding, const CostOfFrame& cost, double budget, int frameRate) {
    Fit fit;
    for (auto effort : {EncoderEffort::full, EncoderEffort::reduced}) {
        encoding.effort = effort;
        const auto perFrame = cost(encoding);
        fit.encoding = encoding;
        fit.cpuPerSecond = perFrame.value_or(0) * frameRate;
        fit.fits = fit.cpuPerSecond <= budget;
        if (!perFrame || fit.fits) {
            break;  // without a cost it is a hardware encoder, asked at full effort: it fits
        }
    }
    return fit;
}

}  // namespace

double budgetFor(unsigned processors) {
    return machineShare * std::max(1u, processors);
}

Plan plan(const std::vector<CaptureEncoding>& kept, const CostOfFrame& cost, unsigned processors,
          int frameRate) {
    Plan result;
    result.budget = budgetFor(processors);
    std::size_t chosen = kept.size();
    for (std::size_t i = 0; i < kept.size(); ++i) {
        auto fit = best(kept[i], cost, result.budget, frameRate);
        const bool last = i + 1 == kept.size();
        if (fit.fits || last) {
            chosen = i;
            result.encodings.push_back(fit.encoding);
            result.cpuPerSecond = fit.cpuPerSecond;
            result.fits = fit.fits;
            break;
        }
    }
    for (std::size_t i = chosen + 1; i < kept.size(); ++i) {
        result.encodings.push_back(best(kept[i], cost, result.budget, frameRate).encoding);
    }
    return result;
}

std::string describe(const Plan& plan) {
    if (plan.encodings.empty()) {
        return "encoder: nothing to encode";
    }
    const auto& chosen = plan.encodings.front();
    const char* effort = chosen.requiresHardware                ? "in hardware"
                         : chosen.effort == EncoderEffort::full ? "at full effort"
                                                                : "at reduced effort";
    char line[160];
    std::snprintf(line, sizeof line, "encoder: %lldx%lld %s, %.2f of %.2f CPU s/s%s",
                  static_cast<long long>(chosen.size.width),
                  static_cast<long long>(chosen.size.height), effort, plan.cpuPerSecond,
                  plan.budget, plan.fits ? "" : " (over budget: frames may be shed)");
    return line;
}

}  // namespace pavix::EncoderBudget
