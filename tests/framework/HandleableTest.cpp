#include "entry/BasicTransportLayer.h"
#include "framework/Handleable.h"
#include "support/BasicLockable.h"

#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace QEL;
using namespace QEL::Base;

namespace {

// Distinct handle types per test keep the tables of one test apart from the others.
class Port : public virtual Handleable {};
class Event : public virtual Handleable {};

template <std::int32_t Type>
class Object : public Tools::BasicLockable<Port> {
public:
    std::int32_t GetHandleType() const override { return Type; }
};

template <std::int32_t Type>
class EventObject : public Tools::BasicLockable<Event> {
public:
    std::int32_t GetHandleType() const override { return Type; }
};


const std::pair<GC_ERROR, std::string> kInvalid{GC_ERR_INVALID_HANDLE, "Invalid handle passed."};


TEST(Handles, LayoutAndStableValues)
{
    auto a = std::make_shared<Object<201>>();
    auto b = std::make_shared<Object<201>>();
    std::uint64_t ha = Handleable::GetHandle(a);
    EXPECT_EQ(201u, ha >> Handleable::TypeShift);
    EXPECT_EQ(1u, ha & Handleable::PositionMask);
    EXPECT_EQ(ha, Handleable::GetHandle(a)) << "asking twice gives the same handle";
    EXPECT_EQ(2u, Handleable::GetHandle(b) & Handleable::PositionMask);
    EXPECT_EQ(a, Handleable::FromHandle(ha));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No object passed."),
              Failure([] { Handleable::GetHandle(nullptr); }));
}

// A handle travels as the consumer's void*: type and position fit in a
// pointer's width, the type byte on top, and a position that would reach
// into the type is refused.
TEST(Handles, TypeAndPositionFitInAPointer)
{
    EXPECT_EQ(sizeof(void*) * 8 - 8, Handleable::TypeShift);
    const std::uint64_t last = Handleable::Compose(203, Handleable::PositionMask - 1);
    EXPECT_EQ(Handleable::PositionMask, last & Handleable::PositionMask);
    const void* asPointer = reinterpret_cast<const void*>(static_cast<std::uintptr_t>(last));
    const auto back = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(asPointer));
    EXPECT_EQ(last, back) << "nothing lost through a pointer";
    EXPECT_EQ(203u, back >> Handleable::TypeShift);
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid index passed."),
              Failure([] { Handleable::Compose(203, Handleable::PositionMask); }));
    EXPECT_EQ(kInvalid, Failure([&] { Handleable::FromHandle(last); })) << "a position past the table";
    if (sizeof(void*) < 8) {
        EXPECT_EQ(kInvalid, Failure([] { Handleable::FromHandle(std::uint64_t{1} << 40 | 1); }))
            << "bits above a pointer's width";
    }
}

TEST(Handles, ForgedAndStaleValuesAreRefused)
{
    auto a = std::make_shared<Object<202>>();
    std::uint64_t ha = Handleable::GetHandle(a);
    EXPECT_EQ(kInvalid, Failure([] { Handleable::FromHandle(std::uint64_t{0}); }));
    EXPECT_EQ(kInvalid, Failure([&] { Handleable::FromHandle(ha & ~Handleable::PositionMask); }));
    EXPECT_EQ(kInvalid, Failure([&] { Handleable::FromHandle(ha + 1); })) << "past the end of the table";
    EXPECT_EQ(kInvalid, Failure([&] { Handleable::FromHandle((std::uint64_t{250} << Handleable::TypeShift) | 1); }))
        << "a type byte nobody uses";
    EXPECT_EQ(kInvalid, Failure([] { Handleable::FromHandle(~std::uint64_t{0}); }));
    EXPECT_EQ(kInvalid, Failure([] { Handleable::FromHandle(reinterpret_cast<const void*>(0x1234)); }));
    a.reset();
    EXPECT_EQ(kInvalid, Failure([&] { Handleable::FromHandle(ha); })) << "the object is gone";
}

TEST(Handles, LowestFreePositionIsReused)
{
    auto a = std::make_shared<Object<203>>();
    auto b = std::make_shared<Object<203>>();
    auto c = std::make_shared<Object<203>>();
    Handleable::GetHandle(a);
    std::uint64_t hb = Handleable::GetHandle(b);
    Handleable::GetHandle(c);
    b.reset();
    auto d = std::make_shared<Object<203>>();
    EXPECT_EQ(hb, Handleable::GetHandle(d)) << "the stale value now reaches the new object";
    EXPECT_EQ(d, Handleable::FromHandle(hb));
    auto e = std::make_shared<Object<203>>();
    EXPECT_EQ(4u, Handleable::GetHandle(e) & Handleable::PositionMask);
}

TEST(Handles, CastsAreByTheRealClass)
{
    auto port = std::make_shared<Object<204>>();
    auto event = std::make_shared<EventObject<205>>();
    void* hp = BasicTransportLayer::MakeHandle(port);
    void* he = BasicTransportLayer::MakeHandle(event);
    EXPECT_EQ(port, BasicTransportLayer::GetHandleAs<Port>(hp));
    EXPECT_EQ(event, BasicTransportLayer::GetHandleAs<Event>(he));
    EXPECT_EQ(Err(GC_ERR_NOT_IMPLEMENTED,
                             "The module referenced by the given handle does not implement a port."),
              Failure([&] { BasicTransportLayer::GetHandleAs<Port>(he); }));
    EXPECT_EQ(kInvalid, Failure([] { BasicTransportLayer::GetHandleAs<Port>(nullptr); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No object passed."),
              Failure([] { BasicTransportLayer::MakeHandle(nullptr); }));
}

// Resolution runs in parallel with objects being born and dying: every answer
// is either the live object of that position or a clean refusal.
TEST(Handles, ConcurrentResolutionCreationAndDeath)
{
    std::vector<std::shared_ptr<Object<206>>> keep;
    std::vector<std::uint64_t> kept;
    for (int i = 0; i < 8; ++i) {
        keep.push_back(std::make_shared<Object<206>>());
        kept.push_back(Handleable::GetHandle(keep.back()));
    }
    std::atomic<bool> stop{false};
    std::atomic<long> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            while (!stop)
                for (std::size_t i = 0; i < kept.size(); ++i)
                    if (Handleable::FromHandle(kept[i]) != keep[i])
                        ++wrong;
        });
    threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i) {
            auto temp = std::make_shared<Object<206>>();
            std::uint64_t h = Handleable::GetHandle(temp);
            if (Handleable::FromHandle(h) != temp)
                ++wrong;
            temp.reset();
            try {
                Handleable::FromHandle(h);
                // Another creator may not exist here, so the position must be empty.
                ++wrong;
            } catch (const Exception&) {
            }
        }
        stop = true;
    });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(0, wrong.load());
}

}
