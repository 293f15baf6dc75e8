// What the user does with the local library: automatic trashing of old uploaded copies,
// deleting one copy, and the support summary that carries no content.
#include <gtest/gtest.h>

#include "support/FakeCapturePlatform.h"
#include "support/LibraryRecords.h"
#include "support/StudioHarness.h"

namespace pavix::test {
namespace {

using nlohmann::json;
using Stage = LocalCapture::Stage;
namespace fs = std::filesystem;

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
