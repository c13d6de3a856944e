// The stereo grabber's V4L2 answers against a video node made of fuzz input:
// the open (capability, crop, format, rate, buffer request, buffer queries
// with any length and offset, mappings that fail), then the producer loop on
// the caller's thread (readiness waits, dequeued buffers with any index,
// length, byte count and time stamp, the firmware watch of CBS cameras),
// stopped when the input runs out. No capture thread is started.
//
// Input: flags (generation, size asked for, buffers asked for), then the
// answers of the node as they are asked.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "FuzzVideoSys.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"

namespace bh {

// The grabber names this class as the one door to its private state; this
// program has its own, reaching the producer loop and its stop flag.
class LinuxStereoGrabberTestAccess {
public:
    static void runProducer(LinuxStereoGrabber& g) { g.thread_producer(); }
    static void stop(LinuxStereoGrabber& g) { g.stop.store(true); }
    static void setSize(LinuxStereoGrabber& g, int width, int height) {
        g.width = width;
        g.height = height;
    }
};

}  // namespace bh

namespace {

// Side-by-side sizes the tool asks for, and one small enough to keep frames cheap.
constexpr int kSizes[4][2] = {{64, 8}, {2560, 720}, {1344, 376}, {3840, 1080}};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t flags = in.byte();
    const int* wh = kSizes[(flags >> 1) & 3];
    const int buffers = static_cast<int8_t>(in.byte());
    const float fps = static_cast<float>(static_cast<int8_t>(in.byte()));

    auto sys = std::make_shared<fuzz::FuzzVideoSys>(in);
    platform::ScopedBackend scope(
        platform::Backend{sys, nullptr, nullptr, nullptr, std::make_shared<fuzz::InstantClock>()});
    {
        bh::LinuxStereoGrabber grabber((flags & 1) != 0);
        sys->onExhausted = [&grabber] { bh::LinuxStereoGrabberTestAccess::stop(grabber); };
        // The size asked for, as construct() sets it before init_grabber.
        bh::LinuxStereoGrabberTestAccess::setSize(grabber, wh[0], wh[1]);
        // As construct() does: the capture starts only on a node that opened.
        if (grabber.init_grabber("/dev/video0", fps, buffers) == bh::LinuxStereoGrabber::INIT_OK) {
            grabber.startCapture();
            bh::LinuxStereoGrabberTestAccess::runProducer(grabber);
            grabber.input_get_framerate();
        }
        bh::LinuxStereoGrabberTestAccess::stop(grabber);
        grabber.destruct();
        sys->onExhausted = nullptr;
    }
    return 0;
}
