#pragma once

#include <filesystem>
#include <string>

#include "platform/VideoEncoder.h"

namespace pavix {

// The encoder's measured cost of a pixel, per effort, over this and earlier runs on this
// machine, kept in a small JSON file. One measurement varies with what else the machine is
// doing at that moment, and other work only ever adds to it; so the cheapest of the last
// `kept` measurements counts, and one busy moment does not change the recording's size or
// effort from one run to the next. The file names the machine it was measured on (processor,
// processor count, FFmpeg's codec library): figures of another machine are dropped.
//
// A file that is missing, unreadable or malformed starts a new record; one that cannot be
// written leaves this run's figures in effect. Not safe across threads: its owner serialises.
class EncoderCostRecord {
  public:
    static constexpr std::size_t kept = 5;

    EncoderCostRecord(std::filesystem::path file, std::string machine = thisMachine());

    // Records `secondsPerPixel`, measured now at `effort`, and returns the figure to use: the
    // cheapest of the kept measurements at that effort.
    double add(EncoderEffort effort, double secondsPerPixel);
    // How many measurements at `effort` the record keeps now.
    std::size_t measurements(EncoderEffort effort) const;

    // "<processor model> x<processors>, libavcodec <major>.<minor>".
    static std::string thisMachine();

  private:
    std::filesystem::path file_;
    std::string machine_;
};

}  // namespace pavix
