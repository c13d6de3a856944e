// The images of the simulated GMSL cameras, read as the client reads them:
// a native buffer per side, the frame copied into it, and plane 0 copied out
// as tightly packed YUYV rows. The scene moves slowly (consecutive frames
// differ a little) and the second view sees it shifted by the disparity.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "SimArgusCaptureSupport.h"
#include "sim/uvc/FrameGenerator.h"

using namespace capturetest;

namespace {

// The two views of the simulated stereo camera are 12 pixel pairs apart
// (48 bytes of YUYV): the second view's pair m is the first view's pair m + 12.
constexpr size_t kDisparityBytes = 12 * 4;

struct Image {
    uint64_t timestampNs = 0;
    std::vector<unsigned char> bytes;
};

class Reader {
public:
    Reader(platform::Argus& argus, at::Size2D size) : argus_(argus), size_(size) {}
    ~Reader() {
        if (fd_ > 0)
            argus_.destroyNvBuffer(fd_);
    }
    // The next frame of the consumer, copied out.
    Image read(at::FrameConsumer* consumer) {
        Image image;
        at::Status status;
        at::Frame* frame = argus_.acquireFrame(consumer, kSecond, &status);
        EXPECT_NE(frame, nullptr);
        if (frame == nullptr)
            return image;
        EXPECT_TRUE(argus_.getSensorTimestamp(frame, image.timestampNs));
        if (fd_ < 0)
            fd_ = argus_.createNvBuffer(frame, size_, 14, 0, 0, &status);
        EXPECT_EQ(argus_.copyToNvBuffer(frame, fd_), at::STATUS_OK);
        image.bytes.assign(static_cast<size_t>(size_.width) * size_.height * 2, 0);
        EXPECT_EQ(argus_.surfaceToRaw(fd_, 0, size_.width, size_.height, image.bytes.data()), 0);
        argus_.releaseFrame(frame);
        return image;
    }
    int fd() const { return fd_; }

private:
    platform::Argus& argus_;
    at::Size2D size_;
    int fd_ = -1;
};

// Largest change of a chroma sample (U or V, the odd bytes of YUYV).
int largestChromaChange(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
    int largest = 0;
    for (size_t i = 1; i < a.size() && i < b.size(); i += 2)
        largest = std::max(largest, std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i])));
    return largest;
}

size_t differingBytes(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
    size_t n = 0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        n += a[i] != b[i];
    return n;
}

}  // namespace

TEST(SimArgusImage, ConsecutiveFramesDifferALittle) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus), {640, 400});
    Reader reader(argus, {640, 400});
    Image previous = reader.read(chains[0].consumer);
    for (int i = 0; i < 5; ++i) {
        const Image next = reader.read(chains[0].consumer);
        ASSERT_EQ(next.timestampNs, previous.timestampNs + k60HzNs);
        // The scene moved: many bytes changed, each chroma sample by a few levels.
        EXPECT_GT(differingBytes(previous.bytes, next.bytes), next.bytes.size() / 4);
        EXPECT_LE(largestChromaChange(previous.bytes, next.bytes), 10);
        previous = next;
    }
    // Not a flat picture: the luma of a row varies.
    const auto row = previous.bytes.begin();
    int lo = 255, hi = 0;
    for (size_t i = 0; i < 640 * 2; i += 2) {
        lo = std::min<int>(lo, row[i]);
        hi = std::max<int>(hi, row[i]);
    }
    EXPECT_GT(hi - lo, 40);
    closeSensors(argus, chains);
}

TEST(SimArgusImage, SecondViewIsShiftedByTheDisparity) {
    Installed in(machineFrom(stereoCamera(30)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const at::Size2D size{960, 600};
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus), size);
    Reader left(argus, size), right(argus, size);
    const Image l = left.read(chains[0].consumer);
    const Image r = right.read(chains[1].consumer);
    ASSERT_EQ(l.timestampNs, r.timestampNs);
    EXPECT_NE(left.fd(), right.fd());
    EXPECT_GT(differingBytes(l.bytes, r.bytes), l.bytes.size() / 4);
    const size_t rowBytes = size.width * 2;
    for (uint32_t y = 0; y < size.height; y += 37) {
        const unsigned char* lr = l.bytes.data() + y * rowBytes;
        const unsigned char* rr = r.bytes.data() + y * rowBytes;
        EXPECT_TRUE(std::equal(rr, rr + rowBytes - kDisparityBytes, lr + kDisparityBytes)) << "row " << y;
    }
    closeSensors(argus, chains);
}

