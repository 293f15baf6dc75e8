#pragma once

#include <filesystem>
#include <vector>

#include "core/library/LocalCapture.h"

namespace pavix {

// The local library: one folder holding each recording's video and its side-car record.
// Operations are synchronous and throw the file system's errors; the journal never deletes a
// video.
class CaptureJournal {
  public:
    explicit CaptureJournal(std::filesystem::path directory) : directory_(std::move(directory)) {}

    const std::filesystem::path& directory() const { return directory_; }

    // The video of a recording: directory + "Pavix-" + id + ".mp4". Touches nothing.
    // The video and the side-car of capture `id`. Only a UUID names a file of the library:
    // anything else throws std::invalid_argument before it can become a path.
    std::filesystem::path file(const std::string& id) const;
    std::filesystem::path manifest(const std::string& id) const;

    // Writes the side-car atomically (temporary file, fsync, rename, fsync of the folder), so
    // a reader or a crash sees the old record or the new one, never a torn one. 0600 in a
    // 0700 folder.
    void save(const LocalCapture& capture) const;
    // Removes the side-car if there is one; the video is left alone.
    void removeManifest(const LocalCapture& capture) const;
    // Every readable record, newest first. Files that are not side-cars, that do not decode,
    // or whose name is not their record's own id are skipped.
    std::vector<LocalCapture> load() const;
    // Loads, and closes what a previous run left open: recording and finalizing become
    // interrupted, uploading becomes saved; changed records are saved, and the temporary copies
    // of side-car writes that were cut short are removed.
    std::vector<LocalCapture> recover() const;

    static constexpr double uploadedRetention = 2'592'000;  // 30 days, in seconds
    // Uploaded records older than `retention` seconds at `now` (seconds since 2001).
    static std::vector<LocalCapture> expired(const std::vector<LocalCapture>& captures, double now,
                                             double retention);

  private:
    std::filesystem::path directory_;
};

}  // namespace pavix
