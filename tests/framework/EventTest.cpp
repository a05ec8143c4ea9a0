#include "TestModule.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

using namespace TestStack;
using namespace std::chrono_literals;

namespace {

constexpr std::uint64_t kInfinite = ~std::uint64_t{0};

class Events : public ::testing::Test, public Opened {
protected:
    EVENT_HANDLE Register(EVENT_TYPE type)
    {
        EVENT_HANDLE event = nullptr;
        EXPECT_EQ(GC_ERR_SUCCESS, tl.GCRegisterEvent(handle, type, &event));
        return event;
    }
    void RaiseError(GC_ERROR code, const std::string& text) { system->errors->AddData(ErrorData::Make(code, text)); }

    // Waits until `count` threads are blocked in the event, so that the order of arrival is known.
    void AwaitWaiters(EVENT_HANDLE event, std::size_t count)
    {
        auto generic = std::dynamic_pointer_cast<GenericEvent>(Handleable::FromHandle(event));
        ASSERT_TRUE(generic);
        ASSERT_TRUE(Eventually([&] { return generic->GetWaiterCount() >= count; })) << count << " waiters";
    }

    struct Result {
        GC_ERROR code = 1;
        ErrorData data{};
        std::pair<GC_ERROR, std::string> error;
        std::atomic<bool> returned{false};
    };

    std::thread Waiter(EVENT_HANDLE event, Result& result, size_t size = sizeof(ErrorData),
                       std::uint64_t timeout = kInfinite)
    {
        return std::thread([this, event, &result, size, timeout] {
            size_t n = size;
            result.code = tl.EventGetData(event, &result.data, &n, timeout);
            if (result.code != GC_ERR_SUCCESS)
                result.error = LastError();
            result.returned = true;
        });
    }
};

TEST_F(Events, TimeoutsAreReturnedNotRecorded)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    ErrorData data;
    size_t size = sizeof data;
    EXPECT_EQ(GC_ERR_TIMEOUT, tl.EventGetData(event, &data, &size, 0));
    EXPECT_EQ(Err(GC_ERR_TIMEOUT, "Timeout while getting data."), LastError()) << "timeout 0 is a thrown failure";

    RaiseError(GC_ERR_BUSY, "unrelated");
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetData(event, &data, &size, 0)) << "data waiting: no wait needed";

    size_t unused = 0;
    tl.GCGetLastError(nullptr, nullptr, &unused); // no effect on the stored error
    EXPECT_EQ(GC_ERR_TIMEOUT, tl.EventGetData(event, &data, &size, 30));
    EXPECT_EQ(Err(GC_ERR_TIMEOUT, "Timeout while getting data."), LastError()) << "unchanged by the returned timeout";
}

TEST_F(Events, AutoFlushDropsDataThatArrivesBeforeRegistration)
{
    RaiseError(GC_ERR_ERROR, "nobody listens");
    EXPECT_EQ(0u, system->errors->GetCount());
    system->kept->AddData(FeatureInvalidateData::Make("Width"));
    EVENT_HANDLE errors = Register(EVENT_ERROR);
    EVENT_HANDLE kept = Register(EVENT_FEATURE_INVALIDATE);
    auto queued = [&](EVENT_HANDLE event) {
        INFO_DATATYPE type = 0;
        size_t count = 0, size = sizeof count;
        EXPECT_EQ(GC_ERR_SUCCESS, tl.EventGetInfo(event, EVENT_NUM_IN_QUEUE, &type, &count, &size));
        return count;
    };
    EXPECT_EQ(0u, queued(errors));
    EXPECT_EQ(1u, queued(kept)) << "a source without auto-flush keeps its data";

    RaiseError(GC_ERR_ERROR, "now someone listens");
    EXPECT_EQ(1u, queued(errors));
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCUnregisterEvent(handle, EVENT_ERROR));
    EXPECT_EQ(0u, system->errors->GetCount()) << "unregistering flushes an auto-flush source";
}