TEST(SimArgusImage, RowsArePackedAndThePitchIsAligned) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    // 1000 pixels: 2000 bytes a row, 2048 in the buffer.
    const at::Size2D size{1000, 300};
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus), size);
    at::Status status;
    at::Frame* frame = argus.acquireFrame(chains[0].consumer, kSecond, &status);
    ASSERT_NE(frame, nullptr);
    const int fd = argus.createNvBuffer(frame, size, 14, 0, 0, &status);
    ASSERT_GT(fd, 0);
    uint32_t w = 0, h = 0, pitch = 0;
    ASSERT_EQ(argus.surfaceMapParams(fd, w, h, pitch), 0);
    EXPECT_EQ(w, 1000u);
    EXPECT_EQ(h, 300u);
    EXPECT_EQ(pitch, 2048u);

    // Exactly height rows of width * 2 bytes are written.
    const size_t packed = static_cast<size_t>(w) * h * 2;
    std::vector<unsigned char> out(packed + 4096, 0xA5);
    ASSERT_EQ(argus.surfaceToRaw(fd, 0, w, h, out.data()), 0);
    EXPECT_TRUE(std::all_of(out.begin() + packed, out.end(), [](unsigned char c) { return c == 0xA5; }));
    EXPECT_NE(std::count(out.begin(), out.begin() + packed, 0xA5), static_cast<long>(packed));
    // A smaller window is the top-left corner of the same image.
    std::vector<unsigned char> corner(200 * 10 * 2, 0);
    ASSERT_EQ(argus.surfaceToRaw(fd, 0, 200, 10, corner.data()), 0);
    for (int y = 0; y < 10; ++y)
        EXPECT_TRUE(
            std::equal(corner.begin() + y * 400, corner.begin() + (y + 1) * 400, out.begin() + y * 2000));
    // The same frame copied again gives the same picture.
    std::vector<unsigned char> again(packed, 0);
    ASSERT_EQ(argus.copyToNvBuffer(frame, fd), at::STATUS_OK);
    ASSERT_EQ(argus.surfaceToRaw(fd, 0, w, h, again.data()), 0);
    EXPECT_TRUE(std::equal(again.begin(), again.end(), out.begin()));
    argus.releaseFrame(frame);
    // The buffer outlives the frame and the provider.
    closeSensors(argus, chains);
    argus.destroyProvider();
    EXPECT_EQ(argus.surfaceMapParams(fd, w, h, pitch), 0);
    EXPECT_EQ(argus.destroyNvBuffer(fd), 0);
    EXPECT_EQ(argus.destroyNvBuffer(fd), -1);
}

TEST(SimArgusImage, NativeBufferArgumentsAreChecked) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus), {640, 400});
    at::Status status;
    at::Frame* frame = argus.acquireFrame(chains[0].consumer, kSecond, &status);
    ASSERT_NE(frame, nullptr);
    struct Bad {
        at::Frame* frame;
        at::Size2D size;
        int format, layout, rotation;
        at::Status expected;
    };
    const Bad cases[] = {
        {nullptr, {640, 400}, 14, 0, 0, at::STATUS_INVALID_PARAMS},
        {reinterpret_cast<at::Frame*>(chains[0].consumer), {640, 400}, 14, 0, 0, at::STATUS_INVALID_PARAMS},
        {frame, {640, 400}, 19, 0, 0, at::STATUS_INVALID_PARAMS},  // not YUYV
        {frame, {641, 400}, 14, 0, 0, at::STATUS_INVALID_PARAMS},  // YUYV needs an even width
        {frame, {0, 400}, 14, 0, 0, at::STATUS_INVALID_PARAMS},
        {frame, {640, 0}, 14, 0, 0, at::STATUS_INVALID_PARAMS},
        {frame, {32768, 400}, 14, 0, 0, at::STATUS_INVALID_PARAMS},
        {frame, {640, 400}, 14, 2, 0, at::STATUS_INVALID_PARAMS},
        {frame, {640, 400}, 14, 0, 90, at::STATUS_UNIMPLEMENTED},
    };
    for (const Bad& b : cases) {
        status = at::STATUS_OK;
        EXPECT_EQ(argus.createNvBuffer(b.frame, b.size, b.format, b.layout, b.rotation, &status), -1);
        EXPECT_EQ(status, b.expected)
            << b.size.width << " " << b.format << " " << b.layout << " " << b.rotation;
    }
    const int fd = argus.createNvBuffer(frame, {640, 400}, 14, 1, 0, nullptr);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(argus.copyToNvBuffer(frame, fd + 1), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus.copyToNvBuffer(nullptr, fd), at::STATUS_INVALID_PARAMS);
    uint32_t w, h, pitch;
    EXPECT_EQ(argus.surfaceMapParams(fd + 1, w, h, pitch), -1);
    EXPECT_EQ(argus.surfaceMapParams(-1, w, h, pitch), -1);
    std::vector<unsigned char> out(640 * 401 * 2);
    EXPECT_EQ(argus.surfaceToRaw(fd, 1, 640, 400, out.data()), -1);  // YUYV has one plane
    EXPECT_EQ(argus.surfaceToRaw(fd, 0, 640, 400, nullptr), -1);
    EXPECT_EQ(argus.surfaceToRaw(fd, 0, 641, 400, out.data()), -1);
    EXPECT_EQ(argus.surfaceToRaw(fd, 0, 640, 401, out.data()), -1);
    EXPECT_EQ(argus.surfaceToRaw(fd, 0, 0, 400, out.data()), -1);
    EXPECT_EQ(argus.surfaceToRaw(fd + 1, 0, 640, 400, out.data()), -1);
    EXPECT_EQ(argus.destroyNvBuffer(fd + 1), -1);
    argus.releaseFrame(frame);
    // A released frame is no longer one.
    EXPECT_EQ(argus.copyToNvBuffer(frame, fd), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus.destroyNvBuffer(fd), 0);
    closeSensors(argus, chains);
}

TEST(SimArgusImage, OneViewIsAHalfOfTheSideBySideFrame) {
    sim::FrameGenerator g;
    g.configure(640 * 2, 120);
    std::vector<uint8_t> both(g.frameBytes());
    std::vector<uint8_t> view(640 * 120 * 2);
    for (uint64_t index : {0u, 7u, 300u}) {
        g.render(index, both.data(), both.size(), false);
        for (int v = 0; v < 2; ++v) {
            g.renderView(index, v, view.data(), 640 * 2, 640, 120);
            for (int y = 0; y < 120; ++y) {
                const uint8_t* half = both.data() + static_cast<size_t>(y) * 640 * 4 + v * 640 * 2;
                EXPECT_TRUE(std::equal(half, half + 640 * 2, view.data() + static_cast<size_t>(y) * 640 * 2))
                    << "index " << index << " view " << v << " row " << y;
            }
        }
    }
}
