#include "dm/dm.h"

namespace dm {

const char* getVersion() {
    return "0.1.0";
}

}  // namespace dm
