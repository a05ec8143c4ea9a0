#pragma once

// Takes values off the front of a fuzzer's input; past its end every value is 0.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace QEL { namespace Fuzz {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data(data), size(size) {}

    bool Empty() const { return at >= size; }
    std::size_t Remaining() const { return size - at; }

    template <class T>
    T Take()
    {
        T value{};
        const std::size_t n = std::min(sizeof(T), Remaining());
        std::memcpy(&value, data + at, n);
        at += n;
        return value;
    }
    bool TakeBool() { return Take<std::uint8_t>() & 1; }
    // A value in [0, bound).
    std::size_t TakeBelow(std::size_t bound) { return bound == 0 ? 0 : Take<std::uint32_t>() % bound; }

    std::vector<std::uint8_t> TakeBytes(std::size_t count)
    {
        count = std::min(count, Remaining());
        std::vector<std::uint8_t> bytes(data + at, data + at + count);
        at += count;
        return bytes;
    }
    std::vector<std::uint8_t> TakeRest() { return TakeBytes(Remaining()); }
    std::string TakeString(std::size_t maxSize)
    {
        const std::vector<std::uint8_t> bytes = TakeBytes(TakeBelow(maxSize + 1));
        return std::string(bytes.begin(), bytes.end());
    }

private:
    const std::uint8_t* data;
    std::size_t size;
    std::size_t at = 0;
};

// A folder of its own for the files a harness writes, removed at exit.
const std::string& PrivateFolder();
// Writes `bytes` to `name` in the private folder and gives its path.
std::string WriteFile(const std::string& name, const std::uint8_t* bytes, std::size_t size);

} }
