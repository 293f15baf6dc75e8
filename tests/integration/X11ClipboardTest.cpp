// GoogleTest comes before any X11 header: Xlib defines None, Bool and Status as macros.
#include <gtest/gtest.h>

#include "linux/X11Clipboard.h"

#include <X11/Xatom.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <vector>

#include "support/X11TestWindow.h"

namespace pavix {
namespace {

using namespace std::chrono_literals;
using test::eventually;
using test::X11TestDisplay;

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
    ClipboardReader()
        : window_(XCreateSimpleWindow(display_.get(), display_.root(), 0, 0, 1, 1, 0, 0, 0)) {
        XSync(display_.get(), False);
    }
    ~ClipboardReader() {
        XDestroyWindow(display_.get(), window_);
        XSync(display_.get(), False);
    }
    ClipboardReader(const ClipboardReader&) = delete;
    ClipboardReader& operator=(const ClipboardReader&) = delete;

    X11TestDisplay& display() { return display_; }
    Window window() const { return window_; }
    Atom atom(const char* name) const { return display_.atom(name); }
    Window owner() const { return XGetSelectionOwner(display_.get(), atom("CLIPBOARD")); }

    Answer read(const char* target) {
        request(target);
        return await();
    }

    void request(const char* target) {
        XConvertSelection(display_.get(), atom("CLIPBOARD"), atom(target), atom("PAVIX_READ"),
                          window_, CurrentTime);
        XFlush(display_.get());
    }

