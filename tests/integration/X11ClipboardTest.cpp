// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "linux/X11Clipboard.h"

#include <X11/Xatom.h>

#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::X11TestDisplay;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// What a reader got for one conversion.
struct Answer {
    bool arrived = false;  // the owner sent SelectionNotify
    bool refused = false;  // ... naming no property
    Atom type = None;
    std::string text;                  // format-8 data
    std::vector<unsigned long> items;  // format-32 data
};

// Another application reading the clipboard the ICCCM way, on a connection of its own.
class ClipboardReader {
  public:
    ClipboardReader() : window_(XCreateSimpleWindow(d(), display_.root(), 0, 0, 1, 1, 0, 0, 0)) {
        XSync(d(), False);
    }
    ~ClipboardReader() {
        XDestroyWindow(d(), window_);
        XSync(d(), False);
    }
    Display* d() const { return display_.get(); }
    Window window() const { return window_; }
    Atom atom(const char* name) const { return display_.atom(name); }
    Window owner() const { return XGetSelectionOwner(d(), atom("CLIPBOARD")); }
    Answer read(const char* target) {
        request(target);
        return await();
    }
    void request(const char* target) {
        XConvertSelection(d(), atom("CLIPBOARD"), atom(target), atom("PAVIX_READ"), window_,
                          CurrentTime);
        XFlush(d());
    }
    // Waits for the owner's SelectionNotify and takes the property it names.
    Answer await(std::chrono::milliseconds limit = 3s) {
        XEvent event;
        if (!eventually(
                [&] { return XCheckTypedWindowEvent(d(), window_, SelectionNotify, &event); },
                limit)) {
            return {};
        }
        return take(event.xselection.property);
    }

  private:
    Answer take(Atom property) {
        Answer answer;
        answer.arrived = true;
        answer.refused = property == None;
        if (answer.refused) {
            return answer;
        }
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char* data = nullptr;
        XGetWindowProperty(d(), window_, property, 0, 1 << 28, True, AnyPropertyType, &answer.type,
                           &format, &count, &after, &data);
        if (format == 8) {
            answer.text.assign(reinterpret_cast<char*>(data), count);
        } else if (format == 32) {
            auto* values = reinterpret_cast<unsigned long*>(data);
            answer.items.assign(values, values + count);
        }
        if (data != nullptr) {
            XFree(data);
        }
        return answer;
    }
    X11TestDisplay display_;
    Window window_;
};

const std::string kSummary = "Support summary — é ✓\nRecording: 12 s, 1920×1080\n";

// A requestor that vanished before its answer disturbs none of the others.
TEST(X11Clipboard, AnotherApplicationReadsTheTextInEachTextTarget) {
    X11Clipboard clipboard;
    clipboard.setText(kSummary);
    // Its connection stays open so that window ids are not reused.
    X11TestDisplay gone;
    Window window = XCreateSimpleWindow(gone.get(), gone.root(), 0, 0, 1, 1, 0, 0, 0);
    XConvertSelection(gone.get(), gone.atom("CLIPBOARD"), gone.atom("UTF8_STRING"),
                      gone.atom("PAVIX_READ"), window, CurrentTime);
    XDestroyWindow(gone.get(), window);
    XSync(gone.get(), False);
    ClipboardReader reader;
    EXPECT_NE(reader.owner(), None);
    for (const char* target : {"UTF8_STRING", "text/plain;charset=utf-8"}) {
        auto answer = reader.read(target);
        ASSERT_TRUE(answer.arrived) << target;
        EXPECT_EQ(answer.type, reader.atom(target));
        EXPECT_EQ(answer.text, kSummary);
    }
    // Latin-1 keeps é and ×; the dash and the check mark have no Latin-1 form.
    auto latin1 = reader.read("STRING");
    EXPECT_EQ(latin1.type, XA_STRING);
    EXPECT_EQ(latin1.text, "Support summary ? \351 ?\nRecording: 12 s, 1920\3271080\n");
    auto targets = reader.read("TARGETS");
    EXPECT_EQ(targets.type, XA_ATOM);
    auto offered = [&](const char* name) {
        return std::count(targets.items.begin(), targets.items.end(), reader.atom(name)) > 0;
    };
    for (const char* name : {"TARGETS", "UTF8_STRING", "STRING", "text/plain;charset=utf-8"}) {
        EXPECT_TRUE(offered(name)) << name;
    }
    EXPECT_FALSE(offered("image/png"));
    auto image = reader.read("image/png");
    EXPECT_TRUE(image.arrived);
    EXPECT_TRUE(image.refused);
    // Malformed UTF-8 (a stray byte, an overlong "/", a cut-off "€") goes out untouched as UTF-8
    // and as '?' in Latin-1.
    const std::string malformed = "a\377b\300\257c\342\202";
    clipboard.setText(malformed);
    EXPECT_EQ(reader.read("UTF8_STRING").text, malformed);
    EXPECT_EQ(reader.read("STRING").text, "a?b??c??");
}

