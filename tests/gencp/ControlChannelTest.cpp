#include "gencp/AckException.h"
#include "gencp/CCIPacket.h"
#include "gencp/ControlChannel.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

using namespace QEL;
using namespace QEL::Base::GenCP;

namespace {

// How the device answers the next command.
enum class Answer { Normal, Drop, Stale, Pending, PendingError, ErrorStatus, WrongCommand, ShortWrite };

struct Sent {
    std::uint16_t requestId, flags, command;
    std::uint64_t address;
    std::size_t length;
};

// A GenCP device in memory behind a loopback transport. Answers are ready at
// once, so a dropped answer costs no time.
class LoopbackChannel : public ControlChannel {
public:
    explicit LoopbackChannel(bool readOnly = false) : ControlChannel(readOnly), memory(0x4000, 0)
    {
        Put(ABRM::GenCPVersion, 0x00010002, 4);
        PutText(ABRM::ManufacturerName, "Tesmar Lumetric Industries");
        PutText(ABRM::ModelName, "Virtual CSI-2 Camera");
        PutText(ABRM::SerialNumber, "VC0000001");
        Put(ABRM::DeviceCapability, (1u << 0) | (1u << 1) | (1u << 9), 8);
        Put(ABRM::MaxDeviceResponseTime, 200, 4);
        Put(ABRM::ManifestTableAddress, 0x1000, 8);
        Put(ABRM::SBRMAddress, 0x2000, 8);
    }
    ~LoopbackChannel() override
    {
        if (!IsHeartbeatStopped())
            StopHeartbeat();
    }

    std::size_t GetMaxCommandPayload() override { return maxCommandPayload; }
    std::size_t GetMaxAcknowledgePayload() override { return maxAckPayload; }
    std::shared_ptr<Packet> CreatePacket(std::size_t payloadSize) override
    {
        return std::make_shared<CCIPacket>(payloadSize);
    }

    void SendPacket(const std::shared_ptr<Packet>& packet) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        const std::uint8_t* payload = packet->GetPayload();
        const std::uint16_t command = packet->GetCommandId();
        const std::uint64_t address = Get(payload, 8);
        const std::size_t length =
            command == CommandId::ReadMemory ? Get(payload + 10, 2) : packet->GetPayloadSize() - 8u;
        sent.push_back({packet->GetRequestId(), packet->GetStatus(), command, address, length});
        const Answer answer = script.empty() ? Answer::Normal : script.front();
        if (!script.empty())
            script.pop_front();
        const std::uint16_t id = packet->GetRequestId();
        switch (answer) {
        case Answer::Drop:
            return;
        case Answer::Stale:
            inbox.push_back(Ack(static_cast<std::uint16_t>(id - 1), command + 1u, 0, 0));
            return;
        case Answer::Pending:
        case Answer::PendingError: {
            // The real answer, if any, follows the pending acknowledge.
            auto pending = Ack(id, CommandId::PendingAck, answer == Answer::Pending ? 0 : 0x8007, 4);
            pending->GetPayload()[2] = static_cast<std::uint8_t>(pendingTimeout);
            pending->GetPayload()[3] = static_cast<std::uint8_t>(pendingTimeout >> 8);
            pendingTimeout += 100;
            inbox.push_back(pending);
            if (answer == Answer::PendingError)
                return;
            break;
        }
        case Answer::ErrorStatus:
            inbox.push_back(Ack(id, command + 1u, 0x8006, 0));
            return;
        case Answer::WrongCommand:
            inbox.push_back(Ack(id, 0x0C00, 0, 0));
            return;
        default:
            break;
        }
        if (command == CommandId::ReadMemory) {
            auto ack = Ack(id, CommandId::ReadMemoryAck, 0, length);
            std::memcpy(ack->GetPayload(), memory.data() + address, length);
            inbox.push_back(ack);
        } else {
            std::memcpy(memory.data() + address, payload + 8, length);
            const bool withLength = (Get(memory.data() + ABRM::DeviceCapability, 8) >> 11) & 1;
            auto ack = Ack(id, CommandId::WriteMemoryAck, 0, withLength ? 4 : 0);
            const std::size_t written = answer == Answer::ShortWrite ? length - 1 : length;
            if (withLength)
                ack->GetPayload()[2] = static_cast<std::uint8_t>(written), ack->GetPayload()[3] =
                    static_cast<std::uint8_t>(written >> 8);
            inbox.push_back(ack);
        }
    }

