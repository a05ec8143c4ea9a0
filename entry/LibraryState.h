#pragma once

#include "base/Object.h"

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

namespace QEL { namespace Base {

// Admission tokens of the library. Bodies of exported calls hold a read token;
// GCInitLib, GCInitLibEx and GCCloseLib hold the one write token.
class ReadAccess : public virtual QEL::System::Object {};

class WriteAccess : public virtual QEL::System::Object {
public:
    virtual void SetReadersBlocked(bool blocked) = 0;
    virtual bool AreReadersBlocked() const = 0;
    virtual void SetInitialized(bool initialized) = 0;
    virtual bool IsInitialized() const = 0;
    virtual void WaitForReaders() = 0;
};

// Readers-writer admission state: a writer blocks new readers at once and may
// then wait for those inside; an uninitialised library turns readers away.
class LibraryState : public virtual QEL::System::Object, public std::enable_shared_from_this<LibraryState> {
public:
    // Both return an empty pointer instead of throwing.
    std::shared_ptr<ReadAccess> GetReadAccess();
    std::shared_ptr<WriteAccess> GetWriteAccess();

private:
    class ReadAccessInternal;
    class WriteAccessInternal;

    void ReleaseReader();
    void ReleaseWriter();
    void SetReadersBlocked(bool blocked);
    void SetInitialized(bool value);
    void WaitForReaders();

    std::mutex mutex;
    std::condition_variable readersReleased;
    std::condition_variable writerLeft;
    std::condition_variable readersLeft;
    std::size_t readerCount = 0;
    bool writerActive = false;
    bool readersBlocked = false;
    bool initialized = false;
};

} }
