#include "framework/BasicBufferQueue.h"

#include "base/BaseException.h"
#include "base/BufferRecord.h"
#include "support/Allocation.h"
#include "support/MutexGuard.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace QEL { namespace Base {

namespace {

using QEL::System::SharedMutexGuard;

// The commands a buffer answers itself; a stream channel cannot supply them.
bool IsInternalInfo(BUFFER_INFO_CMD cmd)
{
    switch (cmd) {
    case BUFFER_INFO_BASE:
    case BUFFER_INFO_SIZE:
    case BUFFER_INFO_USER_PTR:
    case BUFFER_INFO_NEW_DATA:
    case BUFFER_INFO_IS_QUEUED:
    case BUFFER_INFO_IS_ACQUIRING:
    case BUFFER_INFO_IS_INCOMPLETE:
    case BUFFER_INFO_TLTYPE:
    case BUFFER_INFO_IMAGEPRESENT:
    case BufferRecord::Command:
        return true;
    default:
        return false;
    }
}

void CheckSupportedInfos(const SupportedBufferInfos& supported)
{
    if (std::any_of(supported.begin(), supported.end(), IsInternalInfo))
        throw Exception("Infos that are only for internal use have been passed.", GC_ERR_INVALID_PARAMETER);
}

[[noreturn]] void NotInDeliveredPool()
{
    throw Exception("Buffer is not in the delivered pool.", GC_ERR_BUSY);
}

}

// ---- InternalBuffer ----

BasicBufferQueue::InternalBuffer::InternalBuffer(const BasicBufferQueue* owner, const std::string& tlType, void* base,
                                                 std::size_t size, void* userPointer,
                                                 const SupportedBufferInfos& supportedInfos,
                                                 std::shared_ptr<QEL::System::Buffer> allocation)
    : owner(owner), allocation(std::move(allocation)), base(base), size(size), userPointer(userPointer),
      supportedInfos(supportedInfos), tlType(tlType)
{
    if (!owner)
        throw Exception("No owner passed.", GC_ERR_INVALID_PARAMETER);
    if (!base)
        throw Exception("No data passed.", GC_ERR_INVALID_PARAMETER);
    if (size == 0)
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    CheckSupportedInfos(supportedInfos);
    infos = Tools::MakeShared<const BufferInfos>("Could not allocate buffer infos.");
    InitializeModule();
}

void BasicBufferQueue::InternalBuffer::CheckAvailable() const
{
    if (!base)
        throw Exception("Buffer is not available.", GC_ERR_INVALID_HANDLE);
}

void BasicBufferQueue::InternalBuffer::SetState(State newState)
{
    CheckAvailable();
    state = newState;
}

bool BasicBufferQueue::InternalBuffer::Overlaps(const std::uint8_t* first, std::size_t length) const
{
    const auto newFirst = reinterpret_cast<std::uintptr_t>(first);
    const auto newLast = newFirst + (length - 1);
    const auto oldFirst = reinterpret_cast<std::uintptr_t>(base);
    const auto oldLast = oldFirst + (size - 1);
    return newFirst <= oldLast && oldFirst <= newLast;
}

void* BasicBufferQueue::InternalBuffer::GetBase() const
{
    CheckAvailable();
    return base;
}

std::size_t BasicBufferQueue::InternalBuffer::GetSize() const
{
    CheckAvailable();
    return size;
}

void* BasicBufferQueue::InternalBuffer::GetUserPointer() const
{
    CheckAvailable();
    return userPointer;
}

void BasicBufferQueue::InternalBuffer::SetInfos(const std::shared_ptr<const BufferInfos>& newInfos,
                                                bool isIncomplete, bool hasImage)
{
    CheckAvailable();
    if (state != Acquiring)
        throw Exception("Cannot set infos unless in acquisition state.", GC_ERR_ACCESS_DENIED);
    if (!newInfos)
        throw Exception("No infos passed.", GC_ERR_INVALID_PARAMETER);
    for (const auto& entry : *newInfos) {
        if (!entry.second)
            throw Exception("Invalid infos passed.", GC_ERR_INVALID_PARAMETER);
        if (supportedInfos.count(entry.first) == 0)
            throw Exception("Unsupported infos passed.", GC_ERR_INVALID_PARAMETER);
    }
    infos = newInfos;
    incomplete = isIncomplete;
    imagePresent = hasImage;
    newData = true;
}