    std::shared_ptr<Packet> ReceivePacket(std::uint32_t timeoutMs, std::size_t) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        waits.push_back(timeoutMs);
        if (inbox.empty())
            return nullptr;
        auto packet = inbox.front();
        inbox.pop_front();
        return packet;
    }

    void Flush() override
    {
        std::lock_guard<std::mutex> lock(mutex);
        ++flushes;
        inbox.clear();
    }

    void Put(std::uint64_t address, std::uint64_t value, std::size_t width)
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (std::size_t i = 0; i < width; ++i)
            memory[address + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
    std::uint64_t Read(std::uint64_t address, std::size_t width)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return Get(memory.data() + address, width);
    }
    void PutText(std::uint64_t address, const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::memset(memory.data() + address, 0, 64);
        std::memcpy(memory.data() + address, text.data(), text.size());
    }
    void PutBytes(std::uint64_t address, const std::vector<std::uint8_t>& bytes)
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::copy(bytes.begin(), bytes.end(), memory.begin() + static_cast<std::ptrdiff_t>(address));
    }
    void Script(std::initializer_list<Answer> answers)
    {
        std::lock_guard<std::mutex> lock(mutex);
        script.insert(script.end(), answers);
    }
    std::vector<Sent> TakeSent()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(sent, {});
    }
    std::vector<std::uint32_t> TakeWaits()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(waits, {});
    }
    std::size_t CountReadsOf(std::uint64_t address)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return static_cast<std::size_t>(std::count_if(sent.begin(), sent.end(), [&](const Sent& s) {
            return s.command == CommandId::ReadMemory && s.address == address;
        }));
    }

    std::size_t maxCommandPayload = 1024;
    std::size_t maxAckPayload = 1024;
    int flushes = 0;

private:
    static std::uint64_t Get(const std::uint8_t* at, std::size_t width)
    {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width; ++i)
            value |= std::uint64_t{at[i]} << (8 * i);
        return value;
    }
    static std::shared_ptr<CCIPacket> Ack(std::uint16_t id, std::uint16_t command, std::uint16_t status,
                                          std::size_t payload)
    {
        auto ack = std::make_shared<CCIPacket>(payload);
        ack->SetRequestId(id);
        ack->SetCommandId(command);
        ack->SetFlags(status);
        return ack;
    }
    std::mutex mutex;
    std::vector<std::uint8_t> memory;
    std::deque<Answer> script;
    std::deque<std::shared_ptr<Packet>> inbox;
    std::vector<Sent> sent;
    std::vector<std::uint32_t> waits;
    std::uint16_t pendingTimeout = 300;
};

TEST(ControlChannel, BootstrapRegistersAreReadOnceAfterTheResponseTime)
{
    LoopbackChannel channel;
    EXPECT_EQ("Tesmar Lumetric Industries", channel.GetManufacturerName());
    auto sent = channel.TakeSent();
    ASSERT_GE(sent.size(), 2u);
    EXPECT_EQ(ABRM::MaxDeviceResponseTime, sent[0].address) << "the response time comes first";
    const auto waits = channel.TakeWaits();
    EXPECT_EQ(50u, waits[0]) << "and is read with 50 ms";
    EXPECT_EQ(200u, waits[1]) << "then it is the time-out of every access";
    EXPECT_EQ("Virtual CSI-2 Camera", channel.GetModelName());
    EXPECT_EQ("VC0000001", channel.GetSerialNumber());
    EXPECT_EQ(Tools::Version(1, 2), channel.GetVersion());
    EXPECT_EQ(0x2000u, channel.GetSBRMAddress());
    channel.TakeSent();
    channel.GetManufacturerName();
    channel.GetSBRMAddress();
    EXPECT_TRUE(channel.TakeSent().empty()) << "cached";

    EXPECT_EQ(Err(GC_ERR_ERROR, "Family name not supported."), Failure([&] { channel.GetFamilyName(); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Timestamp not supported."), Failure([&] { channel.GetTimestamp(); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Byte order register not supported."),
              Failure([&] { channel.GetImplementationByteOrder(); }));
    channel.SetUserDefinedName("left");
    EXPECT_EQ("left", channel.GetUserDefinedName());
    EXPECT_EQ(Err(GC_ERR_ERROR, "String too long for the register."),
              Failure([&] { channel.SetUserDefinedName(std::string(65, 'x')); }));

    LoopbackChannel broken;
    broken.Put(ABRM::MaxDeviceResponseTime, 0, 4);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid maximum device response time detected."),
              Failure([&] { broken.GetModelName(); }));
    broken.Put(ABRM::MaxDeviceResponseTime, 10, 4);
    broken.Put(ABRM::DeviceCapability, 3u << 4, 8);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid string encoding detected."), Failure([&] { broken.GetModelName(); }));
}

