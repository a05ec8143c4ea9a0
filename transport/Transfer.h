#pragma once

#include "support/Condition.h"
#include "support/Lockable.h"

#include <cstdint>
#include <memory>

namespace QEL {
namespace LibCSI { class EndpointHandler; }
namespace TransportLayer {

enum TransferResult : std::int32_t {
    TransferSuccess = 0,
    TransferAborted = 1,
    // libcsi ended it with the status 0xE0000004.
    TransferStatusFailure = 2,
    TransferFailure = 3,
};

// One unit of work on an endpoint handler that the caller can wait for. The
// state lives apart from the object, so a completion that comes after the
// caller gave up finds it still there.
class Transfer : public virtual System::Lockable {
public:
    Transfer(const std::shared_ptr<LibCSI::EndpointHandler>& handler, void* buffer, std::size_t size);
    ~Transfer() override = default;

    std::shared_ptr<System::Mutex> GetMutex() const override;
    bool IsComplete() const;
    void Wait();
    // False when the deadline came first.
    bool WaitUntil(System::TimePoint deadline);
    TransferResult GetResult() const;
    std::int32_t GetTransferred() const;

private:
    struct State {
        std::shared_ptr<System::Mutex> mutex = std::make_shared<System::Mutex>();
        System::Condition condition;
        bool complete = true;
        TransferResult result = TransferFailure;
        std::int32_t transferred = 0;
    };
    std::shared_ptr<State> state;
};

} }