std::vector<std::uint8_t> BasicBufferQueue::InternalBuffer::MakeBundle() const
{
    namespace R = BufferRecord;
    std::vector<std::uint8_t> bundle(R::Size, 0);
    std::uint8_t* record = bundle.data();
    // The buffer's own fields and the five flags are always there.
    std::uint64_t available = (1ull << R::BasePointer.bit) | (1ull << R::BufferSize.bit) |
                              (1ull << R::UserPointer.bit) | (0x1Full << R::Flags.bit);
    R::Write(record, R::BasePointer, reinterpret_cast<std::uintptr_t>(base));
    R::Write(record, R::BufferSize, size);
    R::Write(record, R::UserPointer, reinterpret_cast<std::uintptr_t>(userPointer));
    const std::uint32_t flags = (newData ? R::FlagNewData : 0u) |
                                ((state == Queued || state == Output) ? R::FlagQueued : 0u) |
                                (state == Acquiring ? R::FlagAcquiring : 0u) | (incomplete ? R::FlagIncomplete : 0u) |
                                (imagePresent ? R::FlagImagePresent : 0u);
    R::Write(record, R::Flags, flags);

    // One walk through the buffer's infos, which are ordered as the record's table.
    auto info = infos->begin();
    for (const auto& [cmd, field] : R::FromInfos) {
        while (info != infos->end() && info->first < cmd)
            ++info;
        if (info == infos->end())
            break;
        if (info->first != cmd || !info->second)
            continue;
        R::Write(record, field, NumericValue(*info->second));
        available |= 1ull << field.bit;
    }
    R::Write(record, R::Valid, available);
    return bundle;
}

InfoPtr BasicBufferQueue::InternalBuffer::GetInfo(BUFFER_INFO_CMD cmd)
{
    CheckAvailable();
    InfoPtr own = Tools::Allocating("Could not allocate info.", [&]() -> InfoPtr {
        switch (cmd) {
        case BUFFER_INFO_BASE:
            return std::make_shared<PtrInfo>(base);
        case BUFFER_INFO_SIZE:
            return std::make_shared<SizeTInfo>(size);
        case BUFFER_INFO_USER_PTR:
            return std::make_shared<PtrInfo>(userPointer);
        case BUFFER_INFO_NEW_DATA:
            return std::make_shared<Bool8Info>(newData);
        case BUFFER_INFO_IS_QUEUED:
            return std::make_shared<Bool8Info>(state == Queued || state == Output);
        case BUFFER_INFO_IS_ACQUIRING:
            return std::make_shared<Bool8Info>(state == Acquiring);
        case BUFFER_INFO_IS_INCOMPLETE:
            return std::make_shared<Bool8Info>(incomplete);
        case BUFFER_INFO_TLTYPE:
            return std::make_shared<StringInfo>(tlType);
        case BUFFER_INFO_IMAGEPRESENT:
            return std::make_shared<Bool8Info>(imagePresent);
        case BufferRecord::Command: {
            return std::make_shared<BufferInfo>(MakeBundle());
        }
        default:
            return nullptr; // one of the queue's own infos
        }
    });
    if (own)
        return own;
    auto it = infos->find(cmd);
    if (it == infos->end()) {
        if (supportedInfos.count(cmd) != 0)
            throw Exception("Unavailable info requested.", GC_ERR_NOT_AVAILABLE);
        throw Exception("Unsupported info requested.", GC_ERR_NOT_IMPLEMENTED);
    }
    if (!it->second)
        throw Exception("Could not retrieve info.", GC_ERR_ERROR);
    if (cmd == BUFFER_INFO_PAYLOADTYPE)
        return std::make_shared<SizeTInfo>(static_cast<std::size_t>(NumericValue(*it->second)));
    if (cmd == BUFFER_INFO_CONTAINS_CHUNKDATA)
        return std::make_shared<Bool8Info>(NumericValue(*it->second) != 0);
    return it->second;
}

