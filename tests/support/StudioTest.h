#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "support/EditorDesktop.h"
#include "support/FakeCapturePlatform.h"
#include "support/ScriptedUploads.h"
#include "support/StudioHarness.h"

namespace pavix::test {

// A Studio with fake capture parts, a scripted service and its uploads. A failing test shows
// what the model logged, which is most of the story of a timing fault.
class StudioTest : public ::testing::Test {
  protected:
    explicit StudioTest(Timing timing = fastTiming()) : h(timing, capture.platform()) {}

    void TearDown() override {
        if (HasFailure()) {
            for (const auto& line : h.log.lines()) {
                std::cerr << "  log: " << line << "\n";
            }
        }
    }

    // Puts `desktop` on screen and lists its sources.
    void show(ShareableContentSnapshot desktop = editorDesktop()) {
        h.content.set(std::move(desktop));
        h.await(h.studio().refreshSources());
    }

    // Sends a command as the agent and waits for its reply.
    nlohmann::json call(const std::string& method, nlohmann::json args = nlohmann::json::array()) {
        auto id = h.service.queueCommand(method, std::move(args));
        if (!h.runUntil([&] { return h.service.result(id).has_value(); })) {
            throw std::runtime_error("no reply to " + method);
        }
        return *h.service.result(id);
    }

    static std::string path(const std::string& name) { return ScriptedService::path(name); }
    const StudioState& s() { return h.studio().state(); }
    bool published(const std::string& id) {
        auto upload = uploads.upload(id);
        return upload && upload->published;
    }

    // Pairs with a code, then ends the session: paired, not sharing.
    void pairAndLeave(const std::string& sentence = "Bye.") {
        h.pairWithCode();
        h.await(h.studio().disconnect(sentence));
    }

    testing::FakeCaptureParts capture;
    StudioHarness h;
    ScriptedUploads uploads{h.server};
};

}  // namespace pavix::test