TEST(ControlChannel, Utf16StringsAndTheByteOrderRegister)
{
    LoopbackChannel channel;
    channel.Put(ABRM::DeviceCapability, (2u << 4) | (1u << 0) | (1u << 10), 8);
    channel.Put(ABRM::ImplementationByteOrder, 0xFFFFFFFF, 4);
    std::vector<std::uint8_t> utf16;
    for (char16_t unit : std::u16string(u"Kamera \u00e9")) {
        utf16.push_back(static_cast<std::uint8_t>(unit));
        utf16.push_back(static_cast<std::uint8_t>(unit >> 8));
    }
    channel.PutText(ABRM::ModelName, "");
    channel.PutBytes(ABRM::ModelName, utf16);
    EXPECT_EQ("Kamera \xc3\xa9", channel.GetModelName());
    channel.SetUserDefinedName("\xc3\xa9t\xc3\xa9");
    EXPECT_EQ(0x00E9u, channel.Read(ABRM::UserDefinedName, 2));
    EXPECT_EQ(0x0074u, channel.Read(ABRM::UserDefinedName + 2, 2));
    EXPECT_EQ("\xc3\xa9t\xc3\xa9", channel.GetUserDefinedName());
    EXPECT_EQ(Err(GC_ERR_ERROR, "String too long for the register."),
              Failure([&] { channel.SetUserDefinedName(std::string(33, 'x')); }))
        << "32 units fit in 64 bytes";
    EXPECT_EQ(0, channel.GetImplementationByteOrder());
    channel.Put(ABRM::ImplementationByteOrder, 0, 4);
    EXPECT_EQ(1, channel.GetImplementationByteOrder());
    channel.Put(ABRM::ImplementationByteOrder, 7, 4);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid byte order detected."),
              Failure([&] { channel.GetImplementationByteOrder(); }));
}

TEST(ControlChannel, RequestIDsStartAtZeroAndSkipItAfterTheWrap)
{
    LoopbackChannel channel;
    std::uint32_t value = 0;
    for (int i = 0; i < 0x10001; ++i)
        channel.ReadMemory(0, &value, 4, 10);
    auto sent = channel.TakeSent();
    ASSERT_EQ(0x10001u, sent.size());
    EXPECT_EQ(0u, sent[0].requestId);
    EXPECT_EQ(1u, sent[1].requestId);
    EXPECT_EQ(0xFFFFu, sent[0xFFFF].requestId);
    EXPECT_EQ(1u, sent[0x10000].requestId) << "0 is used once only";
    EXPECT_EQ(Flags::RequestAck, sent[0].flags);
    EXPECT_EQ(0x00010002u, value);
}

TEST(ControlChannel, LostAndStaleAnswersAreRepeatedFourTimesAtMost)
{
    LoopbackChannel channel;
    std::uint32_t value = 0;
    channel.Script({Answer::Drop, Answer::Stale, Answer::Drop});
    channel.ReadMemory(0, &value, 4, 10);
    EXPECT_EQ(0x00010002u, value);
    auto sent = channel.TakeSent();
    ASSERT_EQ(4u, sent.size());
    for (const Sent& s : sent)
        EXPECT_EQ(0u, s.requestId) << "every attempt carries the same ID";
    EXPECT_EQ(Flags::RequestAck, sent[0].flags);
    EXPECT_EQ(Flags::Resend, sent[1].flags);
    EXPECT_EQ(Flags::Resend, sent[3].flags);
    EXPECT_EQ(1, channel.flushes) << "a stale answer flushes the transport";

    channel.Script({Answer::Drop, Answer::Drop, Answer::Drop, Answer::Drop});
    EXPECT_EQ(Err(GC_ERR_ERROR, "Error while executing a request."),
              Failure([&] { channel.ReadMemory(0, &value, 4, 10); }));
    EXPECT_EQ(4u, channel.TakeSent().size());
    channel.ReadMemory(0, &value, 4, 10);
    EXPECT_EQ(1u, channel.TakeSent().size()) << "the channel goes on after a failed command";
}

TEST(ControlChannel, PendingAcknowledgesExtendTheWaitWithoutCountingAttempts)
{
    LoopbackChannel channel;
    std::uint32_t value = 0;
    channel.Script({Answer::Pending});
    channel.ReadMemory(0, &value, 4, 10);
    EXPECT_EQ(0x00010002u, value);
    EXPECT_EQ(1u, channel.TakeSent().size());
    EXPECT_EQ((std::vector<std::uint32_t>{10, 300}), channel.TakeWaits());

    channel.Script({Answer::PendingError});
    const auto failure = Failure<AckException>([&] { channel.ReadMemory(0, &value, 4, 10); });
    EXPECT_EQ(Err(GC_ERR_BUSY, "Erroneous pending acknowledge packet received"), failure)
        << "an erroneous pending acknowledge is no further wait";
    EXPECT_EQ(1u, channel.TakeSent().size());
}

