#include "core/library/CaptureJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "core/runtime/Uuid.h"

namespace pavix {
namespace {

[[noreturn]] void fail(const std::string& what, int error) {
    throw std::system_error(error, std::generic_category(), what);
}

// Owns a file descriptor.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now, reporting the error a late write-back may give.
    int close() {
        int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

  private:
    int fd_;
};

void writeAll(int fd, const std::string& bytes, const std::string& what) {
    const char* data = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            fail(what, errno);
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
}

// `id` as it goes into a file name; ids come from the service, the agent, the command line
// and files on disk.
const std::string& captureName(const std::string& id) {
    if (!Uuid::isValid(id)) {
        throw std::invalid_argument("not a capture id: " + id.substr(0, 40));
    }
    return id;
}

}  // namespace

std::filesystem::path CaptureJournal::file(const std::string& id) const {
    return directory_ / ("Pavix-" + captureName(id) + ".mp4");
}

std::filesystem::path CaptureJournal::manifest(const std::string& id) const {
    return directory_ / (captureName(id) + ".json");
}

void CaptureJournal::save(const LocalCapture& capture) const {
    std::error_code error;
    if (!std::filesystem::is_directory(directory_, error)) {
        std::filesystem::create_directories(directory_);  // throws on failure
        if (::chmod(directory_.c_str(), 0700) != 0) {
            fail("cannot protect " + directory_.string(), errno);
        }
    }
    auto bytes = capture.toJson().dump();
    auto target = manifest(capture.id);
    // The temporary name ends in ".tmp", which load() never reads.
    auto temporary = directory_ / ("." + capture.id + ".json.tmp");
    {
        FileDescriptor fd(
            ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (fd.get() < 0) {
            fail("cannot write " + temporary.string(), errno);
        }
        try {
            writeAll(fd.get(), bytes, "cannot write " + temporary.string());
            if (::fchmod(fd.get(), 0600) != 0 || ::fsync(fd.get()) != 0) {
                fail("cannot write " + temporary.string(), errno);
            }
            if (fd.close() != 0) {
                fail("cannot write " + temporary.string(), errno);
            }
        } catch (...) {
            ::unlink(temporary.c_str());  // the previous side-car stays as it was
            throw;
        }
    }
    if (::rename(temporary.c_str(), target.c_str()) != 0) {
        int code = errno;
        ::unlink(temporary.c_str());
        fail("cannot replace " + target.string(), code);
    }
    // The rename is durable only once the folder itself reaches the disk.
    FileDescriptor folder(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0) {
        ::fsync(folder.get());
    }
}

void CaptureJournal::removeManifest(const LocalCapture& capture) const {
    auto path = manifest(capture.id);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        fail("cannot remove " + path.string(), errno);
    }
}

std::vector<LocalCapture> CaptureJournal::load() const {
    std::error_code error;
    if (!std::filesystem::exists(directory_, error)) {
        return {};
    }
    std::vector<LocalCapture> captures;
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
        const auto& path = entry.path();
        if (path.extension() != ".json") {
            continue;  // exactly "json": "JSON" and the videos are not side-cars
        }
        auto name = path.stem().string();
        if (!Uuid::isValid(name)) {
            continue;
        }
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            continue;
        }
        std::stringstream bytes;
        bytes << in.rdbuf();
        auto json = nlohmann::json::parse(bytes.str(), nullptr, false);
        if (json.is_discarded()) {
            continue;
        }
        try {
            auto capture = LocalCapture::fromJson(json);
            if (capture.id != name) {
                continue;  // a side-car copied under another name is not this recording's
            }
            captures.push_back(std::move(capture));
        } catch (const std::exception&) {
            continue;
        }
    }
    std::stable_sort(
        captures.begin(), captures.end(),
        [](const LocalCapture& a, const LocalCapture& b) { return a.createdAt > b.createdAt; });
    return captures;
}

std::vector<LocalCapture> CaptureJournal::recover() const {
    // A side-car write that the last run did not finish left its temporary copy; the side-car
    // itself is whole (the old one or the new one). Only this journal's own temporaries go.
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory_, error)) {
        const auto name = entry.path().filename().string();
        const std::string suffix = ".json.tmp";
        if (name.size() == 1 + 36 + suffix.size() && name[0] == '.' &&
            name.compare(37, suffix.size(), suffix) == 0 && Uuid::isValid(name.substr(1, 36))) {
            std::filesystem::remove(entry.path(), error);
        }
    }
    auto captures = load();
    for (auto& capture : captures) {
        auto before = capture.stage;
        switch (capture.stage) {
            case LocalCapture::Stage::recording:
            case LocalCapture::Stage::finalizing:
                capture.stage = LocalCapture::Stage::interrupted;
                break;
            case LocalCapture::Stage::uploading:
                capture.stage = LocalCapture::Stage::saved;
                break;
            default:
                break;
        }
        if (capture.stage != before) {
            save(capture);
        }
    }
    return captures;
}

std::vector<LocalCapture> CaptureJournal::expired(const std::vector<LocalCapture>& captures,
                                                  double now, double retention) {
    std::vector<LocalCapture> out;
    for (const auto& capture : captures) {
        if (capture.stage == LocalCapture::Stage::uploaded && now - capture.createdAt > retention) {
            out.push_back(capture);
        }
    }
    return out;
}

}  // namespace pavix
