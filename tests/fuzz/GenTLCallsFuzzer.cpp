// The exported GenTL functions as a consumer might call them, in any order,
// with handles from earlier results, of the wrong kind, stale or forged, on
// two virtual cameras; between GCInitLib and GCCloseLib for every input.
#include "libcsi/Config.h"
#include "tests/consumer/RandomCalls.h"
#include "tests/fuzz/FuzzInput.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using namespace QEL;

class InputChoices : public Test::Choices {
public:
    explicit InputChoices(Fuzz::Input& input) : input(input) {}
    std::uint64_t Next() override { return input.Take<std::uint16_t>(); }

private:
    Fuzz::Input& input;
};

// Small, fast cameras: the cost of an input is the producer's, not the simulator's.
// Nothing kept between inputs: each starts from the description, so that a finding replays alone.
const char* const Description = R"([system]
board = imx8m
state = none

[camera0]
node = video0
port = 2
width = 64
height = 16
pixel_format = Mono8
frame_rate = 500
bus_timing = 0
mode_switch_delay_ms = 2

[camera1]
node = video1
port = 3
bus = 3
width = 32
height = 8
pixel_format = Mono12
frame_rate = 500
bus_timing = 0
mode_switch_delay_ms = 2
leader_trailer = 0
)";

const GenTLFunctions& Functions()
{
    static const GenTLFunctions table = LORUN_LINKED_GENTL_FUNCTIONS();
    return table;
}

}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const std::string path =
        Fuzz::WriteFile("cameras.ini", reinterpret_cast<const std::uint8_t*>(Description), std::strlen(Description));
    setenv("LORUN_VIRTUAL_CAMERA", path.c_str(), 1);
    LibCSIImpl::TheConfig().directory = Fuzz::PrivateFolder();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const GenTLFunctions& gentl = Functions();
    Fuzz::Input input(data, size);
    InputChoices choices(input);
    // Declared before the library is opened, so that memory announced to it
    // outlives GCCloseLib.
    Test::HandlePool pool;
    Test::RandomCaller caller(gentl, pool, false);
    if (gentl.GCInitLib() != GC_ERR_SUCCESS)
        __builtin_trap();
    // LORUN_FUZZ_VERBOSE=1 shows each call, for reading what an input does.
    static const bool verbose = std::getenv("LORUN_FUZZ_VERBOSE") != nullptr;
    for (int call = 0; call < 64 && !input.Empty(); ++call) {
        const GC_ERROR result = caller.Call(choices, false);
        if (verbose)
            std::fprintf(stderr, "%s: %d\n", caller.LastFunction(), result);
        if (!Test::RandomCaller::IsGenTLResult(result))
            __builtin_trap();
    }
    if (gentl.GCCloseLib() != GC_ERR_SUCCESS)
        __builtin_trap();
    return 0;
}
