// The local library: on a real folder, the side-car format, the load rules, recovery at launch
// and writes that never lose a record; then what the user does with it, the automatic trashing
// of old uploaded copies, deleting one copy, and the support summary that carries no content.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "core/library/CaptureJournal.h"
#include "support/LibraryRecords.h"
#include "support/StudioHarness.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using Stage = LocalCapture::Stage;
namespace fs = std::filesystem;

class Journal : public ::testing::Test {
  protected:
    ~Journal() override { fs::remove_all(root_); }

    static fs::path temporaryFolder() {
        char pattern[] = "/tmp/pavix-journal.XXXXXX";
        return ::mkdtemp(pattern);
    }

    LocalCapture record(const std::string& id, double createdAt, Stage stage) {
        LocalCapture capture;
        capture.id = id;
        capture.createdAt = createdAt;
        capture.stage = stage;
        capture.width = 1280;
        capture.height = 720;
        return capture;
    }
    void write(const std::string& name, const std::string& text) {
        fs::create_directories(journal.directory());
        std::ofstream(journal.directory() / name) << text;
    }
    static std::string id(int n) {
        char text[40];
        std::snprintf(text, sizeof text, "0F8C2A4E-5B1D-4C7A-9E3F-%012d", n);
        return text;
    }

    fs::path root_ = temporaryFolder();
    CaptureJournal journal{root_ / "Videos/Pavix"};
};

TEST_F(Journal, SideCarsRoundTripWithTheirFormatAndPermissions) {
    EXPECT_TRUE(journal.load().empty());  // no folder yet: an empty library
    auto capture = record(id(1), 785'000'000.25, Stage::saved);
    capture.durationMs = 4'200;
    capture.serverOrigin = "https://agent.example.com";
    capture.deviceId = "device-7";
    journal.save(capture);

    EXPECT_EQ(journal.file(capture.id).filename(), "Pavix-" + id(1) + ".mp4");
    // Only a capture id names a file: nothing else gets near a path.
    for (const std::string& bad :
         std::initializer_list<std::string>{"", "../" + id(1), id(1) + "/..", "/etc/passwd",
                                            id(1) + " ", "0F8C2A4E-5B1D-4C7A-9E3F-00000000000/"}) {
        EXPECT_THROW(journal.file(bad), std::invalid_argument) << bad;
        EXPECT_THROW(journal.manifest(bad), std::invalid_argument) << bad;
    }
    auto mode = [](const fs::path& path) {
        return fs::status(path).permissions() & fs::perms::all;
    };
    EXPECT_EQ(mode(journal.directory()), fs::perms::owner_all);
    EXPECT_EQ(mode(journal.manifest(capture.id)), fs::perms::owner_read | fs::perms::owner_write);

    auto sideCar = [&](const std::string& n) {
        return json::parse(std::ifstream(journal.manifest(n)));
    };
    EXPECT_EQ(sideCar(capture.id), json::parse(R"({"id":")" + id(1) + R"(","createdAt":785000000.25,
        "stage":"saved","durationMs":4200,"width":1280,"height":720,
        "serverOrigin":"https://agent.example.com","deviceId":"device-7"})"));

    journal.save(record(id(2), 785'000'100, Stage::recording));
    auto bareJson = sideCar(id(2));
    EXPECT_FALSE(bareJson.contains("durationMs"));  // absent, never null
    EXPECT_FALSE(bareJson.contains("layers"));

    auto loaded = journal.load();
    ASSERT_EQ(loaded.size(), 2u);
    EXPECT_EQ(loaded[0].id, id(2));  // newest first
    EXPECT_EQ(loaded[1].durationMs, 4'200);
    EXPECT_EQ(loaded[1].deviceId, "device-7");
    EXPECT_FALSE(loaded[0].durationMs.has_value());
}

TEST_F(Journal, LoadSkipsWhatIsNotAValidSideCarOfItsOwnRecord) {
    auto good = record(id(1), 100, Stage::saved);
    journal.save(good);
    auto text = good.toJson();
    write("notes.txt", "hello");
    write("Pavix-" + id(1) + ".mp4", "video bytes");
    write(id(3) + ".JSON", text.dump());  // extension must be exactly "json"
    write("not-a-uuid.json", text.dump());
    write(id(4) + ".json", text.dump());  // decodes, but names another record
    write(id(5) + ".json", "{\"id\": ");  // truncated
    // The good side-car as record `n`, with `key` changed (or taken out when `value` is absent).
    auto variant = [&](int n, const char* key, std::optional<json> value) {
        auto changed = text;
        changed["id"] = id(n);
        if (value) {
            changed[key] = *value;
        } else {
            changed.erase(key);
        }
        write(id(n) + ".json", changed.dump());
    };
    variant(6, "stage", "exploded");
    variant(7, "width", std::nullopt);
    variant(8, "height", "720");  // the wrong type
    variant(9, "durationMs", nullptr);

    auto loaded = journal.load();
    ASSERT_EQ(loaded.size(), 2u);
    std::set<std::string> ids = {loaded[0].id, loaded[1].id};
    EXPECT_EQ(ids, (std::set<std::string>{id(1), id(9)}));
    for (const auto& capture : loaded) {
        EXPECT_EQ(capture.durationMs.has_value(), false);  // null reads as absent
    }
    // Nothing was touched: the skipped files and the video are all still there.
    EXPECT_TRUE(fs::exists(journal.directory() / ("Pavix-" + id(1) + ".mp4")));
    EXPECT_TRUE(fs::exists(journal.directory() / (id(5) + ".json")));
}

TEST_F(Journal, RecoveryClosesWhatTheLastRunLeftOpen) {
    // Each stage a run may leave behind, and what it becomes at the next launch.
    const std::vector<std::pair<Stage, Stage>> closes{{Stage::recording, Stage::interrupted},
                                                      {Stage::finalizing, Stage::interrupted},
                                                      {Stage::uploading, Stage::saved},
                                                      {Stage::uploaded, Stage::uploaded},
                                                      {Stage::interrupted, Stage::interrupted}};
    std::vector<Stage> expected;
    for (std::size_t n = 0; n < closes.size(); ++n) {
        journal.save(record(id(int(n)), double(n), closes[n].first));
        expected.insert(expected.begin(), closes[n].second);  // newest first
    }
    auto stagesOf = [](const std::vector<LocalCapture>& captures) {
        std::vector<Stage> stages;
        for (const auto& capture : captures) {
            stages.push_back(capture.stage);
        }
        return stages;
    };
    // A write cut short left its temporary copy: it goes; files that are not the journal's stay.
    const auto left = journal.directory() / ("." + id(0) + ".json.tmp");
    const std::vector<fs::path> others{journal.directory() / ".notes.json.tmp",
                                       journal.directory() / (id(0) + ".json.tmp")};
    for (const auto& path : others) {
        std::ofstream(path) << "{";
    }
    std::ofstream(left) << "{\"id\":";
    EXPECT_EQ(stagesOf(journal.recover()), expected);
    EXPECT_EQ(stagesOf(journal.load()), expected);  // and so on disk
    EXPECT_FALSE(fs::exists(left));
    for (const auto& path : others) {
        EXPECT_TRUE(fs::exists(path)) << path;
    }
}

// A write goes to a temporary file that is renamed over the side-car: a write that fails keeps
// the previous record, and a temporary left by an interrupted write is never read.
TEST_F(Journal, WritesNeverLoseOrTearARecord) {
    auto capture = record(id(1), 10, Stage::saved);
    journal.save(capture);
    auto temporary = journal.directory() / ("." + id(1) + ".json.tmp");
    fs::create_directory(temporary);  // in the way: the write fails before the rename
    capture.stage = Stage::uploading;
    EXPECT_THROW(journal.save(capture), std::system_error);
    ASSERT_EQ(journal.load().size(), 1u);
    EXPECT_EQ(journal.load()[0].stage, Stage::saved);

    fs::remove(temporary);
    write(temporary.filename().string(), "{\"id\":");
    capture.stage = Stage::uploaded;
    journal.save(capture);
    auto loaded = journal.load();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded[0].stage, Stage::uploaded);
    journal.removeManifest(capture);
    EXPECT_NO_THROW(journal.removeManifest(capture));
    EXPECT_TRUE(journal.load().empty());
}

