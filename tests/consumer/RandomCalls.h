#pragma once

// Calls of the exported GenTL functions chosen by a source of numbers (a
// fuzzer's input or a random generator), with handles taken from earlier
// results, from another kind of handle, stale or forged. Shared by the call
// sequence fuzzer and the many-thread stress test.
#include "tests/consumer/GenTLFunctions.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace QEL { namespace Test {

class Choices {
public:
    virtual ~Choices() = default;
    virtual std::uint64_t Next() = 0;
    std::uint64_t Below(std::uint64_t bound) { return bound == 0 ? 0 : Next() % bound; }
    bool OneIn(std::uint64_t n) { return Below(n) == 0; }
};

// Every handle a call gave, and memory of the caller's own for announced
// buffers. Memory stays until the pool dies, so a producer that still holds an
// announced buffer never writes into freed memory; its total is capped.
class HandlePool {
public:
    enum Kind { System, Interface, Device, Stream, Buffer, Event, Port, KindCount };

    struct Entry {
        void* handle = nullptr;
        void* owner = nullptr;    // a buffer's stream, an event's source
        std::int32_t type = 0;    // an event's type
    };

    void Add(Kind kind, const Entry& entry);
    // Mostly a handle of `kind` seen before; sometimes one of another kind,
    // a null or a forged one.
    Entry Pick(Kind kind, Choices& choices);
    // Memory of the caller for DSAnnounceBuffer, or null once the cap is reached.
    void* OwnMemory(std::size_t size);
    std::size_t Count(Kind kind);

private:
    std::mutex mutex;
    std::vector<Entry> entries[KindCount];
    std::vector<std::unique_ptr<std::uint64_t[]>> memory;
    std::size_t memoryBytes = 0;
};

// Makes one call chosen by `choices`; gives the function's result.
class RandomCaller {
public:
    // `mayWaitForever`: EventGetData may wait without a time-out, for other
    // threads to end the wait with EventKill or GCCloseLib.
    RandomCaller(const GenTLFunctions& gentl, HandlePool& pool, bool mayWaitForever)
        : gentl(gentl), pool(pool), mayWaitForever(mayWaitForever)
    {
    }

    // `withLibraryCalls`: GCCloseLib followed by GCInitLib may be chosen too.
    GC_ERROR Call(Choices& choices, bool withLibraryCalls);
    const char* LastFunction() const { return lastFunction; }

    // Results a GenTL function may give.
    static bool IsGenTLResult(GC_ERROR result);

private:
    // What a consumer does first: system, interface, camera, stream, three
    // buffers queued, acquisition started and the first frame waited for,
    // each step on the previous one.
    GC_ERROR Chain(Choices& choices);
    GC_ERROR Open(Choices& choices);
    GC_ERROR Stream(Choices& choices);
    GC_ERROR Events(Choices& choices);
    GC_ERROR Ports(Choices& choices);
    GC_ERROR Infos(Choices& choices);

    const GenTLFunctions& gentl;
    HandlePool& pool;
    const bool mayWaitForever;
    const char* lastFunction = "";
};

} }
