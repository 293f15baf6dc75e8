#include <gtest/gtest.h>

#include "linux/GioTrash.h"

#include <gio/gio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "support/LibraryRecords.h"

namespace pavix {
namespace {

namespace fs = std::filesystem;

using test::readBytes;

void writeAll(const fs::path& file, const std::string& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << bytes;
    ASSERT_TRUE(out.good()) << file;
}

dev_t deviceOf(const fs::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_dev : 0;
}

// One item of the trash: the file kept under files/ and its description under info/.
struct TrashEntry {
    fs::path stored;
    std::string originalPath;
    std::string info;
};

// The home trash GIO uses for files on the home volume: $XDG_DATA_HOME/Trash, as GLib reads it.
fs::path homeTrash() {
    return fs::path(g_get_user_data_dir()) / "Trash";
}

// The entries of the home trash whose original path lies in `folder`.
std::vector<TrashEntry> entriesFrom(const fs::path& folder) {
    std::vector<TrashEntry> found;
    std::error_code error;
    for (const auto& item : fs::directory_iterator(homeTrash() / "info", error)) {
        if (item.path().extension() != ".trashinfo") {
            continue;
        }
        TrashEntry entry{homeTrash() / "files" / item.path().stem(), "", readBytes(item.path())};
        std::istringstream lines(entry.info);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("Path=", 0) == 0) {
                // The path is stored URI-escaped.
                char* path = g_uri_unescape_string(line.c_str() + 5, nullptr);
                entry.originalPath = path != nullptr ? path : "";
                g_free(path);
            }
        }
        if (fs::path(entry.originalPath).parent_path() == folder) {
            found.push_back(std::move(entry));
        }
    }
    return found;
}

// Works in a folder of its own beside the home trash, so that GIO picks that trash; the trash
// entries the test made are taken out again at the end.
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

TEST_F(GioTrashTest, MovesTheFileIntoTheTrashWithItsOriginalPath) {
    auto video = folder_ / "Take 1 — été.mp4";
    std::string bytes(
        "\x00\x00\x00\x18"
        "ftypisom and more",
        21);
    writeAll(video, bytes);
    auto neighbour = folder_ / "Take 2.mp4";
    writeAll(neighbour, "kept");

    trash_.moveToTrash(video);

    EXPECT_FALSE(fs::exists(video));
    EXPECT_EQ(readBytes(neighbour), "kept");
    auto entries = entriesFrom(folder_);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].originalPath, video.string());
    EXPECT_EQ(readBytes(entries[0].stored), bytes);
    EXPECT_NE(entries[0].info.find("[Trash Info]"), std::string::npos);
    EXPECT_NE(entries[0].info.find("DeletionDate="), std::string::npos);
}

TEST_F(GioTrashTest, ASecondFileOfTheSameNameKeepsTheFirstInTheTrash) {
    auto video = folder_ / "recording.mp4";
    writeAll(video, "first take");
    trash_.moveToTrash(video);
    writeAll(video, "second take");
    trash_.moveToTrash(video);

    EXPECT_FALSE(fs::exists(video));
    auto entries = entriesFrom(folder_);
    ASSERT_EQ(entries.size(), 2u);
    std::set<std::string> contents;
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.originalPath, video.string());
        contents.insert(readBytes(entry.stored));
    }
    EXPECT_EQ(contents, (std::set<std::string>{"first take", "second take"}));
    EXPECT_NE(entries[0].stored, entries[1].stored);
}

TEST_F(GioTrashTest, NothingToTrashIsAClearErrorAndTouchesNothing) {
    auto missing = folder_ / "gone.mp4";
    try {
        trash_.moveToTrash(missing);
        ADD_FAILURE() << "a missing file was reported as trashed";
    } catch (const Trash::NotSupported& error) {
        ADD_FAILURE() << "a missing file was reported as unsupported: " << error.what();
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find(missing.string()), std::string::npos)
            << error.what();
    }

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

    GioTrash trash;
    try {
        trash.moveToTrash(name);
        ADD_FAILURE() << "GIO trashed a file on /dev/shm";
    } catch (const Trash::NotSupported& error) {
        EXPECT_STREQ(error.what(), "This volume has no Trash. The file stays where it is.");
    }
    EXPECT_EQ(readBytes(name), "still here");
}

}  // namespace
}  // namespace pavix
