# Writes the files of a folder into a C++ source as byte arrays, so that a tool serves them
# without reading anything at run time. Run as a script:
#   cmake -DINPUT_DIR=<folder> -DOUTPUT=<file.cpp> -P EmbedFiles.cmake
# The source defines dm_tools::embeddedFiles() (see tools/monitor/web_assets.h).
file(GLOB files RELATIVE ${INPUT_DIR} ${INPUT_DIR}/*)
list(SORT files)
set(arrays "")
set(entries "")
set(index 0)
foreach(name IN LISTS files)
    file(READ ${INPUT_DIR}/${name} hex HEX)
    string(LENGTH "${hex}" hex_length)
    math(EXPR size "${hex_length} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    string(REGEX REPLACE "(0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f],0x[0-9a-f][0-9a-f])"
           "\\1\n" bytes "${bytes}")
    string(APPEND arrays "const unsigned char file${index}[] = {\n${bytes}0};\n")
    string(APPEND entries "        {\"${name}\", file${index}, ${size}},\n")
    math(EXPR index "${index} + 1")
endforeach()
file(WRITE ${OUTPUT}.tmp
"// Generated from ${INPUT_DIR} by cmake/EmbedFiles.cmake; do not edit.
#include \"monitor/web_assets.h\"

namespace {
${arrays}}  // namespace

namespace dm_tools {
const std::vector<EmbeddedFile>& embeddedFiles() {
    static const std::vector<EmbeddedFile> files = {
${entries}    };
    return files;
}
}  // namespace dm_tools
")
file(COPY_FILE ${OUTPUT}.tmp ${OUTPUT} ONLY_IF_DIFFERENT)
file(REMOVE ${OUTPUT}.tmp)
