#include "framework/EventRecords.h"

#include "base/BaseException.h"

#include <algorithm>
#include <cstring>

namespace QEL { namespace Base {

namespace {

// Copies `text` into a zero-filled field that must keep a terminator.
template <std::size_t N>
void CopyTerminated(char (&field)[N], const std::string& text, const char* tooLong)
{
    if (text.size() >= N)
        throw Exception(tooLong, GC_ERR_INVALID_PARAMETER);
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), text.size());
}

}

ErrorData ErrorData::Make(std::int32_t code, const std::string& message)
{
    ErrorData record{};
    record.code = code;
    std::memcpy(record.text, message.data(), std::min(message.size(), sizeof record.text - 1));
    return record;
}

FeatureInvalidateData FeatureInvalidateData::Make(const std::string& feature)
{
    FeatureInvalidateData record{};
    CopyTerminated(record.name, feature, "Feature name too long.");
    return record;
}

FeatureChangeData FeatureChangeData::Make(const std::string& feature, const std::string& value)
{
    FeatureChangeData record{};
    CopyTerminated(record.name, feature, "Feature name too long.");
    CopyTerminated(record.value, value, "Feature value too long.");
    return record;
}

template <std::size_t N>
InterfaceChangeEventData<N> InterfaceChangeEventData<N>::Make(const std::string& id, std::uint32_t changed,
                                                              std::uint32_t state)
{
    InterfaceChangeEventData<N> record{};
    std::memcpy(record.deviceID, id.data(), std::min(id.size(), N));
    record.changed = changed;
    record.state = state;
    return record;
}

template struct InterfaceChangeEventData<256>;

} }
