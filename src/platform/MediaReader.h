#pragma once

#include <optional>
#include <string>

namespace pavix {

// Reads facts back from a finished video file. Blocking (it opens and parses the file): call it
// off the model executor.
class MediaReader {
  public:
    virtual ~MediaReader() = default;
    // The video's duration in seconds from the file's own stream information; nothing when the
    // file cannot be read or the duration is not a finite number.
    virtual std::optional<double> duration(const std::string& path) = 0;
};

}  // namespace pavix
