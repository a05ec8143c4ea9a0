#include "transport/LibCSILibrary.h"

#include "base/Exception.h"
#include "support/MediaLogger.h"
#include "support/MutexGuard.h"
#include "transport/LibCSIDevice.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

namespace QEL { namespace LibCSI {

namespace {

// The media log, once for the whole process.
struct MediaLogState {
    std::mutex mutex;
    std::shared_ptr<CSITools::Logger> logger;
    std::atomic<bool> active{false};
};

MediaLogState& TheMediaLog()
{
    static MediaLogState* const state = new MediaLogState;
    return *state;
}

std::shared_ptr<CSITools::Logger> ActiveMediaLog()
{
    MediaLogState& state = TheMediaLog();
    if (!state.active.load())
        return nullptr;
    std::lock_guard<std::mutex> lock(state.mutex);
    return state.logger;
}

}

std::shared_ptr<Library> Library::Create(bool mediaLogEnabled, const std::string& mediaLogFileName)
{
    std::shared_ptr<Library> library(new Library);
    library->Initialise(mediaLogEnabled, mediaLogFileName);
    return library;
}

void Library::Initialise(bool mediaLogEnabled, const std::string& mediaLogFileName)
{
    System::MutexGuard guard(&mutex);
    MediaLogOpen(mediaLogEnabled, mediaLogFileName);
    wrapper = std::make_shared<LibCSIWrapper_Impl>();
    wrapper->Init();
    initialised = true;
}

Library::~Library()
{
    if (initialised && wrapper)
        wrapper->Deinit();
    wrapper.reset();
    MediaLogState& state = TheMediaLog();
    std::shared_ptr<CSITools::Logger> logger;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.active.load() && state.logger) {
            state.active = false;
            logger = std::move(state.logger);
        }
    }
    // The logger drains its queues outside the lock.
    logger.reset();
}

LibCSIWrapper_Impl::DiscoverySignal& Library::GetDiscoverySignal()
{
    if (!wrapper)
        throw System::Exception("Invalid LibCSIWrapper_Impl pointer.");
    return wrapper->GetDiscoverySignal();
}

std::shared_ptr<DeviceList> Library::GetDeviceList(std::uint32_t id)
{
    System::MutexGuard guard(&mutex);
    return std::make_shared<DeviceList>(id, wrapper);
}

std::shared_ptr<Device> Library::CreateDevice(const std::string& key)
{
    return std::make_shared<Device>(key, nullptr);
}

std::shared_ptr<Device> Library::OpenDevice(const std::string& key, const std::shared_ptr<System::Object>& parent)
{
    if (!parent)
        throw System::Exception("No parent object passed");
    return std::make_shared<Device>(key, parent);
}

void Library::MediaLogOpen(bool wanted, const std::string& path)
{
    MediaLogState& state = TheMediaLog();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!wanted || state.logger)
        return;
    state.logger = std::make_shared<CSITools::Logger>(path, false);
    state.active = true;
}

bool Library::IsMediaLogActive() { return TheMediaLog().active.load(); }

void Library::MediaLog(const std::string& text)
{
    if (auto logger = ActiveMediaLog())
        logger->Log(text);
}

void Library::MediaLogFormat(const char* format, ...)
{
    auto logger = ActiveMediaLog();
    if (!logger)
        return;
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string text;
    if (length < 0) {
        text = "<conversion failed>";
    } else {
        try {
            std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
            std::vsnprintf(buffer.data(), buffer.size(), format, args);
            text.assign(buffer.data(), static_cast<std::size_t>(length));
        } catch (const std::bad_alloc&) {
            text = "<conversion failed>";
        }
    }
    va_end(args);
    logger->Log(text);
}

void Library::MediaLogDump(const std::string& text, const void* data, std::uint32_t length)
{
    if (auto logger = ActiveMediaLog())
        logger->Dump(text, data, length);
}

} }