// Each text replaces the last, up to what one request carries; beyond, the old one stays.
TEST(X11Clipboard, SetTextAgainReplacesWhatReadersGetUpToItsLimit) {
    X11Clipboard clipboard;
    ClipboardReader reader;
    clipboard.setText("first");
    Window owner = reader.owner();
    EXPECT_EQ(reader.read("UTF8_STRING").text, "first");
    clipboard.setText("second — longer than the first");
    EXPECT_EQ(reader.owner(), owner);
    EXPECT_EQ(reader.read("UTF8_STRING").text, "second — longer than the first");
    std::string large(1 << 20, 'x');
    large.back() = '!';
    clipboard.setText(large);
    EXPECT_EQ(reader.read("UTF8_STRING").text, large);
    clipboard.setText("");
    auto empty = reader.read("UTF8_STRING");
    EXPECT_TRUE(empty.arrived);
    EXPECT_FALSE(empty.refused);
    EXPECT_EQ(empty.text, "");
    clipboard.setText("kept");
    ASSERT_GT(clipboard.maxTextBytes(), 200'000u);
    EXPECT_THAT([&] { clipboard.setText(std::string(clipboard.maxTextBytes() + 1, 'x')); },
                ThrowsMessage<std::runtime_error>(HasSubstr("too large")));
    EXPECT_EQ(reader.read("UTF8_STRING").text, "kept");
}

TEST(X11Clipboard, AnotherOwnerEndsTheAnswersUntilSetTextTakesItBack) {
    X11Clipboard clipboard;
    ClipboardReader other;
    clipboard.setText("ours");
    Window ours = other.owner();
    ASSERT_NE(ours, None);
    XSetSelectionOwner(other.d(), other.atom("CLIPBOARD"), other.window(), CurrentTime);
    XSync(other.d(), False);
    ASSERT_EQ(other.owner(), other.window());
    // A request still sent to the old owner (looked up before the change) is refused.
    XEvent event{};
    auto& stale = event.xselectionrequest;
    stale.type = SelectionRequest;
    stale.owner = ours;
    stale.requestor = other.window();
    stale.selection = other.atom("CLIPBOARD");
    stale.target = other.atom("UTF8_STRING");
    stale.property = other.atom("PAVIX_READ");
    stale.time = CurrentTime;
    XSendEvent(other.d(), ours, False, NoEventMask, &event);
    XFlush(other.d());
    auto answer = other.await();
    EXPECT_TRUE(answer.arrived);
    EXPECT_TRUE(answer.refused) << answer.text;
    clipboard.setText("ours again");
    EXPECT_EQ(other.owner(), ours);
    EXPECT_EQ(other.read("UTF8_STRING").text, "ours again");
}

TEST(X11Clipboard, DestroyingWithAReaderWaitingReturnsAndGivesTheClipboardUp) {
    ClipboardReader reader;
    auto clipboard = std::make_unique<X11Clipboard>();
    clipboard->setText("leaving");
    reader.request("UTF8_STRING");
    auto start = std::chrono::steady_clock::now();
    clipboard.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
    // Answered or not before the window went, the reader never gets a wrong text.
    auto answer = reader.await(500ms);
    if (answer.arrived && !answer.refused) {
        EXPECT_EQ(answer.text, "leaving");
    }
    EXPECT_TRUE(eventually([&] { return reader.owner() == None; }));
}

TEST(X11Clipboard, WithoutADisplayItSaysSo) {
    EXPECT_THAT([] { X11Clipboard clipboard(":4711"); },
                ThrowsMessage<std::runtime_error>(HasSubstr("clipboard is not available")));
}

}  // namespace
}  // namespace pavix
