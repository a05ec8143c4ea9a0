#pragma once

#include "base/Info.h"
#include "framework/EventRecords.h"

#include <cstddef>

namespace QEL { namespace Base {

// Interprets the records of one event for EventGetDataInfo.
class EventDataParser : public virtual QEL::System::Object {
public:
    virtual InfoPtr GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const = 0;
    virtual bool HasMaxSize() const = 0;
    virtual std::size_t GetMaxSize() const = 0;
    virtual bool HasMaxInfoSize() const = 0;
    virtual std::size_t GetMaxInfoSize() const = 0;
};

// The parser of records of type T. The consumer hands back the whole record
// that EventGetData gave it.
template <class T>
class BasicEventDataParser : public virtual EventDataParser {
public:
    InfoPtr GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const override;
    bool HasMaxSize() const override { return true; }
    std::size_t GetMaxSize() const override { return sizeof(T); }
    bool HasMaxInfoSize() const override { return true; }
    std::size_t GetMaxInfoSize() const override;
};


} }
