// Thread names: what the system's tools show for each part, and the scope that names the
// workers a library starts.
#include "core/runtime/ThreadName.h"

#include <gtest/gtest.h>

#include <thread>

namespace pavix {
namespace {

TEST(ThreadName, AScopeNamesTheThreadsStartedInItAndGivesTheOldNameBack) {
    std::thread([] {
        nameThisThread("pavix-a-name-longer-than-fifteen");
        EXPECT_EQ(thisThreadName(), "pavix-a-name-lo");  // what Linux keeps
        std::string worker;
        {
            ThreadNameScope scope("pavix-encoder");
            // A thread started by a library inside the scope, with nothing of its own.
            std::thread([&] { worker = thisThreadName(); }).join();
        }
        EXPECT_EQ(worker, "pavix-encoder");
        EXPECT_EQ(thisThreadName(), "pavix-a-name-lo");
    }).join();
}

}  // namespace
}  // namespace pavix