std::size_t BasicBufferQueue::InternalBuffer::GetInfoSize(BUFFER_INFO_CMD cmd, INFO_DATATYPE* type)
{
    const InfoPtr info = GetInfo(cmd);
    if (!info)
        throw Exception("Could not get data stream buffer info.", GC_ERR_ERROR);
    if (type)
        *type = info->GetType();
    return info->GetSize();
}

void BasicBufferQueue::InternalBuffer::Release(void** baseOut, void** userPointerOut)
{
    if (state != Delivered)
        throw Exception("Buffer is not in the delivered pool.", GC_ERR_ACCESS_DENIED);
    if (baseOut)
        *baseOut = allocation ? nullptr : base;
    if (userPointerOut)
        *userPointerOut = userPointer;
    allocation.reset();
    base = nullptr;
    size = 0;
    userPointer = nullptr;
}

// ---- BasicBufferQueue ----

BasicBufferQueue::BasicBufferQueue(const std::string& tlType, const SupportedBufferInfos& supportedInfos,
                                   std::shared_ptr<QEL::System::Allocator> allocator)
    : allocator(std::move(allocator)), tlType(tlType), supportedInfos(supportedInfos)
{
    CheckSupportedInfos(supportedInfos);
    Tools::Allocating("Could not allocate buffer queue.", [&] {
        parser = std::make_shared<BasicEventDataParser<BufferData>>();
        if (!this->allocator)
            this->allocator = std::make_shared<QEL::System::BasicAllocator>();
    });
}

BasicBufferQueue::~BasicBufferQueue()
{
    // Whoever still holds a buffer finds it unavailable; producer memory goes now.
    for (const BufferPtr& buffer : announced) {
        try {
            SharedMutexGuard guard(buffer->GetMutex());
            buffer->state = Delivered;
            buffer->Release(nullptr, nullptr);
        } catch (...) {
        }
    }
}

BasicBufferQueue::BufferPtr BasicBufferQueue::CheckBuffer(const std::shared_ptr<Buffer>& buffer) const
{
    if (!buffer)
        throw Exception("No buffer passed.", GC_ERR_INVALID_PARAMETER);
    auto internal = std::dynamic_pointer_cast<InternalBuffer>(buffer);
    // A buffer of another data stream is as foreign here as any other object.
    if (!internal || internal->owner != this)
        throw Exception("Invalid buffer passed.", GC_ERR_INVALID_BUFFER);
    return internal;
}

bool BasicBufferQueue::BelongsToQueue(const std::shared_ptr<Buffer>& buffer) const
{
    auto internal = std::dynamic_pointer_cast<InternalBuffer>(buffer);
    return internal && internal->owner == this &&
           std::find(announced.begin(), announced.end(), internal) != announced.end();
}

BasicBufferQueue::BufferPtr BasicBufferQueue::AnnounceBuffer(void* base, std::size_t size, void* userPointer)
{
    if (announced.empty())
        producerAllocated = false;
    else if (producerAllocated)
        throw Exception("Cannot mix consumer allocated and producer allocated buffers.", GC_ERR_ERROR);
    return AddBuffer(Tools::MakeShared<InternalBuffer>("Could not allocate buffer.", this, tlType, base, size,
                                                       userPointer, supportedInfos));
}

BasicBufferQueue::BufferPtr BasicBufferQueue::AllocateBuffer(std::size_t size, void* userPointer)
{
    if (announced.empty())
        producerAllocated = true;
    else if (!producerAllocated)
        throw Exception("Cannot mix consumer allocated and producer allocated buffers.", GC_ERR_ERROR);
    if (size == 0)
        throw Exception("Invalid size passed.", GC_ERR_INVALID_PARAMETER);
    if (!allocator)
        throw Exception("No allocator passed.", GC_ERR_INVALID_PARAMETER);
    const auto memory = Tools::Allocating("Could not allocate buffer.", [&] { return allocator->Allocate(size); });
    if (!memory)
        throw Exception("Could not allocate buffer.", GC_ERR_ERROR);
    if (!memory->GetData())
        throw Exception("Could not get allocated buffer data.", GC_ERR_ERROR);
    return AddBuffer(Tools::MakeShared<InternalBuffer>("Could not allocate buffer.", this, tlType, memory->GetData(),
                                                       size, userPointer, supportedInfos, memory));
}

