#pragma once

#include <memory>

namespace QEL { namespace System {

// Process-wide data created on first use and torn down in reverse order of
// creation when the last user module goes away.
class StaticData {
public:
    template <class T>
    static std::shared_ptr<T> Get()
    {
        auto holder = GetSlot(&Tag<T>::id, [] { return std::static_pointer_cast<void>(std::make_shared<T>()); });
        return std::static_pointer_cast<T>(holder);
    }

    // One per source module that uses static data; the last one destroyed tears
    // the registry down.
    class Anchor {
    public:
        Anchor();
        ~Anchor();
        Anchor(const Anchor&) = delete;
        Anchor& operator=(const Anchor&) = delete;
    };

private:
    // A slot's key: one address per type, so that a lookup compares pointers
    // where type_index would compare mangled names on every call. Writable, so
    // that no linker folds two of them into one.
    template <class T> struct Tag {
        static inline char id = 0;
    };
    using Key = const void*;
    using Create = std::shared_ptr<void> (*)();

    static std::shared_ptr<void> GetSlot(Key key, Create create);
};

} }
