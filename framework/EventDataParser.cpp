#include "framework/EventDataParser.h"

#include "base/BaseException.h"
#include "support/Allocation.h"

#include <boost/format.hpp>

#include <algorithm>
#include <cstring>
#include <new>

namespace QEL { namespace Base {

namespace {

[[noreturn]] void Unsupported() { throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED); }
[[noreturn]] void NotAvailable() { throw Exception("Info not available.", GC_ERR_NOT_AVAILABLE); }

template <std::size_t N>
InfoPtr Text(const char (&field)[N])
{
    return std::make_shared<StringInfo>(field, N);
}

InfoPtr Interpret(const ErrorData& record, EVENT_DATA_INFO_CMD cmd)
{
    switch (cmd) {
    case EVENT_DATA_ID:
        return std::make_shared<Int32Info>(record.code);
    case EVENT_DATA_VALUE:
        return Text(record.text);
    case EVENT_DATA_NUMID:
        return std::make_shared<UInt64Info>(static_cast<std::uint64_t>(static_cast<std::int64_t>(record.code)));
    default:
        Unsupported();
    }
}

InfoPtr Interpret(const FeatureInvalidateData& record,
                                                               EVENT_DATA_INFO_CMD cmd)
{
    switch (cmd) {
    case EVENT_DATA_ID:
        return Text(record.name);
    case EVENT_DATA_NUMID:
        NotAvailable();
    default:
        Unsupported();
    }
}

InfoPtr Interpret(const FeatureChangeData& record, EVENT_DATA_INFO_CMD cmd)
{
    switch (cmd) {
    case EVENT_DATA_ID:
        return Text(record.name);
    case EVENT_DATA_VALUE:
        return Text(record.value);
    case EVENT_DATA_NUMID:
        NotAvailable();
    default:
        Unsupported();
    }
}

InfoPtr Interpret(const DeviceEventData<256>& record,
                                                              EVENT_DATA_INFO_CMD cmd)
{
    switch (cmd) {
    case EVENT_DATA_ID:
        return std::make_shared<StringInfo>((boost::format("%1$04X") % record.eventID).str());
    case EVENT_DATA_VALUE:
        return std::make_shared<BufferInfo>(record.data,
                                            static_cast<std::size_t>(std::min<std::uint64_t>(record.size, 256)));
    case EVENT_DATA_NUMID:
        return std::make_shared<UInt64Info>(record.eventID);
    default:
        Unsupported();
    }
}

InfoPtr Interpret(const InterfaceChangeEventData<256>& record,
                                                                       EVENT_DATA_INFO_CMD cmd)
{
    switch (cmd) {
    case 1001:
        return Text(record.deviceID);
    case 1002:
        return std::make_shared<UInt32Info>(record.changed);
    case 1003:
        return std::make_shared<UInt32Info>(record.state);
    default:
        Unsupported();
    }
}

InfoPtr Interpret(const SystemChangeEventData& record,
                                                               EVENT_DATA_INFO_CMD cmd)
{
    if (cmd != 1000)
        Unsupported();
    return std::make_shared<UInt32Info>(record.value);
}

InfoPtr Interpret(const BufferData& record, EVENT_DATA_INFO_CMD cmd)
{
    switch (cmd) {
    case EVENT_DATA_ID:
        return std::make_shared<PtrInfo>(record.bufferHandle);
    case EVENT_DATA_VALUE:
        return std::make_shared<PtrInfo>(record.userPointer);
    case EVENT_DATA_NUMID:
        return std::make_shared<UInt64Info>(reinterpret_cast<std::uintptr_t>(record.bufferHandle));
    default:
        Unsupported();
    }
}

std::size_t MaxInfoSize(const ErrorData*) { return 513; }
std::size_t MaxInfoSize(const FeatureInvalidateData*) { return 65; }
std::size_t MaxInfoSize(const FeatureChangeData*) { return 257; }
std::size_t MaxInfoSize(const DeviceEventData<256>*) { return 256; }
std::size_t MaxInfoSize(const InterfaceChangeEventData<256>*) { return 257; }
std::size_t MaxInfoSize(const SystemChangeEventData*) { return 4; }
std::size_t MaxInfoSize(const BufferData*) { return 8; }

}

template <class T>
InfoPtr BasicEventDataParser<T>::GetDataInfo(const void* buffer, std::size_t size, EVENT_DATA_INFO_CMD cmd) const
{
    if (!buffer)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    if (size != sizeof(T))
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    T record;
    std::memcpy(&record, buffer, sizeof(T));
    return Tools::Allocating("Could not allocate info.", [&] { return Interpret(record, cmd); });
}

template <class T>
std::size_t BasicEventDataParser<T>::GetMaxInfoSize() const
{
    return MaxInfoSize(static_cast<const T*>(nullptr));
}

template class BasicEventDataParser<ErrorData>;
template class BasicEventDataParser<FeatureInvalidateData>;
template class BasicEventDataParser<FeatureChangeData>;
template class BasicEventDataParser<DeviceEventData<256>>;
template class BasicEventDataParser<InterfaceChangeEventData<256>>;
template class BasicEventDataParser<SystemChangeEventData>;
template class BasicEventDataParser<BufferData>;

} }