TEST(ControlChannel, DeviceErrorsAndUnexpectedAnswers)
{
    LoopbackChannel channel;
    std::uint32_t value = 0;
    channel.Script({Answer::ErrorStatus});
    EXPECT_EQ(Err(GC_ERR_ACCESS_DENIED, "Device reported an error while executing a request"),
              Failure<AckException>([&] { channel.ReadMemory(0, &value, 4, 10); }));
    channel.Script({Answer::WrongCommand});
    EXPECT_EQ(Err(GC_ERR_ERROR, "Unexpected acknowledge packet received."),
              Failure([&] { channel.ReadMemory(0, &value, 4, 10); }));
    EXPECT_EQ(2u, channel.TakeSent().size()) << "neither is repeated";
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "No data passed."),
              Failure([&] { channel.ReadMemory(0, nullptr, 4, 10); }));
    EXPECT_EQ(Err(GC_ERR_INVALID_PARAMETER, "Invalid size passed."),
              Failure([&] { channel.WriteMemory(0, &value, 0, 10); }));
    channel.maxAckPayload = 0;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Maximum acknowledge payload size insufficient for GenCP."),
              Failure([&] { channel.ReadMemory(0, &value, 4, 10); }));
    channel.maxCommandPayload = 8;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Maximum command payload size insufficient for GenCP."),
              Failure([&] { channel.WriteMemory(0, &value, 4, 10); }));
}

TEST(ControlChannel, LargeAccessesAreCutIntoBlocks)
{
    LoopbackChannel channel;
    channel.maxAckPayload = 512;
    std::vector<std::uint8_t> pattern(1000);
    for (std::size_t i = 0; i < pattern.size(); ++i)
        pattern[i] = static_cast<std::uint8_t>(i * 7);
    channel.PutBytes(0x3000, pattern);
    std::vector<std::uint8_t> read(1000);
    channel.ReadMemory(0x3000, read.data(), read.size(), 10);
    EXPECT_EQ(pattern, read);
    auto sent = channel.TakeSent();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(0x3000u, sent[0].address);
    EXPECT_EQ(512u, sent[0].length);
    EXPECT_EQ(0x3200u, sent[1].address);
    EXPECT_EQ(488u, sent[1].length);

    channel.maxCommandPayload = 108;
    std::reverse(pattern.begin(), pattern.end());
    channel.WriteMemory(0x3000, pattern.data(), 250, 10);
    channel.ReadMemory(0x3000, read.data(), 250, 10);
    EXPECT_TRUE(std::equal(pattern.begin(), pattern.begin() + 250, read.begin()));
    sent = channel.TakeSent();
    std::vector<std::size_t> writes;
    for (const Sent& s : sent)
        if (s.command == CommandId::WriteMemory)
            writes.push_back(s.length);
    EXPECT_EQ((std::vector<std::size_t>{100, 100, 50}), writes);
}

TEST(ControlChannel, WrittenLengthIsCheckedOnlyWhenTheDeviceReportsIt)
{
    LoopbackChannel channel;
    std::uint32_t value = 0x12345678;
    channel.Script({Answer::ShortWrite});
    channel.WriteMemory(0x3000, &value, 4, 10);
    EXPECT_EQ(0x12345678u, channel.Read(0x3000, 4)) << "no written length to check";

    LoopbackChannel withLength;
    withLength.Put(ABRM::DeviceCapability, 1u << 11, 8);
    withLength.WriteRegister32(0x3000, 7);
    EXPECT_EQ(7u, withLength.ReadRegister32(0x3000));
    withLength.Script({Answer::ShortWrite});
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid amount of data written."),
              Failure([&] { withLength.WriteRegister64(0x3000, 1); }));
}

