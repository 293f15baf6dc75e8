// Credentials in the Secret Service, the 0600 file store and the switch; the Trash via GIO.
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "IntegrationSupport.h"
#include "core/runtime/Uuid.h"
#include "core/session/KeychainError.h"
#include "linux/FallbackSecretStore.h"
#include "linux/FileSecretStore.h"
#include "linux/GioTrash.h"
#include "linux/LibsecretStore.h"
#include "support/Fakes.h"
#include "support/LibraryRecords.h"

namespace pavix::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Throws;
using ::testing::ThrowsMessage;

TEST(SecretService, StoresReplacesAndRemovesOneItemPerAccount) {
    LibsecretStore store(std::chrono::milliseconds(10'000));
    auto service = "app.pavix.Test." + Uuid::make();
    store.save(service, "https://one.example", "label", R"({"a":1})");
    store.save(service, "https://two.example", "label", R"({"b":2})");
    EXPECT_EQ(store.load(service, "https://one.example"), R"({"a":1})");
    EXPECT_EQ(store.load(service, "https://two.example"), R"({"b":2})");
    EXPECT_EQ(store.load(service, "https://three.example"), std::nullopt);
    store.save(service, "https://one.example", "label", R"({"a":3})");
    EXPECT_EQ(store.load(service, "https://one.example"), R"({"a":3})");
    store.remove(service, "https://one.example");
    EXPECT_EQ(store.load(service, "https://one.example"), std::nullopt);
    EXPECT_EQ(store.load(service, "https://two.example"), R"({"b":2})");
    EXPECT_NO_THROW(store.remove(service, "https://one.example"));
    store.remove(service, "https://two.example");
}

TEST(FileSecretStore, KeepsSecretsReadableOnlyByTheUser) {
    ScratchFolder scratch("secrets");
    const auto folder = scratch / "credentials";
    FileSecretStore store(folder);
    EXPECT_EQ(store.load("svc", "https://a.example"), std::nullopt);
    store.save("svc", "https://a.example", "label", "secret-a");
    store.save("svc", "https://b.example", "label", "secret-b");
    EXPECT_EQ(store.load("svc", "https://a.example"), "secret-a");
    EXPECT_EQ(store.load("svc", "https://b.example"), "secret-b");
    EXPECT_EQ(modeOf(folder), 0700u);
    for (const auto& entry : fs::directory_iterator(folder)) {
        EXPECT_EQ(modeOf(entry.path()), 0600u) << entry.path();
        EXPECT_EQ(entry.path().filename().string().find("a.example"), std::string::npos);
        // A damaged file is an error, not a credential, and is not silently replaced.
        std::ofstream(entry.path(), std::ios::trunc) << "{not json";
    }
    EXPECT_THAT(
        [&] { store.load("svc", "https://a.example"); },
        Throws<KeychainError>(::testing::Property(&KeychainError::status, KeychainError::kDecode)));
    store.remove("svc", "https://a.example");
    EXPECT_EQ(store.load("svc", "https://a.example"), std::nullopt);
}

TEST(FallbackSecretStore, SwitchesToFilesOnceWhenNoSecretServiceAnswers) {
    ScratchFolder scratch("secrets");
    auto keyring = std::make_unique<FakeSecretStore>();
    auto* keyringView = keyring.get();
    CapturingLog log;
    FallbackSecretStore store(std::move(keyring), std::make_unique<FileSecretStore>(scratch.path()),
                              scratch.path().string(), log);
    store.save("svc", "acct", "label", "in-keyring");
    EXPECT_FALSE(store.usingFiles());
    EXPECT_EQ(keyringView->items.size(), 1u);
    // A locked keyring is reported, never worked around.
    keyringView->failWith = KeychainError::kInteractionNotAllowed;
    EXPECT_THROW(store.load("svc", "acct"), KeychainError);
    EXPECT_FALSE(store.usingFiles());
    keyringView->failWith = KeychainError::kNotAvailable;
    store.save("svc", "acct", "label", "in-file");
    store.save("svc", "acct2", "label", "in-file-2");
    EXPECT_TRUE(store.usingFiles());
    EXPECT_EQ(store.load("svc", "acct"), "in-file");
    keyringView->failWith = 0;  // the keyring coming back does not split the credentials
    EXPECT_EQ(store.load("svc", "acct2"), "in-file-2");
    int mentions = 0;
    for (const auto& line : log.lines()) {
        mentions += line.find("no Secret Service") != std::string::npos;
    }
    EXPECT_EQ(mentions, 1);
}

void writeAll(const fs::path& file, const std::string& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.good()) << file;
}

dev_t deviceOf(const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_dev : 0;
}

// The home trash GIO uses for files on the home volume: $XDG_DATA_HOME/Trash, as GLib reads it.
fs::path homeTrash() {
    return fs::path(g_get_user_data_dir()) / "Trash";
}

// One item of the trash: the file kept under files/ and its description under info/.
struct TrashEntry {
    fs::path stored;
    std::string originalPath;
    std::string info;
};

// The entries of the home trash whose original path lies in `folder`.
std::vector<TrashEntry> entriesFrom(const fs::path& folder) {
    std::vector<TrashEntry> found;
    std::error_code error;
    for (const auto& item : fs::directory_iterator(homeTrash() / "info", error)) {
        TrashEntry entry{homeTrash() / "files" / item.path().stem(), "", readBytes(item.path())};
        std::istringstream lines(entry.info);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("Path=", 0) == 0) {
                char* path = g_uri_unescape_string(line.c_str() + 5, nullptr);  // URI-escaped
                entry.originalPath = path != nullptr ? path : "";
                g_free(path);
            }
        }
        if (item.path().extension() == ".trashinfo" &&
            fs::path(entry.originalPath).parent_path() == folder) {
            found.push_back(std::move(entry));
        }
    }
    return found;
}

