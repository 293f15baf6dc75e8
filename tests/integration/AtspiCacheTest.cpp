// Reading an application's cache of accessible elements from the answer's bytes, and the
// places the reader accepts from a toolkit: no bus needed.
#include <gtest/gtest.h>

#include <climits>
#include <memory>

#include "linux/AtspiCache.h"

namespace pavix::test {
namespace {

struct Item {
    const char* path;
    const char* parent;
    int index, children;
    std::vector<const char*> interfaces;
    const char* name;
    unsigned role;
    std::vector<unsigned> states;  // the two words
};

using Message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

void appendReference(DBusMessageIter& into, const char* path) {
    DBusMessageIter pair;
    const char* bus = ":1.7";
    dbus_message_iter_open_container(&into, DBUS_TYPE_STRUCT, nullptr, &pair);
    dbus_message_iter_append_basic(&pair, DBUS_TYPE_STRING, &bus);
    dbus_message_iter_append_basic(&pair, DBUS_TYPE_OBJECT_PATH, &path);
    dbus_message_iter_close_container(&into, &pair);
}

// An answer in GTK's layout: a((so)(so)(so)iiassusau).
Message answer(const std::vector<Item>& items) {
    Message message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN), &dbus_message_unref);
    DBusMessageIter args, list;
    dbus_message_iter_init_append(message.get(), &args);
    dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, "((so)(so)(so)iiassusau)", &list);
    for (const auto& item : items) {
        DBusMessageIter fields, strings, words;
        dbus_message_iter_open_container(&list, DBUS_TYPE_STRUCT, nullptr, &fields);
        appendReference(fields, item.path);
        appendReference(fields, "/org/a11y/atspi/accessible/root");
        appendReference(fields, item.parent);
        dbus_message_iter_append_basic(&fields, DBUS_TYPE_INT32, &item.index);
        dbus_message_iter_append_basic(&fields, DBUS_TYPE_INT32, &item.children);
        dbus_message_iter_open_container(&fields, DBUS_TYPE_ARRAY, "s", &strings);
        for (const char* interface : item.interfaces) {
            dbus_message_iter_append_basic(&strings, DBUS_TYPE_STRING, &interface);
        }
        dbus_message_iter_close_container(&fields, &strings);
        const char* description = "";
        dbus_message_iter_append_basic(&fields, DBUS_TYPE_STRING, &item.name);
        dbus_message_iter_append_basic(&fields, DBUS_TYPE_UINT32, &item.role);
        dbus_message_iter_append_basic(&fields, DBUS_TYPE_STRING, &description);
        dbus_message_iter_open_container(&fields, DBUS_TYPE_ARRAY, "u", &words);
        for (unsigned word : item.states) {
            dbus_message_iter_append_basic(&words, DBUS_TYPE_UINT32, &word);
        }
        dbus_message_iter_close_container(&fields, &words);
        dbus_message_iter_close_container(&list, &fields);
    }
    dbus_message_iter_close_container(&args, &list);
    return message;
}

TEST(AtspiCache, ReadsEachElementsPlaceRoleStatesAndInterfaces) {
    const unsigned showing = 1U << ATSPI_STATE_SHOWING;
    const unsigned high = 1U << (ATSPI_STATE_READ_ONLY - 32);
    auto message = answer({
        {"/a/1",
         "/a/root",
         0,
         2,
         {"org.a11y.atspi.Action", "org.a11y.atspi.Component"},
         "Save",
         ATSPI_ROLE_PUSH_BUTTON,
         {showing, high}},
        {"/a/2",
         "/a/1",
         -1,
         -1,
         {"org.a11y.atspi.Text", "org.a11y.atspi.Value"},
         "",
         ATSPI_ROLE_LAST_DEFINED + 5,
         {0}},  // a role from a newer toolkit; one word of states
    });
    auto items = AtspiCache::parse(message.get());
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].path, "/a/1");
    EXPECT_EQ(items[0].parent, "/a/root");
    EXPECT_EQ(items[0].index, 0);
    EXPECT_EQ(items[0].childCount, 2);
    EXPECT_TRUE(items[0].actionInterface);
    EXPECT_FALSE(items[0].textInterface);
    EXPECT_EQ(items[0].basics.name, "Save");
    EXPECT_EQ(items[0].basics.role, ATSPI_ROLE_PUSH_BUTTON);
    EXPECT_TRUE(AtspiElementRules::has(items[0].basics.states, ATSPI_STATE_SHOWING));
    EXPECT_TRUE(AtspiElementRules::has(items[0].basics.states, ATSPI_STATE_READ_ONLY));
    EXPECT_FALSE(AtspiElementRules::has(items[0].basics.states, ATSPI_STATE_FOCUSED));

    EXPECT_EQ(items[1].index, -1);
    EXPECT_EQ(items[1].childCount, -1);
    EXPECT_TRUE(items[1].textInterface && items[1].valueInterface);
    EXPECT_FALSE(items[1].actionInterface);
    EXPECT_EQ(items[1].basics.role, ATSPI_ROLE_UNKNOWN);
    EXPECT_EQ(items[1].basics.states, 0u);
}

TEST(AtspiCache, AnAnswerOfAnotherShapeIsNotRead) {
    // Qt's older layout lists each element's children instead of its index and count.
    Message older(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN), &dbus_message_unref);
    DBusMessageIter args, list;
    dbus_message_iter_init_append(older.get(), &args);
    dbus_message_iter_open_container(&args, DBUS_TYPE_ARRAY, "((so)(so)(so)a(so)assusau)", &list);
    dbus_message_iter_close_container(&args, &list);
    EXPECT_TRUE(AtspiCache::parse(older.get()).empty());
    EXPECT_TRUE(AtspiCache::parse(nullptr).empty());
    Message error(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR), &dbus_message_unref);
    EXPECT_TRUE(AtspiCache::parse(error.get()).empty());
}

TEST(AtspiElementRules, APlaceIsTakenOnlyWhenTheToolkitGivesARealOne) {
    struct Case {
        int x, y, width, height;
        bool taken;
    } cases[] = {
        {10, 20, 30, 40, true},
        {-500, -20, 30, 40, true},           // on a monitor left of the first
        {INT_MIN, INT_MIN, 180, 21, false},  // GTK's row scrolled out of its view
        {0, INT_MIN + 40, 180, 21, false},
        {INT_MAX, 0, 10, 10, false},
        {10, 20, 0, 40, false},
        {10, 20, 30, -1, false},
    };
    for (const auto& c : cases) {
        auto frame = AtspiElementRules::frameOf(c.x, c.y, c.width, c.height);
        EXPECT_EQ(frame.has_value(), c.taken)
            << c.x << "," << c.y << " " << c.width << "x" << c.height;
        if (frame) {
            EXPECT_EQ(frame->x, c.x);
            EXPECT_EQ(frame->height, c.height);
        }
    }
}

}  // namespace
}  // namespace pavix::test
