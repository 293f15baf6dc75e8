#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace pavix::soak {

// A folder of the soak's own, made under `parent` with a unique name, and removed with all it
// holds when the object goes away unless it is kept. The soak writes nowhere else.
class Scratch {
  public:
    Scratch(const std::filesystem::path& parent, const std::string& name) {
        std::string pattern = (parent / (name + ".XXXXXX")).string();
        if (!::mkdtemp(pattern.data())) {
            throw std::runtime_error("cannot make a folder in " + parent.string());
        }
        path_ = pattern;
    }
    ~Scratch() {
        if (!kept_) {
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::filesystem::path& path() const { return path_; }
    void keep() { kept_ = true; }

  private:
    std::filesystem::path path_;
    bool kept_ = false;
};

}  // namespace pavix::soak