BasicBufferQueue::BufferPtr BasicBufferQueue::AddBuffer(BufferPtr buffer)
{
    const auto* first = static_cast<const std::uint8_t*>(buffer->base);
    for (const BufferPtr& old : announced) {
        SharedMutexGuard guard(old->GetMutex());
        if (old->Overlaps(first, buffer->size))
            throw Exception("Cannot announce one memory block twice.", GC_ERR_RESOURCE_IN_USE);
    }
    announced.push_back(buffer);
    try {
        // One spare node per buffer at most: keeping them never allocates later.
        spareSetNodes.reserve(announced.size());
        deliveredPool.insert(buffer);
    } catch (...) {
        announced.pop_back();
        throw;
    }
    buffer->state = Delivered;
    return buffer;
}

BasicBufferQueue::BufferPtr BasicBufferQueue::GetBufferByIndex(std::uint32_t index) const
{
    if (index >= announced.size())
        throw Exception("Buffer index out of range.", GC_ERR_INVALID_INDEX);
    return announced[index];
}

std::size_t BasicBufferQueue::GetSmallestBufferSize() const
{
    if (announced.empty())
        throw Exception("No buffers available.", GC_ERR_NOT_AVAILABLE);
    std::size_t smallest = announced.front()->size;
    for (const BufferPtr& buffer : announced)
        smallest = std::min(smallest, buffer->size);
    return smallest;
}

void BasicBufferQueue::QueueBuffer(const std::shared_ptr<Buffer>& buffer)
{
    BufferPtr internal = CheckBuffer(buffer);
    {
        SharedMutexGuard guard(internal->GetMutex());
        internal->CheckAvailable();
        if (!Leave(deliveredPool, internal))
            NotInDeliveredPool();
        EnterInput(internal, false);
        if (internal->state == Delivered)
            internal->newData = false;
        internal->SetState(Queued);
    }
    // Under the queue's lock only, as every signal of the queue: its slot, the
    // stream channel, takes a buffer's lock after its own.
    Fire(inputSignal);
}

void BasicBufferQueue::RevokeBuffer(const std::shared_ptr<Buffer>& buffer, void** base, void** userPointer)
{
    BufferPtr internal = CheckBuffer(buffer);
    SharedMutexGuard guard(internal->GetMutex());
    if (deliveredPool.erase(internal) == 0)
        NotInDeliveredPool();
    announced.erase(std::remove(announced.begin(), announced.end(), internal), announced.end());
    internal->Release(base, userPointer);
}

void BasicBufferQueue::Fire(DataSignal& signal)
{
    signal();
}

void BasicBufferQueue::CheckNoneInUse(bool acquisitionToo) const
{
    if (usedCount != 0)
        throw Exception("Cannot flush used buffers from input queue.", GC_ERR_NOT_AVAILABLE);
    if (acquisitionToo && acquisitionBuffer)
        throw Exception("Cannot flush buffers used for acquisition.", GC_ERR_NOT_AVAILABLE);
}