    // Waits for the owner's SelectionNotify and takes the property it names.
    Answer await(std::chrono::milliseconds limit = 3s) {
        Display* d = display_.get();
        auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            while (XPending(d) > 0) {
                XEvent event;
                XNextEvent(d, &event);
                if (event.type == SelectionNotify && event.xselection.requestor == window_) {
                    return take(event.xselection.property);
                }
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left <= 0ms) {
                return {};
            }
            pollfd fd{ConnectionNumber(d), POLLIN, 0};
            ::poll(&fd, 1, static_cast<int>(left.count()));
        }
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
        XGetWindowProperty(display_.get(), window_, property, 0, 1 << 28, True, AnyPropertyType,
                           &answer.type, &format, &count, &after, &data);
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

TEST(X11Clipboard, AnotherApplicationReadsTheTextInEachTextTarget) {
    X11Clipboard clipboard;
    clipboard.setText(kSummary);
    ClipboardReader reader;
    EXPECT_NE(reader.owner(), None);

    auto utf8 = reader.read("UTF8_STRING");
    ASSERT_TRUE(utf8.arrived);
    EXPECT_EQ(utf8.type, reader.atom("UTF8_STRING"));
    EXPECT_EQ(utf8.text, kSummary);

    auto plain = reader.read("text/plain;charset=utf-8");
    EXPECT_EQ(plain.type, reader.atom("text/plain;charset=utf-8"));
    EXPECT_EQ(plain.text, kSummary);

    // Latin-1 keeps é and ×; the dash and the check mark have no Latin-1 form.
    auto latin1 = reader.read("STRING");
    EXPECT_EQ(latin1.type, XA_STRING);
    EXPECT_EQ(latin1.text,
              "Support summary ? \xE9 ?\nRecording: 12 s, 1920\xD7"
              "1080\n");

    auto targets = reader.read("TARGETS");
    EXPECT_EQ(targets.type, XA_ATOM);
    for (const char* name : {"TARGETS", "UTF8_STRING", "STRING", "text/plain;charset=utf-8"}) {
        EXPECT_NE(std::find(targets.items.begin(), targets.items.end(), reader.atom(name)),
                  targets.items.end())
            << name;
    }
    EXPECT_EQ(std::find(targets.items.begin(), targets.items.end(), reader.atom("image/png")),
              targets.items.end());

    auto image = reader.read("image/png");
    EXPECT_TRUE(image.arrived);
    EXPECT_TRUE(image.refused);

    // Malformed UTF-8 goes out untouched as UTF-8 and as '?' in Latin-1: a stray byte, an
    // overlong '/', a cut-off sequence.
    const std::string malformed =
        "a\xFF"
        "b\xC0\xAF"
        "c\xE2\x82";
    clipboard.setText(malformed);
    EXPECT_EQ(reader.read("UTF8_STRING").text, malformed);
    EXPECT_EQ(reader.read("STRING").text, "a?b??c??");
}

TEST(X11Clipboard, SetTextAgainReplacesWhatReadersGet) {
    X11Clipboard clipboard;
    ClipboardReader reader;
    clipboard.setText("first");
    Window owner = reader.owner();
    EXPECT_EQ(reader.read("UTF8_STRING").text, "first");

    clipboard.setText("second — longer than the first");
    EXPECT_EQ(reader.owner(), owner);
    EXPECT_EQ(reader.read("UTF8_STRING").text, "second — longer than the first");

    // Large texts up to the limit go out whole.
    std::string large(1 << 20, 'x');
    large.back() = '!';
    clipboard.setText(large);
    EXPECT_EQ(reader.read("UTF8_STRING").text, large);

    clipboard.setText("");
    auto empty = reader.read("UTF8_STRING");
    EXPECT_TRUE(empty.arrived);
    EXPECT_FALSE(empty.refused);
    EXPECT_EQ(empty.text, "");
}

TEST(X11Clipboard, AnotherOwnerEndsTheAnswersUntilSetTextTakesItBack) {
    X11Clipboard clipboard;
    ClipboardReader other;
    clipboard.setText("ours");
    Window ours = other.owner();
    ASSERT_NE(ours, None);

    Display* d = other.display().get();
    XSetSelectionOwner(d, other.atom("CLIPBOARD"), other.window(), CurrentTime);
    XSync(d, False);
    ASSERT_EQ(other.owner(), other.window());

    // A request that still reaches the old owner's window (a reader that looked the owner up
    // before the change) is refused: the text is no longer on the clipboard.
    XSelectionRequestEvent stale{};
    stale.type = SelectionRequest;
    stale.owner = ours;
    stale.requestor = other.window();
    stale.selection = other.atom("CLIPBOARD");
    stale.target = other.atom("UTF8_STRING");
    stale.property = other.atom("PAVIX_READ");
    stale.time = CurrentTime;
    XSendEvent(d, ours, False, NoEventMask, reinterpret_cast<XEvent*>(&stale));
    XFlush(d);
    auto answer = other.await();
    EXPECT_TRUE(answer.arrived);
    EXPECT_TRUE(answer.refused) << answer.text;

    clipboard.setText("ours again");
    EXPECT_EQ(other.owner(), ours);
    EXPECT_EQ(other.read("UTF8_STRING").text, "ours again");
}

TEST(X11Clipboard, ARequestorThatVanishesDoesNotDisturbTheOthers) {
    X11Clipboard clipboard;
    clipboard.setText("still served");
    // The requesting window is gone before the answer arrives. Its connection stays open: a
    // new connection would get the same window ids and could receive the late answer.
    X11TestDisplay gone;
    Window window = XCreateSimpleWindow(gone.get(), gone.root(), 0, 0, 1, 1, 0, 0, 0);
    XConvertSelection(gone.get(), gone.atom("CLIPBOARD"), gone.atom("UTF8_STRING"),
                      gone.atom("PAVIX_READ"), window, CurrentTime);
    XDestroyWindow(gone.get(), window);
    XSync(gone.get(), False);

    ClipboardReader reader;
    EXPECT_EQ(reader.read("UTF8_STRING").text, "still served");
    EXPECT_EQ(reader.read("STRING").text, "still served");
}

TEST(X11Clipboard, RefusesTooLargeATextAndKeepsTheOldOne) {
    X11Clipboard clipboard;
    clipboard.setText("kept");
    ASSERT_GT(clipboard.maxTextBytes(), 200'000u);
    std::string huge(clipboard.maxTextBytes() + 1, 'x');
    try {
        clipboard.setText(huge);
        ADD_FAILURE() << "a text beyond one request was accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("too large"), std::string::npos) << error.what();
    }
    ClipboardReader reader;
    EXPECT_EQ(reader.read("UTF8_STRING").text, "kept");
}

TEST(X11Clipboard, DestroyingWithAReaderWaitingReturnsAndGivesTheClipboardUp) {
    ClipboardReader reader;
    auto clipboard = std::make_unique<X11Clipboard>();
    clipboard->setText("leaving");
    reader.request("UTF8_STRING");
    auto start = std::chrono::steady_clock::now();
    clipboard.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);

    // Whether the request was answered before the window went depends on timing; either way
    // the reader is not left with a wrong text.
    auto answer = reader.await(500ms);
    if (answer.arrived && !answer.refused) {
        EXPECT_EQ(answer.text, "leaving");
    }
    EXPECT_TRUE(eventually([&] { return reader.owner() == None; }));
}

TEST(X11Clipboard, WithoutADisplayItSaysSo) {
    try {
        X11Clipboard clipboard(":4711");
        ADD_FAILURE() << "a clipboard without a display";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("clipboard is not available"), std::string::npos)
            << error.what();
    }
}

}  // namespace
}  // namespace pavix
