// The local library on a real folder: side-car format, the load rules, recovery at launch,
// expiry and retry eligibility, and writes that never lose a record.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "core/library/CaptureJournal.h"

namespace pavix {
namespace {

namespace fs = std::filesystem;
using Stage = LocalCapture::Stage;

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
    struct stat info {};
    ASSERT_EQ(::stat(journal.directory().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    ASSERT_EQ(::stat(journal.manifest(capture.id).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    std::ifstream in(journal.manifest(capture.id));
    auto json = nlohmann::json::parse(in);
    EXPECT_EQ(json, nlohmann::json::parse(R"({"id":")" + id(1) + R"(","createdAt":785000000.25,
        "stage":"saved","durationMs":4200,"width":1280,"height":720,
        "serverOrigin":"https://agent.example.com","deviceId":"device-7"})"));

    auto bare = record(id(2), 785'000'100, Stage::recording);
    journal.save(bare);
    std::ifstream bareIn(journal.manifest(bare.id));
    auto bareJson = nlohmann::json::parse(bareIn);
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
    auto json = good.toJson();
    write("notes.txt", "hello");
    write("Pavix-" + id(1) + ".mp4", "video bytes");
    write(id(3) + ".JSON", json.dump());  // extension must be exactly "json"
    write("not-a-uuid.json", json.dump());
    write(id(4) + ".json", json.dump());  // decodes, but names another record
    write(id(5) + ".json", "{\"id\": ");  // truncated
    // The good side-car as record `n`, with `key` changed (or taken out when `value` is absent).
    auto variant = [&](int n, const char* key, std::optional<nlohmann::json> value) {
        auto changed = json;
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

}  // namespace
}  // namespace pavix
