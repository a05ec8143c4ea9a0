#pragma once

#include "base/BaseException.h"
#include "framework/EventSource.h"
#include "support/BasicLockable.h"
#include "support/MutexGuard.h"
#include "support/Allocation.h"

#include <cstring>
#include <deque>
#include <new>

namespace QEL { namespace Base {

// An unbounded queue of fixed-size records of type T.
template <class T>
class BasicEventQueue : public Tools::BasicLockable<EventSource> {
public:
    BasicEventQueue()
    {
        parser = Tools::MakeShared<BasicEventDataParser<T>>("Could not allocate basic event data parser.");
    }

    // The one way in. Whatever the consumer side throws stops here.
    void AddData(const T& record)
    {
        QEL::System::SharedMutexGuard guard(this->GetMutex());
        records.push_back(record);
        try {
            dataSignal();
        } catch (...) {
        }
    }

    std::shared_ptr<EventDataParser> GetEventDataParser() const override { return parser; }
    DataSignal& GetDataSignal() override { return dataSignal; }
    std::size_t GetCount() const override { return records.size(); }
    bool IsEmpty() const override { return records.empty(); }

    void GetData(void* data, std::size_t* size) override
    {
        if (records.empty())
            throw Exception("No data in the queue.", GC_ERR_ERROR);
        if (data) {
            if (!size)
                throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
            if (*size < sizeof(T))
                throw Exception("Data size too small.", GC_ERR_BUFFER_TOO_SMALL);
            std::memcpy(data, &records.front(), sizeof(T));
        }
        if (size)
            *size = sizeof(T);
        records.pop_front();
    }

    void Flush() override { records.clear(); }

private:
    std::shared_ptr<BasicEventDataParser<T>> parser;
    std::deque<T> records;
    DataSignal dataSignal;
};

} }