void BasicBufferQueue::FlushQueue(ACQ_QUEUE_TYPE operation)
{
    if (operation < ACQ_QUEUE_INPUT_TO_OUTPUT || operation > ACQ_QUEUE_ALL_DISCARD)
        throw Exception("Invalid operation passed.", GC_ERR_INVALID_PARAMETER);
    if (operation == ACQ_QUEUE_INPUT_TO_OUTPUT || operation == ACQ_QUEUE_ALL_DISCARD)
        CheckNoneInUse(operation == ACQ_QUEUE_ALL_DISCARD);

    std::size_t moved = 0;
    auto toDelivered = [&](const BufferPtr& buffer) {
        SharedMutexGuard guard(buffer->GetMutex());
        buffer->SetState(Delivered);
        deliveredPool.insert(buffer);
        ++moved;
    };
    auto toInput = [&](const BufferPtr& buffer) {
        SharedMutexGuard guard(buffer->GetMutex());
        if (buffer->state == Delivered)
            buffer->newData = false;
        buffer->SetState(Queued);
        inputQueue.push_back(buffer);
        ++moved;
    };
    // Each buffer leaves its place only after it has arrived in the new one,
    // so an exception half way leaves every buffer in exactly one place.
    auto drainQueue = [](auto& from, auto move) {
        while (!from.empty()) {
            move(from.front());
            from.pop_front();
        }
    };
    auto drainSet = [](std::set<BufferPtr>& from, auto move) {
        while (!from.empty()) {
            BufferPtr buffer = *from.begin();
            from.erase(from.begin());
            try {
                move(buffer);
            } catch (...) {
                from.insert(buffer);
                throw;
            }
        }
    };

    DataSignal* signal = nullptr;
    try {
        switch (operation) {
        case ACQ_QUEUE_INPUT_TO_OUTPUT:
            signal = &dataSignal;
            drainQueue(inputQueue, [&](const BufferPtr& buffer) {
                SharedMutexGuard guard(buffer->GetMutex());
                buffer->SetState(Output);
                outputQueue.push_back(buffer);
                ++moved;
            });
            break;
        case ACQ_QUEUE_OUTPUT_DISCARD:
            drainQueue(outputQueue, toDelivered);
            break;
        case ACQ_QUEUE_ALL_TO_INPUT:
            signal = &inputSignal;
            drainSet(deliveredPool, toInput);
            drainQueue(outputQueue, toInput);
            break;
        case ACQ_QUEUE_UNQUEUED_TO_INPUT:
            signal = &inputSignal;
            drainSet(deliveredPool, toInput);
            break;
        case ACQ_QUEUE_ALL_DISCARD:
            drainQueue(inputQueue, toDelivered);
            drainQueue(outputQueue, toDelivered);
            break;
        }
    } catch (...) {
        if (signal && moved != 0)
            Fire(*signal);
        throw;
    }
    if (signal && moved != 0)
        Fire(*signal);
}

void BasicBufferQueue::Flush()
{
    while (!outputQueue.empty()) {
        const BufferPtr& buffer = outputQueue.front();
        {
            SharedMutexGuard guard(buffer->GetMutex());
            buffer->state = Delivered;
            deliveredPool.insert(buffer);
        }
        outputQueue.pop_front();
    }
}

void BasicBufferQueue::RevokeAll()
{
    FlushQueue(ACQ_QUEUE_ALL_DISCARD);
    for (const BufferPtr& buffer : announced) {
        SharedMutexGuard guard(buffer->GetMutex());
        buffer->Release(nullptr, nullptr);
    }
    announced.clear();
    deliveredPool.clear();
}

InfoPtr BasicBufferQueue::GetBufferInfo(const std::shared_ptr<Buffer>& buffer, BUFFER_INFO_CMD cmd)
{
    BufferPtr internal = CheckBuffer(buffer);
    SharedMutexGuard guard(internal->GetMutex());
    return internal->GetInfo(cmd);
}

std::size_t BasicBufferQueue::GetBufferInfoSize(const std::shared_ptr<Buffer>& buffer, BUFFER_INFO_CMD cmd,
                                                INFO_DATATYPE* type)
{
    BufferPtr internal = CheckBuffer(buffer);
    SharedMutexGuard guard(internal->GetMutex());
    return internal->GetInfoSize(cmd, type);
}