TEST(ControlChannel, ReadOnlyRefusesEveryWrite)
{
    LoopbackChannel channel(true);
    std::uint32_t value = 0;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Control channel is in read-only mode."),
              Failure([&] { channel.WriteMemory(0x3000, &value, 4, 10); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Control channel is in read-only mode."),
              Failure([&] { channel.WriteRegister32(0x3000, 1); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Control channel is in read-only mode."),
              Failure([&] { channel.SetUserDefinedName("x"); }));
    EXPECT_FALSE(channel.GetCapabilityAccessPrivilege());
    EXPECT_EQ(Err(GC_ERR_ERROR, "Access privilege not supported."), Failure([&] { channel.StartHeartbeat(); }));
    for (const Sent& s : channel.TakeSent())
        EXPECT_NE(CommandId::WriteMemory, s.command);
}

TEST(ControlChannel, ManifestEntries)
{
    LoopbackChannel channel;
    channel.Put(0x1000, 2, 8);
    std::vector<std::uint8_t> entry(64, 0);
    entry[0] = 3;                      // sub-minor
    entry[2] = 2;                      // minor
    entry[3] = 1;                      // major
    entry[5] = 1 << 2;                 // zipped
    entry[6] = 1;                      // schema 1.1
    entry[7] = 1;
    entry[8] = 0x00, entry[9] = 0x30;  // address 0x3000
    entry[16] = 0x10;                  // size 16
    for (int i = 0; i < 20; ++i)
        entry[24 + i] = static_cast<std::uint8_t>(i + 1);
    channel.PutBytes(0x1008, entry);
    entry[5] = 0;
    std::fill(entry.begin() + 24, entry.begin() + 44, 0);
    channel.PutBytes(0x1048, entry);

    EXPECT_EQ(2u, channel.GetManifestEntryCount());
    const ManifestEntry first = channel.GetManifestEntry(0);
    EXPECT_EQ(Tools::Version(1, 2, 3), first.fileVersion);
    EXPECT_EQ(Tools::Version(1, 1), first.schemaVersion);
    EXPECT_EQ(1u, first.fileType);
    EXPECT_EQ(0x3000u, first.address);
    EXPECT_EQ(16u, first.size);
    ASSERT_EQ(20u, first.sha1.size());
    EXPECT_EQ(20, first.sha1[19]);
    EXPECT_TRUE(channel.GetManifestEntry(1).sha1.empty()) << "all zero means no hash";
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid index passed."), Failure([&] { channel.GetManifestEntry(2); }));

    LoopbackChannel empty;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid manifest table entry count detected."),
              Failure([&] { empty.GetManifestEntryCount(); }));
    LoopbackChannel badType;
    badType.Put(0x1000, 1, 8);
    entry[5] = 2 << 2;
    badType.PutBytes(0x1008, entry);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Invalid file type detected."), Failure([&] { badType.GetManifestEntryCount(); }));
}

TEST(ControlChannel, HeartbeatHoldsThePrivilegeUntilStoppedOrLost)
{
    using namespace std::chrono_literals;
    LoopbackChannel channel;
    channel.SetHeartbeatInterval(5);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Cannot stop because heartbeat is not running."),
              Failure([&] { channel.StopHeartbeat(); }));
    channel.StartHeartbeat();
    EXPECT_EQ(1u, channel.Read(ABRM::AccessPrivilege, 4));
    EXPECT_EQ(1u, channel.Read(ABRM::DeviceConfiguration, 8) & 1);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Heartbeat already running."), Failure([&] { channel.StartHeartbeat(); }));
    EXPECT_EQ(Err(GC_ERR_ERROR, "Cannot resume because heartbeat is not paused."),
              Failure([&] { channel.ResumeHeartbeat(); }));
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (channel.CountReadsOf(ABRM::AccessPrivilege) < 5 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_GE(channel.CountReadsOf(ABRM::AccessPrivilege), 5u) << "the thread keeps the device's timer alive";
    channel.PauseHeartbeat();
    EXPECT_TRUE(channel.IsHeartbeatPaused());
    channel.ResumeHeartbeat();
    channel.StopHeartbeat();
    EXPECT_TRUE(channel.IsHeartbeatStopped());
    EXPECT_EQ(0u, channel.Read(ABRM::AccessPrivilege, 4));
    EXPECT_EQ(0u, channel.Read(ABRM::DeviceConfiguration, 8) & 1);

    channel.StartHeartbeat();
    channel.Put(ABRM::AccessPrivilege, 0, 4);  // another host took the device
    while (channel.IsConnected() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_FALSE(channel.IsConnected());
    std::uint32_t value = 0;
    EXPECT_EQ(Err(GC_ERR_ERROR, "Connectivity to device was lost."),
              Failure([&] { channel.ReadMemory(0, &value, 4, 10); }));
    channel.StopHeartbeat();
    EXPECT_TRUE(channel.IsConnected());
    channel.Put(ABRM::AccessPrivilege, 1, 4);
    EXPECT_EQ(Err(GC_ERR_ERROR, "Device is not available at the moment."),
              Failure([&] { channel.StartHeartbeat(); }));
}

}
