#include "entry/LibraryState.h"

#include "base/BaseException.h"

namespace QEL { namespace Base {

class LibraryState::ReadAccessInternal : public ReadAccess {
public:
    explicit ReadAccessInternal(std::shared_ptr<LibraryState> state) : state(std::move(state)) {}
    ~ReadAccessInternal() override { state->ReleaseReader(); }

private:
    std::shared_ptr<LibraryState> state;
};

class LibraryState::WriteAccessInternal : public WriteAccess {
public:
    explicit WriteAccessInternal(std::shared_ptr<LibraryState> state) : state(std::move(state)) {}
    ~WriteAccessInternal() override { state->ReleaseWriter(); }

    void SetReadersBlocked(bool blocked) override { state->SetReadersBlocked(blocked); }
    bool AreReadersBlocked() const override
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->readersBlocked;
    }
    void SetInitialized(bool value) override { state->SetInitialized(value); }
    bool IsInitialized() const override
    {
        std::lock_guard<std::mutex> lock(state->mutex);
        return state->initialized;
    }
    void WaitForReaders() override { state->WaitForReaders(); }

private:
    std::shared_ptr<LibraryState> state;
};

std::shared_ptr<ReadAccess> LibraryState::GetReadAccess()
{
    try {
        auto self = shared_from_this();
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (readersBlocked) {
                readersReleased.wait(lock, [this] { return !readersBlocked; });
                // Pass the single wake-up on to the next waiting reader.
                readersReleased.notify_one();
            }
            if (!initialized)
                throw Exception("Transport layer not initialized.", GC_ERR_NOT_INITIALIZED);
            ++readerCount;
        }
        try {
            return std::make_shared<ReadAccessInternal>(std::move(self));
        } catch (...) {
            ReleaseReader();
            throw;
        }
    } catch (...) {
        return nullptr;
    }
}

std::shared_ptr<WriteAccess> LibraryState::GetWriteAccess()
{
    try {
        auto self = shared_from_this();
        {
            std::unique_lock<std::mutex> lock(mutex);
            writerLeft.wait(lock, [this] { return !writerActive; });
            writerActive = true;
            readersBlocked = true;
        }
        try {
            return std::make_shared<WriteAccessInternal>(std::move(self));
        } catch (...) {
            ReleaseWriter();
            throw;
        }
    } catch (...) {
        return nullptr;
    }
}

void LibraryState::ReleaseReader()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (readerCount != 0 && --readerCount == 0)
        readersLeft.notify_all();
}

void LibraryState::ReleaseWriter()
{
    std::lock_guard<std::mutex> lock(mutex);
    writerActive = false;
    writerLeft.notify_one();
    if (readersBlocked) {
        readersBlocked = false;
        readersReleased.notify_one();
    }
}

void LibraryState::SetReadersBlocked(bool blocked)
{
    std::lock_guard<std::mutex> lock(mutex);
    bool changed = readersBlocked != blocked;
    readersBlocked = blocked;
    if (changed && !blocked)
        readersReleased.notify_one();
}

void LibraryState::SetInitialized(bool value)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!readersBlocked && initialized)
        throw Exception("Cannot set initialized in the current state.", GC_ERR_ERROR);
    initialized = value;
}

void LibraryState::WaitForReaders()
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!readersBlocked && initialized)
        throw Exception("Cannot wait while readers can enter.", GC_ERR_ERROR);
    readersLeft.wait(lock, [this] { return readerCount == 0; });
}

} }
