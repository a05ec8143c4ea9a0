#include "base/Exception.h"
#include "support/StaticData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

using namespace QEL;

namespace {

std::atomic<int> constructions{0};
int reportFd = -1;

void Report(char c)
{
    if (reportFd >= 0 && write(reportFd, &c, 1) != 1)
        std::abort();
}

struct Slow {
    Slow()
    {
        ++constructions;
        // Race-widening: other threads ask for the object while it is being made.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
};

struct Inner {
    ~Inner() { Report('I'); }
};

struct Outer {
    Outer() : inner(System::StaticData::Get<Inner>()) {}
    ~Outer() { Report('O'); }
    std::shared_ptr<Inner> inner;
};

std::atomic<int> failuresLeft{1};
struct FailsOnce {
    FailsOnce()
    {
        if (failuresLeft-- > 0)
            throw System::Exception("first attempt fails");
    }
};

TEST(StaticData, ConcurrentFirstUseConstructsOnce)
{
    std::vector<std::thread> threads;
    std::vector<std::shared_ptr<Slow>> got(4);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] { got[i] = System::StaticData::Get<Slow>(); });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(1, constructions.load());
    for (auto& p : got)
        EXPECT_EQ(got[0], p);
}

TEST(StaticData, NestedCreationDoesNotDeadlock)
{
    auto outer = System::StaticData::Get<Outer>();
    EXPECT_EQ(System::StaticData::Get<Inner>(), outer->inner);
}

TEST(StaticData, FailedConstructionLeavesTheSlotFree)
{
    EXPECT_THROW(System::StaticData::Get<FailsOnce>(), System::Exception);
    EXPECT_NO_THROW(System::StaticData::Get<FailsOnce>());
}

// Teardown happens at process end, so watch it from a child process.
TEST(StaticData, LaterDataDiesEarlier)
{
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        close(fds[0]);
        reportFd = fds[1];
        System::StaticData::Get<Outer>();
        std::exit(0); // runs the static destructors, and with them the teardown
    }
    close(fds[1]);
    std::string order;
    char c;
    while (read(fds[0], &c, 1) == 1)
        order += c;
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ("OI", order);
}

}
