// The web monitor's page, built into the program from tools/web/ (see cmake/EmbedFiles.cmake).
#pragma once

#include <cstddef>
#include <vector>

namespace dm_tools {

struct EmbeddedFile {
    const char* name;  // file name within tools/web/, e.g. "app.js"
    const unsigned char* data;
    size_t size;
};

const std::vector<EmbeddedFile>& embeddedFiles();

}  // namespace dm_tools
