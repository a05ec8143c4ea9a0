#include "framework/Handleable.h"

#include "base/BaseException.h"
#include "support/MutexGuard.h"
#include "support/StaticData.h"

#include <mutex>

namespace QEL { namespace Base {

namespace {
QEL::System::StaticData::Anchor anchor;
}

Handleable::~Handleable()
{
    if ((handleId & PositionMask) == 0)
        return;
    try {
        auto data = QEL::System::StaticData::Get<Data>();
        std::unique_lock<std::shared_mutex> lock(data->lock);
        auto& table = data->tables[handleId >> 56];
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
    const std::uint64_t type = static_cast<std::uint8_t>(object->GetHandleType());
    auto& table = data->tables[type];
    std::size_t position = 0;
    while (position < table.size() && !table[position].object.expired())
        ++position;
    if (position >= PositionMask)
        throw Exception("Invalid index passed.", GC_ERR_INVALID_PARAMETER);
    Entry entry{object, object.get()};
    if (position == table.size())
        table.push_back(entry);
    else
        table[position] = entry;
    object->handleId = (type << 56) | (position + 1);
    return object->handleId;
}

std::shared_ptr<Handleable> Handleable::FromHandle(std::uint64_t handle)
{
    if ((handle & PositionMask) == 0)
        throw Exception("Invalid handle passed.", GC_ERR_INVALID_HANDLE);
    std::shared_ptr<Handleable> object;
    {
        auto data = QEL::System::StaticData::Get<Data>();
        std::shared_lock<std::shared_mutex> lock(data->lock);
        const auto& table = data->tables[handle >> 56];
        std::uint64_t position = (handle & PositionMask) - 1;
        if (position < table.size())
            object = table[position].object.lock();
    }
    if (!object)
        throw Exception("Invalid handle passed.", GC_ERR_INVALID_HANDLE);
    return object;
}

} }