// In a folder beside the home trash so that GIO picks it; its trash entries are removed.
class GioTrashTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::create_directories(g_get_user_data_dir());
        std::string pattern = (fs::path(g_get_user_data_dir()) / "pavix-trash-test.XXXXXX");
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        if (deviceOf(folder_) != deviceOf(g_get_home_dir())) {
            GTEST_SKIP() << "GIO uses the home trash only for files on the home volume, and "
                            "XDG_DATA_HOME is on another one";
        }
    }
    void TearDown() override {
        for (const auto& entry : entriesFrom(folder_)) {
            fs::remove_all(entry.stored);
            fs::remove(homeTrash() / "info" / (entry.stored.filename().string() + ".trashinfo"));
        }
        fs::remove_all(folder_);
    }
    fs::path folder_;
    GioTrash trash_;
};

// A second file of the same name keeps the first in the trash.
TEST_F(GioTrashTest, MovesEachFileIntoTheTrashWithItsOriginalPath) {
    auto video = folder_ / "Take 1 — été.mp4";
    const std::string bytes = std::string(3, '\0') + char(0x18) + "ftypisom and more";
    writeAll(folder_ / "Take 2.mp4", "kept");
    for (const auto& content : {bytes, std::string("second take")}) {
        writeAll(video, content);
        trash_.moveToTrash(video);
        EXPECT_FALSE(fs::exists(video));
    }
    EXPECT_EQ(readBytes(folder_ / "Take 2.mp4"), "kept");
    auto entries = entriesFrom(folder_);
    ASSERT_EQ(entries.size(), 2u);
    std::set<std::string> contents;
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.originalPath, video.string());
        EXPECT_NE(entry.info.find("[Trash Info]"), std::string::npos);
        EXPECT_NE(entry.info.find("DeletionDate="), std::string::npos);
        contents.insert(readBytes(entry.stored));
    }
    EXPECT_EQ(contents, (std::set<std::string>{bytes, "second take"}));
}

TEST_F(GioTrashTest, NothingToTrashIsAClearErrorAndTouchesNothing) {
    auto missing = folder_ / "gone.mp4";
    auto trashMissing = [&] { trash_.moveToTrash(missing); };
    EXPECT_THAT(trashMissing, ThrowsMessage<std::runtime_error>(HasSubstr(missing.string())));
    EXPECT_THAT(trashMissing, ::testing::Not(Throws<Trash::NotSupported>()));
    // An empty path must not be taken for the current folder.
    auto current = fs::current_path();
    EXPECT_THROW(trash_.moveToTrash(fs::path()), std::runtime_error);
    EXPECT_TRUE(fs::is_directory(current));
    EXPECT_TRUE(entriesFrom(folder_).empty());
    EXPECT_TRUE(entriesFrom(current).empty());
}

// /dev/shm is a real mount where GIO refuses to make a trash folder (a system-internal tmpfs).
TEST(GioTrash, AVolumeWithoutTrashLeavesTheFileWhereItIs) {
    if (!fs::is_directory("/dev/shm") || deviceOf("/dev/shm") == deviceOf(g_get_home_dir())) {
        GTEST_SKIP() << "/dev/shm is not a volume of its own here";
    }
    std::string name = "/dev/shm/pavix-trash-test.XXXXXX";
    int fd = ::mkstemp(name.data());
    ASSERT_GE(fd, 0);
    ::close(fd);
    struct RemoveAtEnd {
        fs::path file;
        ~RemoveAtEnd() { fs::remove(file); }
    } cleanup{name};
    writeAll(name, "still here");
    EXPECT_THAT([&] { GioTrash().moveToTrash(name); },
                ThrowsMessage<Trash::NotSupported>(
                    ::testing::StrEq("This volume has no Trash. The file stays where it is.")));
    EXPECT_EQ(readBytes(name), "still here");
}

}  // namespace
}  // namespace pavix::test
