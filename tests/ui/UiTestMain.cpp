// The application tests run inside one QApplication on the private desktop session. Listing
// the tests needs no display, so the application is made only when tests run.
#include <gtest/gtest.h>

#include <QApplication>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests)) {
        return RUN_ALL_TESTS();
    }
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