TEST_F(Events, RecordsAndTheirDataInfo)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    RaiseError(GC_ERR_ERROR, std::string(600, 'x'));
    ErrorData data;
    size_t size = sizeof(ErrorData) - 1;
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL, tl.EventGetData(event, &data, &size, 0));
    EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Data size too small."), LastError());
    size = sizeof data;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetData(event, &data, &size, 0)) << "the record stayed after the refusal";
    EXPECT_EQ(516u, size);
    EXPECT_EQ(511u, std::strlen(data.text));

    INFO_DATATYPE type = 0;
    std::uint64_t numeric = 0;
    size_t infoSize = sizeof numeric;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetDataInfo(event, &data, sizeof data, EVENT_DATA_NUMID, &type, &numeric, &infoSize));
    EXPECT_EQ(0xFFFFFFFFFFFFFC17ull, numeric);
    infoSize = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetDataInfo(event, &data, sizeof data, EVENT_DATA_VALUE, &type, nullptr, &infoSize));
    EXPECT_EQ(512u, infoSize);
    EXPECT_EQ(INFO_DATATYPE_STRING, type);
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER,
              tl.EventGetDataInfo(event, &data, sizeof data - 1, EVENT_DATA_ID, &type, nullptr, &infoSize));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."), LastError());

    RaiseError(GC_ERR_BUSY, "consumed by a size query");
    size = 0;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetData(event, nullptr, &size, 0));
    EXPECT_EQ(516u, size);
    EXPECT_EQ(0u, system->errors->GetCount());

    size_t value = 0;
    infoSize = sizeof value;
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetInfo(event, EVENT_SIZE_MAX, &type, &value, &infoSize));
    EXPECT_EQ(516u, value);
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventGetInfo(event, EVENT_INFO_DATA_SIZE_MAX, &type, &value, &infoSize));
    EXPECT_EQ(513u, value);
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, tl.EventGetInfo(event, EVENT_NUM_FIRED, &type, &value, &infoSize));
}

TEST_F(Events, RegistrationRules)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    EVENT_HANDLE second = nullptr;
    EXPECT_EQ(GC_ERR_RESOURCE_IN_USE, tl.GCRegisterEvent(handle, EVENT_ERROR, &second));
    EXPECT_EQ(Err(GC_ERR_RESOURCE_IN_USE, "Event is already registered."), LastError());
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, tl.GCRegisterEvent(handle, EVENT_NEW_BUFFER, &second));
    EXPECT_EQ(GC_ERR_NOT_INITIALIZED, tl.GCUnregisterEvent(handle, EVENT_SYSTEM_CHANGE));
    EXPECT_EQ(GC_ERR_INVALID_PARAMETER, tl.GCRegisterEvent(handle, EVENT_ERROR, nullptr));

    // Ports and events are told apart by their real class.
    std::uint32_t value;
    size_t size = 4;
    EXPECT_EQ(GC_ERR_NOT_IMPLEMENTED, tl.GCReadPort(event, 0x1000, &value, &size));
    INFO_DATATYPE type;
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, tl.GCGetPortInfo(event, PORT_INFO_ID, &type, nullptr, &size));

    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCUnregisterEvent(handle, EVENT_ERROR));
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, tl.EventFlush(event)) << "the event died with its registration";
    EXPECT_EQ(Err(GC_ERR_INVALID_HANDLE, "Invalid handle passed."), LastError());
}

TEST_F(Events, TimeoutsBeyondTheClockWaitForData)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    for (std::uint64_t timeout : {std::uint64_t{1} << 40, std::uint64_t{1} << 63, kInfinite - 1}) {
        Result result;
        std::thread waiter = Waiter(event, result, sizeof(ErrorData), timeout);
        auto generic = std::dynamic_pointer_cast<GenericEvent>(Handleable::FromHandle(event));
        ASSERT_TRUE(generic);
        while (generic->GetWaiterCount() < 1 && !result.returned)
            std::this_thread::sleep_for(1ms);
        RaiseError(GC_ERR_BUSY, "worth the wait");
        waiter.join();
        EXPECT_EQ(GC_ERR_SUCCESS, result.code) << "timeout " << timeout << ": " << result.error.second;
        EXPECT_STREQ("worth the wait", result.data.text);
    }
}

