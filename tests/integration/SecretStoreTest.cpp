// The credential stores on the real parts: the Secret Service of the desktop session
// (gnome-keyring here), the 0600 file store, and the switch between them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "core/runtime/Uuid.h"
#include "core/session/KeychainError.h"
#include "linux/FallbackSecretStore.h"
#include "linux/FileSecretStore.h"
#include "linux/LibsecretStore.h"
#include "support/Fakes.h"

namespace pavix::test {
namespace {

using std::chrono::milliseconds;

TEST(SecretService, StoresReplacesAndRemovesOneItemPerAccount) {
    LibsecretStore store(milliseconds(10'000));
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

class TemporaryFolder {
  public:
    TemporaryFolder() {
        char pattern[] = "/tmp/pavix-secrets.XXXXXX";
        path_ = ::mkdtemp(pattern);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

TEST(FileSecretStore, KeepsSecretsReadableOnlyByTheUser) {
    TemporaryFolder scratch;
    FileSecretStore store(scratch.path() / "credentials");
    EXPECT_EQ(store.load("svc", "https://a.example"), std::nullopt);
    store.save("svc", "https://a.example", "label", "secret-a");
    store.save("svc", "https://b.example", "label", "secret-b");
    EXPECT_EQ(store.load("svc", "https://a.example"), "secret-a");
    EXPECT_EQ(store.load("svc", "https://b.example"), "secret-b");

    struct stat info {};
    ASSERT_EQ(::stat((scratch.path() / "credentials").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    for (const auto& entry : std::filesystem::directory_iterator(scratch.path() / "credentials")) {
        ASSERT_EQ(::stat(entry.path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u) << entry.path();
        EXPECT_EQ(entry.path().filename().string().find("a.example"), std::string::npos);
    }

    // A damaged file is an error, not a credential, and is not silently replaced.
    for (const auto& entry : std::filesystem::directory_iterator(scratch.path() / "credentials")) {
        std::ofstream(entry.path(), std::ios::trunc) << "{not json";
    }
    try {
        store.load("svc", "https://a.example");
        FAIL() << "a damaged file loaded";
    } catch (const KeychainError& e) {
        EXPECT_EQ(e.status(), KeychainError::kDecode);
    }
    store.remove("svc", "https://a.example");
    EXPECT_EQ(store.load("svc", "https://a.example"), std::nullopt);
}

TEST(FallbackSecretStore, SwitchesToFilesOnceWhenNoSecretServiceAnswers) {
    TemporaryFolder scratch;
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

}  // namespace
}  // namespace pavix::test
