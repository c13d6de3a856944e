// The native buffers of the simulated camera service. A buffer holds no
// pixels: it remembers which frame was copied into it (the scene position and
// the sensor's view), and surfaceToRaw renders that frame from precomputed
// scene rows, about one memcpy of the image.
#include <algorithm>

#include "sim/argus/SimArgus.h"
#include "sim/uvc/FrameGenerator.h"

namespace sim {

namespace at = platform::argus_types;

namespace {

constexpr int kColorFormatYuyv = 14;  // the buffer format for YUYV 4:2:2
constexpr uint32_t kPitchAlignment = 256;
constexpr uint32_t kLargestSide = 16384;

void setStatus(at::Status* status, at::Status value) {
    if (status != nullptr)
        *status = value;
}

// The scene position of a frame: its place on the camera's grid counted in
// periods, the same for both views of a stereo pair, one step a frame.
uint64_t sceneIndexOf(const argus_records::FrameInfo& info) {
    return info.periodNs > 0 ? static_cast<uint64_t>(info.gridNs / info.periodNs) : 0;
}

}  // namespace

std::shared_ptr<const FrameGenerator> SimArgus::generatorLocked(at::Size2D size) {
    auto& slot = generators_[{size.width, size.height}];
    if (!slot) {
        auto generator = std::make_shared<FrameGenerator>();
        // The generator's scene is side by side: twice one view's width.
        generator->configure(static_cast<int>(size.width) * 2, static_cast<int>(size.height));
        slot = std::move(generator);
    }
    return slot;
}

int SimArgus::createNvBuffer(at::Frame* handle, at::Size2D size, int colorFormat, int layout, int rotation,
                             at::Status* status) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    // YUYV needs an even width; layouts 0 (pitch) and 1 (block linear).
    if (frame == nullptr || colorFormat != kColorFormatYuyv || size.width == 0 || size.height == 0 ||
        size.width % 2 != 0 || size.width > kLargestSide || size.height > kLargestSide || layout < 0 ||
        layout > 1) {
        setStatus(status, at::STATUS_INVALID_PARAMS);
        return -1;
    }
    if (rotation != 0) {
        setStatus(status, at::STATUS_UNIMPLEMENTED);
        return -1;
    }
    argus_records::NvBuffer buffer;
    buffer.size = size;
    buffer.sceneIndex = sceneIndexOf(frame->info);
    buffer.view = frame->info.view;
    const int fd = nextBuffer_++;
    buffers_[fd] = buffer;
    setStatus(status, at::STATUS_OK);
    return fd;
}

at::Status SimArgus::copyToNvBuffer(at::Frame* handle, int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    auto buffer = buffers_.find(fd);
    if (frame == nullptr || buffer == buffers_.end())
        return at::STATUS_INVALID_PARAMS;
    buffer->second.sceneIndex = sceneIndexOf(frame->info);
    buffer->second.view = frame->info.view;
    return at::STATUS_OK;
}

int SimArgus::surfaceMapParams(int fd, uint32_t& width, uint32_t& height, uint32_t& pitch) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto buffer = buffers_.find(fd);
    if (buffer == buffers_.end())
        return -1;
    width = buffer->second.size.width;
    height = buffer->second.size.height;
    pitch = (width * 2 + kPitchAlignment - 1) / kPitchAlignment * kPitchAlignment;
    return 0;
}

int SimArgus::surfaceToRaw(int fd, uint32_t plane, uint32_t width, uint32_t height, unsigned char* out) {
    std::shared_ptr<const FrameGenerator> generator;
    argus_records::NvBuffer buffer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = buffers_.find(fd);
        // YUYV has one plane; at most the buffer's size is copied out.
        if (it == buffers_.end() || plane != 0 || out == nullptr || width == 0 || height == 0 ||
            width > it->second.size.width || height > it->second.size.height)
            return -1;
        buffer = it->second;
        generator = generatorLocked(buffer.size);
    }
    generator->renderView(buffer.sceneIndex, buffer.view, out, static_cast<size_t>(width) * 2,
                          static_cast<int>(width), static_cast<int>(height));
    return 0;
}

int SimArgus::destroyNvBuffer(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    return buffers_.erase(fd) == 1 ? 0 : -1;
}

}  // namespace sim
