// The file system of the platform the runtime is built for; getLocalFileSystem returns it.
#pragma once

#include "zu/file_system.h"

namespace zu {
namespace detail {

// Lives until the process ends; never destroyed, so it outlasts every static that uses it.
FileSystem& getPlatformFileSystem();

}  // namespace detail
}  // namespace zu
