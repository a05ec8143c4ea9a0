#include "support/Allocation.h"
#include "support/Allocator.h"
#include "support/ByteOrder.h"
#include "base/Exception.h"
#include "support/Signal.h"
#include "support/TrackableObject.h"
#include "support/Version.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using namespace QEL;

namespace {

std::string MessageOf(const std::function<void()>& f)
{
    try {
        f();
    } catch (const System::Exception& e) {
        return e.GetMessage();
    }
    return "<no exception>";
}

TEST(Version, FormsAndFailures)
{
    EXPECT_EQ("1_0_1", Tools::Version(1, 0, 1).ToString('_'));
    EXPECT_EQ("1.0.1", Tools::Version(1, 0, 1).ToString('.'));
    EXPECT_EQ("2.15", Tools::Version("2.15").ToString('.'));
    EXPECT_EQ(Tools::Version(18446744073709551615ull), Tools::Version("18446744073709551615"));
    const std::uint64_t parts[] = {4, 5, 6, 7};
    EXPECT_EQ("4.5.6.7", Tools::Version(parts, 4).ToString('.'));
    EXPECT_EQ("No components passed.", MessageOf([&] { Tools::Version(parts, 0); }));
    EXPECT_EQ("No components passed.", MessageOf([] { Tools::Version(nullptr, 2); }));
    for (const char* bad : {"", "1..2", "1.x", "-1", "1.2.", "18446744073709551616"})
        EXPECT_EQ("Invalid version string passed.", MessageOf([&] { Tools::Version{std::string(bad)}; })) << bad;
}

TEST(Allocator, SizesAndFailures)
{
    System::BasicAllocator allocator;
    auto buffer = allocator.Allocate(100);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(100u, buffer->GetSize());
    EXPECT_NE(nullptr, buffer->GetData());
    EXPECT_EQ("Invalid size passed.", MessageOf([&] { allocator.Allocate(0); }));
}

TEST(Allocation, AFailedAllocationBecomesTheCallersTextAndNothingElseDoes)
{
    try {
        Tools::Allocating("Could not allocate widget.", []() -> int { throw std::bad_alloc(); });
        ADD_FAILURE() << "no exception";
    } catch (const Base::Exception& e) {
        EXPECT_EQ("Could not allocate widget.", e.GetText());
        EXPECT_EQ(GC_ERR_ERROR, e.GetCode());
    }
    // Other failures pass unchanged; results come back.
    EXPECT_THROW(Tools::Allocating("x", [] { throw std::runtime_error("other"); }), std::runtime_error);
    EXPECT_EQ(7, Tools::Allocating("x", [] { return 7; }));
    const auto text = Tools::MakeShared<std::string>("x", 3u, 'a');
    EXPECT_EQ("aaa", *text);
    struct Refused {
        Refused() { throw std::bad_alloc(); } // as a member's allocation would
    };
    EXPECT_THROW(Tools::MakeShared<Refused>("Could not allocate block."), Base::Exception);
}

TEST(ByteOrder, SwapsInPlace)
{
    std::uint32_t value = 0x11223344;
    System::SwapBytes(&value, sizeof value);
    EXPECT_EQ(0x44332211u, value);
    System::SwapBytes(&value, 1);
    EXPECT_EQ(0x44332211u, value);
    EXPECT_EQ("No data passed.", MessageOf([] { System::SwapBytes(nullptr, 4); }));
    std::uint16_t probe = 1;
    EXPECT_EQ(System::IsHostBigEndian(), *reinterpret_cast<std::uint8_t*>(&probe) == 0);
}

struct Listener : System::Object {
    int calls = 0;
    void OnValue(int v) { calls += v; }
};

class Tracked : public System::Object {};

TEST(Signal, TrackedSlotsStopWhenTheirObjectDies)
{
    Tools::Signal<void(int)> signal;
    int plain = 0;
    auto connection = signal.Connect([&](int v) { plain += v; });
    auto listener = std::make_shared<Listener>();
    signal.Connect([raw = listener.get()](int v) { raw->OnValue(v); }, listener);

    signal(2);
    EXPECT_EQ(2, plain);
    EXPECT_EQ(2, listener->calls);

    std::weak_ptr<Listener> weak = listener;
    listener.reset();
    EXPECT_TRUE(weak.expired());
    signal(3); // must not call into the dead listener
    EXPECT_EQ(5, plain);
    EXPECT_EQ(1u, signal.GetNumSlots()) << "the dead listener's slot is dropped";

    connection.Disconnect();
    signal(4);
    EXPECT_EQ(5, plain);
}

TEST(Signal, ArgumentsReachSlotsByReferenceAndInOrder)
{
    Tools::Signal<void(const std::string&, int&)> signal;
    std::vector<std::string> seen;
    const std::string text = "shared";
    signal.Connect([&](const std::string& s, int& counter) {
        EXPECT_EQ(&text, &s) << "a reference argument is not copied";
        seen.push_back("first");
        ++counter;
    });
    signal.Connect([&, count = 0](const std::string&, int& counter) mutable {
        seen.push_back("second " + std::to_string(++count));
        counter *= 10;
    });
    int counter = 0;
    signal(text, counter);
    signal(text, counter);
    EXPECT_EQ((std::vector<std::string>{"first", "second 1", "first", "second 2"}), seen);
    EXPECT_EQ(110, counter) << "slots see the caller's variable, not a copy";
    EXPECT_EQ(2u, signal.GetNumSlots());
    signal.DisconnectAll();
    signal(text, counter);
    EXPECT_EQ(110, counter);
}

TEST(Signal, BlockedAndCopiedConnections)
{
    Tools::Signal<void()> signal;
    int calls = 0;
    Tools::Connection empty;
    EXPECT_FALSE(empty.IsConnected());
    empty.Disconnect(); // harmless
    Tools::Connection connection = signal.Connect([&] { ++calls; });
    Tools::Connection copy = connection;
    EXPECT_TRUE(copy.IsConnected());
    {
        Tools::ConnectionBlock block(connection);
        signal();
        EXPECT_EQ(0, calls) << "a blocked slot is skipped";
        {
            Tools::ConnectionBlock inner(copy);
        }
        signal();
        EXPECT_EQ(0, calls) << "an inner block's end leaves the outer one";
        Tools::ConnectionBlock onNothing(empty);
    }
    signal();
    EXPECT_EQ(1, calls) << "and runs again once the block is gone";
    auto tracked = std::make_shared<int>(0);
    Tools::Connection trackedConnection = signal.Connect([&] { ++*tracked; }, tracked);
    {
        Tools::ConnectionBlock block(trackedConnection);
        signal();
        EXPECT_EQ(0, *tracked) << "a tracked slot is blocked too";
        EXPECT_EQ(2, calls);
    }
    signal();
    EXPECT_EQ(1, *tracked);
    trackedConnection.Disconnect();
    calls = 1;
    copy.Disconnect();
    EXPECT_FALSE(connection.IsConnected()) << "copies name the same link";
    signal();
    EXPECT_EQ(1, calls);
}

TEST(Signal, ATrackedObjectLivesThroughItsSlot)
{
    Tools::Signal<void()> signal;
    auto listener = std::make_shared<Listener>();
    std::weak_ptr<Listener> weak = listener;
    bool aliveInside = false;
    signal.Connect(
        [&] {
            listener.reset(); // the signal still holds it for the call
            aliveInside = !weak.expired();
        },
        listener);
    signal();
    EXPECT_TRUE(aliveInside);
    EXPECT_TRUE(weak.expired());
}

TEST(TrackableObject, HandsOutSharedPointersToItself)
{
    auto object = std::make_shared<Tools::TrackableObject<Tracked>>();
    EXPECT_EQ(object, object->GetShared());
    EXPECT_EQ(object, object->GetWeak().lock());
}

}
