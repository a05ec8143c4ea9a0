#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace QEL { namespace Sim {

// The GenCP memory of the virtual camera: fields at fixed addresses, each
// with its bytes (little endian) and hooks that give them meaning.
class MemoryMap {
public:
    enum Status : std::uint16_t {
        Success = 0x0000,
        InvalidParameter = 0x8002,
        InvalidAddress = 0x8003,
        WriteProtect = 0x8004,
    };

    struct Field {
        std::vector<std::uint8_t> bytes;
        bool writable = false;
        // Refreshes the bytes before a read.
        std::function<void(Field&)> onRead;
        // Sees a write and may change what is stored; a status other than Success
        // refuses it and the old bytes stay.
        std::function<Status(Field&, std::vector<std::uint8_t>& newBytes)> onWrite;
    };

    Field& Add(std::uint64_t address, std::size_t size, bool writable);
    Field& AddValue(std::uint64_t address, std::size_t size, std::uint64_t value, bool writable);
    Field& AddString(std::uint64_t address, std::size_t size, const std::string& text, bool writable);
    Field& AddBytes(std::uint64_t address, const std::vector<std::uint8_t>& bytes);

    Field& At(std::uint64_t address);
    std::uint64_t GetValue(std::uint64_t address);
    void SetValue(std::uint64_t address, std::uint64_t value);

    Status Read(std::uint64_t address, std::uint8_t* out, std::size_t size);
    Status Write(std::uint64_t address, const std::uint8_t* in, std::size_t size);

private:
    // The fields that cover [address, address + size) back to back, or none.
    std::vector<std::pair<std::uint64_t, Field*>> Cover(std::uint64_t address, std::size_t size);

    std::map<std::uint64_t, Field> fields;
};

} }
