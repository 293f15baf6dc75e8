#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pavix {

// The user's settings ("allowControl", "diagnosticsOptIn", "consoleURL", ...). Read and written
// on the model executor.
class Defaults {
  public:
    virtual ~Defaults() = default;
    virtual std::optional<bool> boolean(const std::string& key) const = 0;
    virtual std::optional<std::string> text(const std::string& key) const = 0;
    virtual std::optional<long long> integer(const std::string& key) const = 0;
    virtual void set(const std::string& key, bool value) = 0;
    virtual void set(const std::string& key, const std::string& value) = 0;
    virtual void set(const std::string& key, long long value) = 0;
    virtual void remove(const std::string& key) = 0;
};

// Settings held in memory only: for tests and one-shot runs.
class MemoryDefaults : public Defaults {
  public:
    std::optional<bool> boolean(const std::string& key) const override {
        auto found = values_.find(key);
        if (found == values_.end()) {
            return std::nullopt;
        }
        return found->second == "true";
    }
    std::optional<std::string> text(const std::string& key) const override {
        auto found = values_.find(key);
        return found == values_.end() ? std::nullopt : std::optional(found->second);
    }
    std::optional<long long> integer(const std::string& key) const override {
        auto found = values_.find(key);
        if (found == values_.end()) {
            return std::nullopt;
        }
        try {
            return std::stoll(found->second);
        } catch (...) {
            return std::nullopt;
        }
    }
    void set(const std::string& key, bool value) override {
        values_[key] = value ? "true" : "false";
    }
    void set(const std::string& key, const std::string& value) override { values_[key] = value; }
    void set(const std::string& key, long long value) override {
        values_[key] = std::to_string(value);
    }
    void remove(const std::string& key) override { values_.erase(key); }

  private:
    std::map<std::string, std::string> values_;
};

}  // namespace pavix
