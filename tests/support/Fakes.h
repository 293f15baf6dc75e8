#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "core/runtime/Log.h"
#include "core/session/KeychainError.h"
#include "platform/AccessibilityReader.h"
#include "platform/Clipboard.h"
#include "platform/SecretStore.h"
#include "platform/ShareableContent.h"
#include "platform/Trash.h"
#include "platform/Volume.h"

namespace pavix::test {

// Secrets in memory. `failWith` makes every call throw that keychain status.
class FakeSecretStore : public SecretStore {
  public:
    std::optional<std::string> load(const std::string& service,
                                    const std::string& account) override {
        std::lock_guard lock(mutex);
        check();
        auto found = items.find({service, account});
        return found == items.end() ? std::nullopt : std::optional(found->second);
    }
    void save(const std::string& service, const std::string& account, const std::string&,
              const std::string& secret) override {
        std::lock_guard lock(mutex);
        check();
        items[{service, account}] = secret;
    }
    void remove(const std::string& service, const std::string& account) override {
        std::lock_guard lock(mutex);
        check();
        items.erase({service, account});
    }

    std::mutex mutex;
    std::map<std::pair<std::string, std::string>, std::string> items;
    int failWith = 0;

  private:
    void check() const {
        if (failWith != 0) {
            throw KeychainError(failWith);
        }
    }
};

// An accessibility bus with one scripted tree for every window; it counts the reads.
class FakeAccessibility : public AccessibilityReader {
  public:
    bool reachable() override { return on; }
    std::optional<AccessibleElement> read(const ControlledWindow& window,
                                          const OutlineOptions&) override {
        std::lock_guard lock(mutex);
        ++reads;
        lastWindow = window;
        return tree;
    }

    std::mutex mutex;
    bool on = true;
    std::optional<AccessibleElement> tree;
    int reads = 0;
    ControlledWindow lastWindow;
};

class FakeShareableContent : public ShareableContent {
  public:
    ShareableContentSnapshot current() override {
        std::lock_guard lock(mutex);
        return snapshot;
    }
    void set(ShareableContentSnapshot next) {
        std::lock_guard lock(mutex);
        snapshot = std::move(next);
    }

    std::mutex mutex;
    ShareableContentSnapshot snapshot;
};

class FakeVolume : public Volume {
  public:
    std::optional<std::int64_t> freeBytes(const std::filesystem::path&) override {
        std::lock_guard lock(mutex);
        return free;
    }
    void set(std::optional<std::int64_t> bytes) {
        std::lock_guard lock(mutex);
        free = bytes;
    }

    std::mutex mutex;
    std::optional<std::int64_t> free = 10'000'000'000;
};

// A trash can in a folder of the test's own: moved files keep their bytes there. `refuse`
// makes it answer as a volume without a trash.
class FakeTrash : public Trash {
  public:
    void moveToTrash(const std::filesystem::path& file) override {
        std::lock_guard lock(mutex);
        if (refuse) {
            throw Trash::NotSupported("This volume has no Trash. The file stays where it is.");
        }
        std::filesystem::create_directories(folder);
        auto target = folder / (std::to_string(moved_.size()) + "-" + file.filename().string());
        std::filesystem::rename(file, target);
        moved_.push_back(file);
    }
    // The files moved so far; a copy, as the library moves them on its worker threads.
    std::vector<std::filesystem::path> moved() {
        std::lock_guard lock(mutex);
        return moved_;
    }
    std::mutex mutex;
    std::filesystem::path folder;
    bool refuse = false;

  private:
    std::vector<std::filesystem::path> moved_;
};

class FakeClipboard : public Clipboard {
  public:
    void setText(const std::string& value) override { text = value; }
    std::string text;
};

// Keeps every log line for inspection.
class CapturingLog : public Log {
  public:
    void line(const std::string& text) override {
        std::lock_guard lock(mutex_);
        lines_.push_back(text);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    bool contains(const std::string& fragment) const {
        for (const auto& line : lines()) {
            if (line.find(fragment) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace pavix::test
