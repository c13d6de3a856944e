// The native-buffer half of the adapter: a frame's image copied into an
// NvBufSurface (EGLStream::NV::IImageNativeBuffer), and the surface's first
// plane copied out into plain memory (NvBufSurface).

#include <Argus/Argus.h>
#include <EGLStream/EGLStream.h>
#include <EGLStream/NV/ImageNativeBuffer.h>
#include <nvbufsurface.h>

#include "platform/argus/ArgusAdapter.h"

namespace platform {

namespace at = argus_types;

namespace {

EGLStream::NV::IImageNativeBuffer* nativeBufferOf(at::Frame* frame) {
    auto* f = frame != nullptr
                  ? ::Argus::interface_cast<EGLStream::IFrame>(reinterpret_cast<EGLStream::Frame*>(frame))
                  : nullptr;
    return f != nullptr ? ::Argus::interface_cast<EGLStream::NV::IImageNativeBuffer>(f->getImage()) : nullptr;
}

NvBufSurface* surfaceOf(int fd) {
    NvBufSurface* surface = nullptr;
    if (NvBufSurfaceFromFd(fd, reinterpret_cast<void**>(&surface)) != 0)
        return nullptr;
    return surface;
}

}  // namespace

int ArgusAdapter::createNvBuffer(at::Frame* frame, at::Size2D size, int colorFormat, int layout, int rotation,
                                 at::Status* status) {
    EGLStream::NV::IImageNativeBuffer* native = nativeBufferOf(frame);
    if (native == nullptr) {
        if (status != nullptr)
            *status = at::STATUS_UNAVAILABLE;
        return -1;
    }
    ::Argus::Status st = ::Argus::STATUS_OK;
    const int fd = native->createNvBuffer(
        ::Argus::Size2D<uint32_t>(size.width, size.height), static_cast<NvBufSurfaceColorFormat>(colorFormat),
        static_cast<NvBufSurfaceLayout>(layout), static_cast<EGLStream::NV::Rotation>(rotation), &st);
    if (status != nullptr)
        *status = static_cast<at::Status>(static_cast<int>(st));
    return fd;
}

at::Status ArgusAdapter::copyToNvBuffer(at::Frame* frame, int fd) {
    EGLStream::NV::IImageNativeBuffer* native = nativeBufferOf(frame);
    if (native == nullptr)
        return at::STATUS_UNAVAILABLE;
    return static_cast<at::Status>(static_cast<int>(native->copyToNvBuffer(fd)));
}

int ArgusAdapter::surfaceMapParams(int fd, uint32_t& width, uint32_t& height, uint32_t& pitch) {
    NvBufSurface* surface = surfaceOf(fd);
    if (surface == nullptr)
        return -1;
    NvBufSurfaceMapParams params;
    if (NvBufSurfaceGetMapParams(surface, 0, &params) != 0)
        return -1;
    width = params.planes[0].width;
    height = params.planes[0].height;
    pitch = params.planes[0].pitch;
    return 0;
}

int ArgusAdapter::surfaceToRaw(int fd, uint32_t plane, uint32_t width, uint32_t height, unsigned char* out) {
    NvBufSurface* surface = surfaceOf(fd);
    if (surface == nullptr)
        return -1;
    return NvBufSurface2Raw(surface, 0, plane, width, height, out);
}

int ArgusAdapter::destroyNvBuffer(int fd) {
    NvBufSurface* surface = surfaceOf(fd);
    return surface != nullptr ? NvBufSurfaceDestroy(surface) : -1;
}

}  // namespace platform
