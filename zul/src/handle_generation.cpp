#include "handle_generation.h"

namespace zu::platform {

namespace {

// Zero until a descriptor is opened under the number: 256 KiB of zero pages, touched only
// where descriptors are.
std::atomic<uint32_t> g_openGenerations[kTrackedHandles];

}  // namespace

std::atomic<uint32_t>* openGenerationOf(NativeHandle handle) {
    if (handle < 0 || static_cast<size_t>(handle) >= kTrackedHandles) {
        return nullptr;
    }
    return &g_openGenerations[static_cast<size_t>(handle)];
}

}  // namespace zu::platform
