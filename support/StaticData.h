#pragma once

#include <functional>
#include <memory>
#include <typeindex>

namespace QEL { namespace System {

// Process-wide data created on first use and torn down in reverse order of
// creation when the last user module goes away.
class StaticData {
public:
    template <class T>
    static std::shared_ptr<T> Get()
    {
        auto holder = GetSlot(typeid(T), [] { return std::static_pointer_cast<void>(std::make_shared<T>()); });
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
    static std::shared_ptr<void> GetSlot(std::type_index type, const std::function<std::shared_ptr<void>()>& create);
};

} }