class Library : public ::testing::Test {
  protected:
    // The harness's clock, in seconds since 2001.
    double now() const { return h.nowMs / 1000.0 - LocalCapture::kReferenceDateOffset; }
    LocalCapture add(Stage stage, double ageSeconds) {
        return addRecord(h.studio().journal(), stage, h.server.base(), "video bytes",
                         now() - ageSeconds);
    }
    bool listed(const LocalCapture& capture) {
        const auto& recent = h.studio().state().recent;
        return std::any_of(recent.begin(), recent.end(),
                           [&](const LocalCapture& c) { return c.id == capture.id; });
    }
    bool hasVideo(const LocalCapture& c) { return fs::exists(h.studio().journal().file(c.id)); }
    bool hasSideCar(const LocalCapture& c) {
        return fs::exists(h.studio().journal().manifest(c.id));
    }

    StudioHarness h;
    static constexpr double kDay = 86'400;
};

TEST_F(Library, RetentionTrashesOnlyUploadedCopiesOlderThanThirtyDays) {
    auto exactly = add(Stage::uploaded, 30 * kDay);
    auto older = add(Stage::uploaded, 30 * kDay + 1);
    auto oldSaved = add(Stage::saved, 300 * kDay);
    auto oldInterrupted = add(Stage::interrupted, 300 * kDay);
    auto removedByHand = add(Stage::uploaded, 40 * kDay);
    fs::remove(h.studio().journal().file(removedByHand.id));
    h.studio().loadLibrary();

    // Switched off, nothing goes, however old.
    h.studio().setAutoTrashUploaded(false);
    EXPECT_EQ(h.defaults.boolean("autoTrashUploaded"), false);
    h.await(h.studio().applyRetention());
    EXPECT_TRUE(hasSideCar(older) && hasVideo(older) && hasSideCar(removedByHand));

    // A volume without a trash keeps the copy and its record; nothing is shown.
    h.studio().setAutoTrashUploaded(true);
    auto status = h.studio().state().status;
    h.trash.refuse = true;
    h.await(h.studio().applyRetention());
    EXPECT_TRUE(hasVideo(older) && hasSideCar(older));
    EXPECT_EQ(h.studio().state().status, status);

    h.trash.refuse = false;
    h.await(h.studio().applyRetention());
    EXPECT_FALSE(hasVideo(older) || hasSideCar(older) || listed(older));
    ASSERT_EQ(h.trash.moved().size(), 1u);
    EXPECT_EQ(h.trash.moved()[0], h.studio().journal().file(older.id));
    EXPECT_EQ(readBytes(h.trash.folder / ("0-" + older.fileName())), "video bytes");
    // A copy already removed by hand loses its record too.
    EXPECT_FALSE(hasSideCar(removedByHand) || listed(removedByHand));
    for (const auto& kept : {exactly, oldSaved, oldInterrupted}) {
        EXPECT_TRUE(hasVideo(kept) && hasSideCar(kept) && listed(kept)) << kept.id;
    }
    EXPECT_EQ(h.studio().state().status, status);
}

