// The console tests' drawing interface under the name the fuzz targets use.
#pragma once

#include "console/recording_shape_engine.h"

namespace dmtest {
using FakeShapeEngine = RecordingShapeEngine;
}
