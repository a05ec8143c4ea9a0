#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The fixed-size records that EventGetData hands to the consumer, byte for
// byte; their layouts are part of the producer's interface.
namespace QEL { namespace Base {

struct ErrorData {
    std::int32_t code;
    char text[512];

    // Keeps at most 511 bytes of the message.
    static ErrorData Make(std::int32_t code, const std::string& message);
};
static_assert(sizeof(ErrorData) == 516, "ErrorData layout");

struct FeatureInvalidateData {
    char name[64];

    static FeatureInvalidateData Make(const std::string& feature);
};
static_assert(sizeof(FeatureInvalidateData) == 64, "FeatureInvalidateData layout");

struct FeatureChangeData {
    char name[64];
    char value[256];

    static FeatureChangeData Make(const std::string& feature, const std::string& value);
};
static_assert(sizeof(FeatureChangeData) == 320, "FeatureChangeData layout");

template <std::size_t N>
struct DeviceEventData {
    std::uint16_t eventID;
    std::uint8_t padding[6];
    std::uint64_t size;
    std::uint8_t data[N];
};
static_assert(sizeof(DeviceEventData<256>) == 272, "DeviceEventData layout");
static_assert(offsetof(DeviceEventData<256>, size) == 8, "DeviceEventData layout");

template <std::size_t N>
struct InterfaceChangeEventData {
    char deviceID[N];
    std::uint32_t changed;
    std::uint32_t state;

    // Keeps at most N bytes of the ID, without a terminator then.
    static InterfaceChangeEventData Make(const std::string& id, std::uint32_t changed, std::uint32_t state);
};
static_assert(sizeof(InterfaceChangeEventData<256>) == 264, "InterfaceChangeEventData layout");

struct SystemChangeEventData {
    std::uint32_t value;
};
static_assert(sizeof(SystemChangeEventData) == 4, "SystemChangeEventData layout");

struct BufferData {
    void* bufferHandle;
    void* userPointer;
};
static_assert(sizeof(BufferData) == 2 * sizeof(void*), "BufferData layout: two pointers of the consumer's width");

} }