TEST_F(Library, DeletingMovesTheCopyToTheTrashOnlyWhenItMayBeManaged) {
    auto saved = add(Stage::saved, kDay);
    auto uploading = add(Stage::uploading, kDay / 2);
    h.studio().loadLibrary();  // an upload left open becomes saved at launch
    ASSERT_TRUE(listed(uploading));
    EXPECT_EQ(h.studio().state().recent[0].stage, Stage::saved);
    EXPECT_TRUE(h.studio().canManageLocal(saved));
    EXPECT_FALSE(h.studio().canManageLocal(uploading));  // as the caller still sees it
    for (auto stage : {Stage::recording, Stage::finalizing}) {
        auto copy = saved;
        copy.stage = stage;
        EXPECT_FALSE(h.studio().canManageLocal(copy));
    }

    h.trash.refuse = true;
    h.await(h.studio().deleteLocal(saved));
    EXPECT_EQ(h.studio().state().status,
              "Could not remove the local copy. This volume has no Trash. The file stays where it "
              "is.");
    EXPECT_TRUE(hasVideo(saved) && hasSideCar(saved) && listed(saved));

    h.trash.refuse = false;
    h.await(h.studio().deleteLocal(saved));
    EXPECT_EQ(h.studio().state().status,
              "Local copy moved to Trash. Cloud recordings are unchanged.");
    EXPECT_FALSE(hasVideo(saved) || hasSideCar(saved) || listed(saved));
    EXPECT_EQ(h.trash.moved().size(), 1u);
}

TEST_F(Library, ALibraryFolderThatCannotBeListedIsSaid) {
    std::filesystem::create_directories(h.library.parent_path());
    std::ofstream(h.library) << "not a folder";
    h.studio().loadLibrary();
    EXPECT_TRUE(h.studio().state().recent.empty());
    EXPECT_EQ(h.studio().state().status,
              "Could not read local recording history. Your files remain in Videos/Pavix.");
}

TEST_F(Library, TheSupportBundleHoldsVersionsIdsStagesAndTimingsOnly) {
    h.pairWithCode();
    for (int i = 0; i < 25; ++i) {
        add(i % 2 ? Stage::saved : Stage::uploaded, i * 60.0);
    }
    h.studio().loadLibrary();

    auto text = h.studio().supportBundle();
    auto bundle = json::parse(text);
    EXPECT_EQ(text, bundle.dump(2));  // pretty-printed, keys sorted
    auto captures = bundle["captures"];
    ASSERT_EQ(captures.size(), 20u);
    bundle.erase("captures");
    EXPECT_EQ(bundle, json::parse(R"({"appVersion":"1.2.3","connected":true,
        "deviceIdPrefix":"device-1","generatedAt":"2027-01-15T08:00:00Z","lastErrorCode":"",
        "macOS":"Test OS 1.0","paired":true,"recording":false,"server":"127.0.0.1"})"));
    EXPECT_EQ(captures[0], json({{"id", Uuid::lower(h.studio().state().recent[0].id)},
                                 {"stage", "uploaded"},
                                 {"durationMs", 2500},
                                 {"bound", true},
                                 {"width", 1280},
                                 {"height", 720},
                                 {"createdAt", "2027-01-15T08:00:00Z"}}));
    // No path, file name or title of a recording.
    EXPECT_EQ(text.find(h.library.string()), std::string::npos);
    EXPECT_EQ(text.find("Pavix-"), std::string::npos);
    EXPECT_EQ(text.find("access-"), std::string::npos);

    h.await(h.studio().copySupportBundle());
    EXPECT_EQ(json::parse(h.clipboard.text)["captures"], captures);
    EXPECT_EQ(h.studio().state().status,
              "Support bundle copied. It contains versions, capture IDs, stages and timings only.");
}

}  // namespace
}  // namespace pavix::test
