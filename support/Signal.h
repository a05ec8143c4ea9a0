#pragma once

// Boost.Signals2 stays in Signal.cpp: this header is included almost
// everywhere, and the signal's own headers would triple every compilation.
#include <cstddef>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>

namespace QEL { namespace Tools {

// A slot's link to its signal; empty when default-constructed. Copies name
// the same link.
class Connection {
public:
    Connection();
    Connection(const Connection& other);
    Connection& operator=(const Connection& other);
    ~Connection();

    void Disconnect();
    bool IsConnected() const;

private:
    friend class ConnectionBlock;
    friend class SignalCore;
    // The library's connection object and the link's block count live in
    // place: no allocation per copy of a link.
    alignas(void*) unsigned char storage[4 * sizeof(void*)];
};

// While it lives, the connection's slot is skipped when the signal fires.
class ConnectionBlock {
public:
    explicit ConnectionBlock(const Connection& connection);
    ConnectionBlock(const ConnectionBlock&) = delete;
    ConnectionBlock& operator=(const ConnectionBlock&) = delete;
    ~ConnectionBlock();

private:
    alignas(void*) unsigned char storage[2 * sizeof(void*)];
};

// The type-erased signal under every Signal: slots take a pointer to the
// tuple of the arguments.
class SignalCore {
public:
    using ErasedSlot = std::function<void(const void*)>;

    SignalCore();
    SignalCore(const SignalCore&) = delete;
    SignalCore& operator=(const SignalCore&) = delete;
    ~SignalCore();

    Connection Connect(const ErasedSlot& slot);
    // The slot is skipped, and dropped, once `tracked` has died; while it runs, `tracked` is kept alive.
    Connection Connect(const ErasedSlot& slot, const std::weak_ptr<void>& tracked);
    void Fire(const void* arguments) const;
    std::size_t GetNumSlots() const;
    void DisconnectAll();

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

// Synchronous signal: slots run on the firing thread, in the order they were connected.
template <class Signature>
class BasicSignal;

template <class... Args>
class BasicSignal<void(Args...)> {
public:
    using Connection = Tools::Connection;

    template <class Function>
    Connection Connect(Function&& function)
    {
        return core.Connect(Erase(std::forward<Function>(function)));
    }

    template <class Function, class Tracked>
    Connection Connect(Function&& function, const std::shared_ptr<Tracked>& tracked)
    {
        return core.Connect(Erase(std::forward<Function>(function)), std::weak_ptr<void>(tracked));
    }

    void operator()(Args... args) const
    {
        const std::tuple<Args...> packed(std::forward<Args>(args)...);
        core.Fire(&packed);
    }

    std::size_t GetNumSlots() const { return core.GetNumSlots(); }
    void DisconnectAll() { core.DisconnectAll(); }

private:
    template <class Function>
    static SignalCore::ErasedSlot Erase(Function&& function)
    {
        return [slot = std::forward<Function>(function)](const void* arguments) mutable {
            std::apply(slot, *static_cast<const std::tuple<Args...>*>(arguments));
        };
    }

    SignalCore core;
};

template <class Signature>
class Signal : public BasicSignal<Signature> {};

} }
