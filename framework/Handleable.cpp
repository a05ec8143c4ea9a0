#include "framework/Handleable.h"

#include "base/BaseException.h"
#include "support/MutexGuard.h"
#include "support/StaticData.h"

#include <mutex>

namespace QEL { namespace Base {

namespace {
QEL::System::StaticData::Anchor anchor;

// Bits above a pointer's width: a handle with any of them set came from no pointer.
constexpr std::uint64_t BeyondPointer =
    Handleable::HandleBits >= 64 ? 0 : ~((std::uint64_t{1} << (Handleable::HandleBits % 64)) - 1);

std::size_t TypeOf(std::uint64_t handle) { return static_cast<std::size_t>((handle >> Handleable::TypeShift) & 0xFF); }
}

std::uint64_t Handleable::Compose(std::uint8_t type, std::uint64_t position)
{
    if (position >= PositionMask)
        throw Exception("Invalid index passed.", GC_ERR_INVALID_PARAMETER);
    return (std::uint64_t{type} << TypeShift) | (position + 1);
}

Handleable::~Handleable()
{
    if ((handleId & PositionMask) == 0)
        return;
    try {
        auto data = QEL::System::StaticData::Get<Data>();
        std::unique_lock<std::shared_mutex> lock(data->lock);
        auto& table = data->tables[TypeOf(handleId)];
        std::size_t position = (handleId & PositionMask) - 1;
        if (position < table.size() && table[position].address == this)
            table[position] = Entry();
    } catch (...) {
        // The tables are gone at process end; nothing left to clean.
    }
}

std::uint64_t Handleable::GetHandle(const std::shared_ptr<Handleable>& object)
{
    if (!object)
        throw Exception("No object passed.", GC_ERR_INVALID_PARAMETER);
    QEL::System::SharedMutexGuard guard(object->GetMutex());
    if ((object->handleId & PositionMask) != 0)
        return object->handleId;

    auto data = QEL::System::StaticData::Get<Data>();
    std::unique_lock<std::shared_mutex> lock(data->lock);
    const auto type = static_cast<std::uint8_t>(object->GetHandleType());
    auto& table = data->tables[type];
    std::size_t position = 0;
    while (position < table.size() && !table[position].object.expired())
        ++position;
    const std::uint64_t handle = Compose(type, position);
    Entry entry{object, object.get()};
    if (position == table.size())
        table.push_back(entry);
    else
        table[position] = entry;
    object->handleId = handle;
    return object->handleId;
}

std::shared_ptr<Handleable> Handleable::FromHandle(std::uint64_t handle)
{
    if ((handle & PositionMask) == 0 || (handle & BeyondPointer) != 0)
        throw Exception("Invalid handle passed.", GC_ERR_INVALID_HANDLE);
    std::shared_ptr<Handleable> object;
    {
        auto data = QEL::System::StaticData::Get<Data>();
        std::shared_lock<std::shared_mutex> lock(data->lock);
        const auto& table = data->tables[TypeOf(handle)];
        std::uint64_t position = (handle & PositionMask) - 1;
        if (position < table.size())
            object = table[position].object.lock();
    }
    if (!object)
        throw Exception("Invalid handle passed.", GC_ERR_INVALID_HANDLE);
    return object;
}

} }
