#include "base/BaseException.h"
#include "entry/LibraryState.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using namespace QEL::Base;
using namespace std::chrono_literals;

namespace {

// Waits until every thread named has started and sleeps in a blocking call.
bool AllAsleep(const std::vector<ThreadId>& threads)
{
    return Eventually([&] { return std::all_of(threads.begin(), threads.end(), Asleep); });
}

std::shared_ptr<LibraryState> Initialised()
{
    auto state = std::make_shared<LibraryState>();
    auto w = state->GetWriteAccess();
    w->SetReadersBlocked(false);
    w->SetInitialized(true);
    return state;
}

TEST(LibraryState, UninitialisedTurnsReadersAway)
{
    auto state = std::make_shared<LibraryState>();
    EXPECT_FALSE(state->GetReadAccess());
    EXPECT_TRUE(Initialised()->GetReadAccess());
}

TEST(LibraryState, WriterWaitsForTheReadersInside)
{
    auto state = Initialised();
    auto reader = state->GetReadAccess();
    ASSERT_TRUE(reader);
    std::atomic<bool> closed{false};
    std::vector<ThreadId> ids(1);
    std::thread closer([&] {
        MarkThisThread(ids[0]);
        auto w = state->GetWriteAccess();
        w->SetInitialized(false);
        w->SetReadersBlocked(false);
        w->WaitForReaders();
        closed = true;
    });
    EXPECT_TRUE(AllAsleep(ids)) << "the closer waits";
    EXPECT_FALSE(closed) << "the close must wait for the body that is inside";
    EXPECT_FALSE(state->GetReadAccess()) << "new readers are turned away while closing";
    reader.reset();
    closer.join();
    EXPECT_TRUE(closed);
}

TEST(LibraryState, BlockedReadersWaitThenEnter)
{
    auto state = Initialised();
    auto w = state->GetWriteAccess();
    EXPECT_TRUE(w->AreReadersBlocked());
    std::atomic<int> admitted{0};
    std::vector<ThreadId> ids(3);
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&, i] {
            MarkThisThread(ids[static_cast<std::size_t>(i)]);
            if (state->GetReadAccess())
                ++admitted;
        });
    EXPECT_TRUE(AllAsleep(ids)) << "the readers wait";
    EXPECT_EQ(0, admitted.load());
    w.reset(); // a single wake-up runs through all waiting readers
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(3, admitted.load());
}

TEST(LibraryState, WritersAreSerialised)
{
    auto state = Initialised();
    auto first = state->GetWriteAccess();
    std::atomic<bool> second{false};
    std::vector<ThreadId> ids(1);
    std::thread t([&] {
        MarkThisThread(ids[0]);
        auto w = state->GetWriteAccess();
        second = true;
    });
    EXPECT_TRUE(AllAsleep(ids)) << "the second writer waits";
    EXPECT_FALSE(second);
    first.reset();
    t.join();
    EXPECT_TRUE(second);
}

TEST(LibraryState, StateChangesNeedBlockedReaders)
{
    auto state = Initialised();
    auto w = state->GetWriteAccess();
    w->SetReadersBlocked(false);
    try {
        w->SetInitialized(false);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ("Cannot set initialized in the current state.", e.GetText());
    }
    try {
        w->WaitForReaders();
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ("Cannot wait while readers can enter.", e.GetText());
    }
    EXPECT_TRUE(w->IsInitialized());
}

}
