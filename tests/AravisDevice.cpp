#include "tests/AravisDevice.h"

#include "framework/BasePort.h"

namespace AravisTest {

ArvDevice* DeviceOverPort(QEL::Base::Port& port)
{
    auto through = [&port](auto access) {
        return [&port, access](std::uint64_t address, std::uint32_t size, void* buffer) {
            try {
                std::size_t done = size;
                access(port, address, buffer, &done);
                return done == size;
            } catch (...) {
                return false;
            }
        };
    };
    return NewDevice(
        {through([](QEL::Base::Port& p, std::uint64_t a, void* b, std::size_t* s) { p.ReadPort(a, b, s); }),
         through([](QEL::Base::Port& p, std::uint64_t a, void* b, std::size_t* s) { p.WritePort(a, b, s); })});
}

}
