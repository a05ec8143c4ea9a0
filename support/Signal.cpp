#include "support/Signal.h"

#include <boost/signals2/signal.hpp>

#include <atomic>
#include <new>

namespace QEL { namespace Tools {

namespace {

using BoostSignal = boost::signals2::signal<void(const void*)>;
using BoostConnection = boost::signals2::connection;
// Blocks are counted per link rather than with the library's shared blocker,
// which allocates for every block: an event blocks its data connection on
// every call that takes data.
using BlockCount = std::shared_ptr<std::atomic<unsigned>>;

struct Link {
    BoostConnection connection;
    BlockCount blocks;
};

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

bool IsBlocked(const BlockCount& blocks) { return blocks->load(std::memory_order_acquire) != 0; }

}

Connection::Connection() { new (storage) Link(); }
Connection::Connection(const Connection& other) { new (storage) Link(In<Link>(other.storage)); }
Connection& Connection::operator=(const Connection& other)
{
    if (this != &other)
        In<Link>(storage) = In<Link>(other.storage);
    return *this;
}
Connection::~Connection() { In<Link>(storage).~Link(); }
void Connection::Disconnect() { In<Link>(storage).connection.disconnect(); }
bool Connection::IsConnected() const { return In<Link>(storage).connection.connected(); }

ConnectionBlock::ConnectionBlock(const Connection& connection)
{
    const BlockCount& blocks = In<Link>(connection.storage).blocks;
    new (storage) BlockCount(blocks);
    if (blocks)
        blocks->fetch_add(1, std::memory_order_acq_rel);
}
ConnectionBlock::~ConnectionBlock()
{
    BlockCount& blocks = In<BlockCount>(storage);
    if (blocks)
        blocks->fetch_sub(1, std::memory_order_acq_rel);
    blocks.~BlockCount();
}

struct SignalCore::Impl {
    mutable BoostSignal signal;
};

SignalCore::SignalCore() : impl(new Impl) {}
SignalCore::~SignalCore() = default;

Connection SignalCore::Connect(const ErasedSlot& slot)
{
    Connection connection;
    Link& link = In<Link>(connection.storage);
    link.blocks = std::make_shared<std::atomic<unsigned>>(0);
    link.connection = impl->signal.connect([slot, blocks = link.blocks](const void* arguments) {
        if (!IsBlocked(blocks))
            slot(arguments);
    });
    return connection;
}

Connection SignalCore::Connect(const ErasedSlot& slot, const std::weak_ptr<void>& tracked)
{
    Connection connection;
    Link& link = In<Link>(connection.storage);
    link.blocks = std::make_shared<std::atomic<unsigned>>(0);
    // The slot keeps its object alive itself rather than through the signal's
    // foreign tracking, which copies the locked pointer onto the heap on every
    // firing; once the object is gone the slot disconnects itself.
    link.connection = impl->signal.connect_extended(
        [slot, tracked, blocks = link.blocks](const BoostConnection& self, const void* arguments) {
            if (const std::shared_ptr<void> alive = tracked.lock()) {
                if (!IsBlocked(blocks))
                    slot(arguments);
            } else {
                self.disconnect();
            }
        });
    return connection;
}

void SignalCore::Fire(const void* arguments) const { impl->signal(arguments); }
std::size_t SignalCore::GetNumSlots() const { return impl->signal.num_slots(); }
void SignalCore::DisconnectAll() { impl->signal.disconnect_all_slots(); }

} }
