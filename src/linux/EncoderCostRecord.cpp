#include "linux/EncoderCostRecord.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "linux/WholeFileWrite.h"

namespace pavix {
namespace {

const char* keyOf(EncoderEffort effort) {
    return effort == EncoderEffort::full ? "full" : "reduced";
}

// The figures of `machine` in `file`, or an empty record.
nlohmann::json read(const std::filesystem::path& file, const std::string& machine) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    auto record = nlohmann::json::parse(text.str(), nullptr, false);
    if (!record.is_object() || record.value("machine", nlohmann::json()) != machine) {
        return {{"machine", machine}};
    }
    nlohmann::json clean{{"machine", machine}};
    for (auto effort : {EncoderEffort::full, EncoderEffort::reduced}) {
        const auto figures = record.value(keyOf(effort), nlohmann::json());
        if (!figures.is_array()) {
            continue;
        }
        for (const auto& figure : figures) {
            // Seconds per pixel: a 1920x1080 frame costs well under a second.
            if (figure.is_number() && std::isfinite(figure.get<double>()) &&
                figure.get<double>() > 0 && figure.get<double>() < 1e-6) {
                clean[keyOf(effort)].push_back(figure.get<double>());
            }
        }
    }
    return clean;
}

// Replaces `file` whole; false when it cannot be written.
bool write(const std::filesystem::path& file, const nlohmann::json& record) {
    std::error_code error;
    std::filesystem::create_directories(file.parent_path(), error);
    return writeWholeFile(file, record.dump() + '\n');
}

}  // namespace

EncoderCostRecord::EncoderCostRecord(std::filesystem::path file, std::string machine)
    : file_(std::move(file)), machine_(std::move(machine)) {}

double EncoderCostRecord::add(EncoderEffort effort, double secondsPerPixel) {
    auto record = read(file_, machine_);
    auto& figures = record[keyOf(effort)];
    figures.push_back(secondsPerPixel);
    while (figures.size() > kept) {
        figures.erase(figures.begin());
    }
    write(file_, record);
    double cheapest = secondsPerPixel;
    for (const auto& figure : figures) {
        cheapest = std::min(cheapest, figure.get<double>());
    }
    return cheapest;
}

std::size_t EncoderCostRecord::measurements(EncoderEffort effort) const {
    const auto record = read(file_, machine_);
    return record.contains(keyOf(effort)) ? record[keyOf(effort)].size() : 0;
}

std::string EncoderCostRecord::thisMachine() {
    std::string model = "unknown processor";
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.rfind("model name", 0) == 0 && line.find(':') != std::string::npos) {
            model = line.substr(line.find(':') + 1);
            model.erase(0, model.find_first_not_of(" \t"));
            break;
        }
    }
    const unsigned codecs = avcodec_version();
    return model + " x" + std::to_string(std::thread::hardware_concurrency()) + ", libavcodec " +
           std::to_string(codecs >> 16) + "." + std::to_string((codecs >> 8) & 0xff);
}

}  // namespace pavix
