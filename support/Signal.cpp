#include "support/Signal.h"

#include <boost/signals2/shared_connection_block.hpp>
#include <boost/signals2/signal.hpp>

#include <new>

namespace QEL { namespace Tools {

namespace {

using BoostSignal = boost::signals2::signal<void(const void*)>;
using BoostConnection = boost::signals2::connection;
using BoostBlock = boost::signals2::shared_connection_block;

template <class T, std::size_t Size>
T& In(unsigned char (&storage)[Size])
{
    static_assert(sizeof(T) <= Size, "the storage is too small");
    return *std::launder(reinterpret_cast<T*>(storage));
}

template <class T, std::size_t Size>
const T& In(const unsigned char (&storage)[Size])
{
    static_assert(sizeof(T) <= Size, "the storage is too small");
    return *std::launder(reinterpret_cast<const T*>(storage));
}

}

Connection::Connection() { new (storage) BoostConnection(); }
Connection::Connection(const Connection& other) { new (storage) BoostConnection(In<BoostConnection>(other.storage)); }
Connection& Connection::operator=(const Connection& other)
{
    if (this != &other)
        In<BoostConnection>(storage) = In<BoostConnection>(other.storage);
    return *this;
}
Connection::~Connection() { In<BoostConnection>(storage).~BoostConnection(); }
void Connection::Disconnect() { In<BoostConnection>(storage).disconnect(); }
bool Connection::IsConnected() const { return In<BoostConnection>(storage).connected(); }

ConnectionBlock::ConnectionBlock(const Connection& connection)
{
    new (storage) BoostBlock(In<BoostConnection>(connection.storage));
}
ConnectionBlock::~ConnectionBlock() { In<BoostBlock>(storage).~BoostBlock(); }

struct SignalCore::Impl {
    mutable BoostSignal signal;
};

SignalCore::SignalCore() : impl(new Impl) {}
SignalCore::~SignalCore() = default;

Connection SignalCore::Connect(const ErasedSlot& slot)
{
    Connection connection;
    In<BoostConnection>(connection.storage) = impl->signal.connect(slot);
    return connection;
}

Connection SignalCore::Connect(const ErasedSlot& slot, const std::weak_ptr<void>& tracked)
{
    Connection connection;
    // The slot keeps its object alive itself rather than through the signal's
    // foreign tracking, which copies the locked pointer onto the heap on every
    // firing; once the object is gone the slot disconnects itself.
    In<BoostConnection>(connection.storage) = impl->signal.connect_extended(
        [slot, tracked](const BoostConnection& self, const void* arguments) {
            if (const std::shared_ptr<void> alive = tracked.lock())
                slot(arguments);
            else
                self.disconnect();
        });
    return connection;
}

void SignalCore::Fire(const void* arguments) const { impl->signal(arguments); }
std::size_t SignalCore::GetNumSlots() const { return impl->signal.num_slots(); }
void SignalCore::DisconnectAll() { impl->signal.disconnect_all_slots(); }

} }
