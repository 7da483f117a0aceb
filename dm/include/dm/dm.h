// The whole dm interface: communication pipes, jobs and endpoints, the remote file system,
// the debug-monitor link and the developer console.
#pragma once

#include "dm/comm.h"
#include "dm/console.h"
#include "dm/endpoints.h"
#include "dm/export.h"
#include "dm/fs.h"
#include "dm/jobs.h"
#include "dm/log.h"
#include "dm/monitor.h"

namespace dm {

// The library's version, "major.minor.patch".
DM_API const char* getVersion();

}  // namespace dm