void BasicBufferQueue::GetData(void* data, std::size_t* size)
{
    if (outputQueue.empty())
        throw Exception("No buffer in the output queue.", GC_ERR_ERROR);
    BufferPtr buffer = outputQueue.front();
    SharedMutexGuard guard(buffer->GetMutex());
    if (data) {
        if (!size)
            throw Exception("No size passed.", GC_ERR_INVALID_PARAMETER);
        if (*size < sizeof(BufferData))
            throw Exception("Data size too small.", GC_ERR_BUFFER_TOO_SMALL);
        BufferData record;
        record.bufferHandle = reinterpret_cast<void*>(static_cast<std::uintptr_t>(Handleable::GetHandle(buffer)));
        record.userPointer = buffer->userPointer;
        std::memcpy(data, &record, sizeof(record));
    }
    if (size)
        *size = sizeof(BufferData);
    Enter(deliveredPool, buffer);
    outputQueue.pop_front();
    buffer->SetState(Delivered);
    ++deliveredCount;
}

BasicBufferQueue::BufferPtr BasicBufferQueue::TakeFromInputQueue()
{
    if (inputQueue.empty())
        return nullptr;
    BufferPtr buffer = inputQueue.front();
    Enter(usedPool, buffer);
    LeaveInputFront();
    ++usedCount;
    return buffer;
}

void BasicBufferQueue::ReturnToInputQueue(const std::shared_ptr<Buffer>& buffer)
{
    BufferPtr internal = CheckBuffer(buffer);
    if (usedPool.count(internal) == 0)
        throw Exception("Buffer is not in the used buffers pool.", GC_ERR_INVALID_PARAMETER);
    EnterInput(internal, true);
    Leave(usedPool, internal);
    --usedCount;
}

void BasicBufferQueue::BeginAcquisition(const std::shared_ptr<Buffer>& buffer)
{
    BufferPtr internal = CheckBuffer(buffer);
    if (usedPool.count(internal) == 0)
        throw Exception("Buffer cannot be used for acquisition.", GC_ERR_INVALID_BUFFER);
    if (acquisitionBuffer)
        throw Exception("Already a buffer used for acquisition.", GC_ERR_NOT_AVAILABLE);
    SharedMutexGuard guard(internal->GetMutex());
    internal->SetState(Acquiring);
    acquisitionBuffer = internal;
    Leave(usedPool, internal);
    --usedCount;
}

void BasicBufferQueue::FinishAcquisition(const std::shared_ptr<Buffer>& buffer)
{
    BufferPtr internal = CheckBuffer(buffer);
    if (internal != acquisitionBuffer)
        throw Exception("Buffer is not used for acquisition.", GC_ERR_INVALID_PARAMETER);
    {
        SharedMutexGuard guard(internal->GetMutex());
        internal->SetState(Output);
        outputQueue.push_back(internal);
    }
    acquisitionBuffer.reset();
    ++finishedCount;
    Fire(dataSignal);
}

void BasicBufferQueue::Enter(std::set<BufferPtr>& pool, const BufferPtr& buffer)
{
    if (spareSetNodes.empty()) {
        pool.insert(buffer);
        return;
    }
    auto node = std::move(spareSetNodes.back());
    spareSetNodes.pop_back();
    node.value() = buffer;
    auto result = pool.insert(std::move(node));
    if (!result.inserted) { // already there: the node stays spare
        result.node.value().reset();
        spareSetNodes.push_back(std::move(result.node));
    }
}

bool BasicBufferQueue::Leave(std::set<BufferPtr>& pool, const BufferPtr& buffer)
{
    auto node = pool.extract(buffer);
    if (node.empty())
        return false;
    node.value().reset();
    if (spareSetNodes.size() < spareSetNodes.capacity())
        spareSetNodes.push_back(std::move(node));
    return true;
}

void BasicBufferQueue::EnterInput(const BufferPtr& buffer, bool atFront)
{
    if (spareListNodes.empty()) {
        if (atFront)
            inputQueue.push_front(buffer);
        else
            inputQueue.push_back(buffer);
        return;
    }
    inputQueue.splice(atFront ? inputQueue.begin() : inputQueue.end(), spareListNodes, spareListNodes.begin());
    (atFront ? inputQueue.front() : inputQueue.back()) = buffer;
}

void BasicBufferQueue::LeaveInputFront()
{
    inputQueue.front().reset();
    spareListNodes.splice(spareListNodes.end(), inputQueue, inputQueue.begin());
}

} }