TEST_F(Events, KillsEndTheOldestWaitOrAddUp)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    Result first, second;
    std::thread a = Waiter(event, first);
    AwaitWaiters(event, 1);
    std::thread b = Waiter(event, second);
    AwaitWaiters(event, 2);
    ASSERT_EQ(GC_ERR_SUCCESS, tl.EventKill(event));
    a.join();
    EXPECT_EQ(GC_ERR_ABORT, first.code);
    EXPECT_EQ(Err(GC_ERR_ABORT, "Data retrieval has been killed."), first.error);
    RaiseError(GC_ERR_BUSY, "for the second");
    b.join();
    EXPECT_EQ(GC_ERR_SUCCESS, second.code);
    EXPECT_STREQ("for the second", second.data.text);

    // Kills without a waiter add up; each one fails one later call, before any data.
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(GC_ERR_SUCCESS, tl.EventKill(event));
    RaiseError(GC_ERR_BUSY, "waits behind the kills");
    ErrorData data;
    for (int i = 0; i < 3; ++i) {
        size_t size = sizeof data;
        EXPECT_EQ(GC_ERR_ABORT, tl.EventGetData(event, &data, &size, 0));
    }
    size_t size = sizeof data;
    EXPECT_EQ(GC_ERR_SUCCESS, tl.EventGetData(event, &data, &size, 0));
}

TEST_F(Events, WaitersAreServedInArrivalOrder)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    Result first, second;
    std::thread a = Waiter(event, first);
    AwaitWaiters(event, 1);
    std::thread b = Waiter(event, second);
    AwaitWaiters(event, 2);
    RaiseError(1, "one");
    RaiseError(2, "two");
    a.join();
    b.join();
    EXPECT_EQ(1, first.data.code);
    EXPECT_EQ(2, second.data.code);
}

TEST_F(Events, TooSmallBufferOfABlockedWaiterFailsThereAndKeepsTheData)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    Result small;
    std::thread a = Waiter(event, small, 100);
    AwaitWaiters(event, 1);
    RaiseError(GC_ERR_BUSY, "kept");
    a.join();
    EXPECT_EQ(GC_ERR_BUFFER_TOO_SMALL, small.code);
    EXPECT_EQ(Err(GC_ERR_BUFFER_TOO_SMALL, "Data size too small."), small.error);
    EXPECT_EQ(1u, system->errors->GetCount());
}

TEST_F(Events, UnregisterAndCloseWakeBlockedWaiters)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    Result blocked;
    std::thread a = Waiter(event, blocked);
    AwaitWaiters(event, 1);
    ASSERT_EQ(GC_ERR_SUCCESS, tl.GCUnregisterEvent(handle, EVENT_ERROR));
    a.join();
    EXPECT_EQ(GC_ERR_ABORT, blocked.code);
    ErrorData data;
    size_t size = sizeof data;
    EXPECT_EQ(GC_ERR_INVALID_HANDLE, tl.EventGetData(event, &data, &size, 0));

    EVENT_HANDLE change = Register(EVENT_SYSTEM_CHANGE);
    Result closing;
    std::thread b([&] {
        SystemChangeEventData record;
        size_t n = sizeof record;
        closing.code = tl.EventGetData(change, &record, &n, kInfinite);
    });
    AwaitWaiters(change, 1);
    ASSERT_EQ(GC_ERR_SUCCESS, tl.TLClose(handle));
    b.join();
    EXPECT_EQ(GC_ERR_ABORT, closing.code) << "closing a module does not leave its waiters hanging";
}

TEST_F(Events, ManyProducersAndConsumers)
{
    EVENT_HANDLE event = Register(EVENT_ERROR);
    constexpr int perProducer = 300;
    std::atomic<int> received{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < 3; ++c)
        threads.emplace_back([&] {
            for (;;) {
                ErrorData data;
                size_t size = sizeof data;
                GC_ERROR rc = tl.EventGetData(event, &data, &size, 500);
                if (rc != GC_ERR_SUCCESS)
                    return;
                ++received;
            }
        });
    for (int p = 0; p < 2; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < perProducer; ++i)
                RaiseError(p, "x");
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(2 * perProducer, received.load());
}

}
