# Compiler settings shared by every target of the project, and where things are installed.
include(GNUInstallDirs)

# Installed headers live below include/dm, so that nothing generic ("zu", "net", "d") lands at
# the top of a shared prefix: the runtime's headers go to include/dm/zul, which consumers get
# as an include directory, so that code still writes "zu/string.h".
set(DM_INSTALL_ZUL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/dm/zul)

add_library(dm_warnings INTERFACE)
if(MSVC)
    target_compile_options(dm_warnings INTERFACE /W4 $<$<BOOL:${DM_WERROR}>:/WX>)
else()
    target_compile_options(dm_warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                                                 $<$<BOOL:${DM_WERROR}>:-Werror>)
endif()

# Clang's thread-safety analysis checks the locking rules written into the code with the
# annotations of zu/thread_annotations.h (preset clang-tsa).
if(DM_THREAD_SAFETY_ANALYSIS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "DM_THREAD_SAFETY_ANALYSIS needs clang: configure with the preset clang-tsa")
    endif()
    target_compile_options(dm_warnings INTERFACE -Wthread-safety)
endif()

if(DM_SANITIZE)
    add_compile_options(-fsanitize=${DM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${DM_SANITIZE})
endif()

# Fuzzing: every target gets libFuzzer's coverage instrumentation with ASan and UBSan; only the
# harnesses link libFuzzer's main (tests/fuzz).
if(DM_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(FATAL_ERROR "DM_FUZZ needs clang: configure with the preset fuzz")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=address,undefined)
endif()

# add_dm_program(name sources...): a host program linked against dm with the project's warnings,
# parsing its arguments with CLI11 (Debian's libcli11-dev). It is installed to the binary folder
# and finds the libraries in the library folder beside it.
function(add_dm_program name)
    find_package(CLI11 REQUIRED)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE dm::dm dm_warnings CLI11::CLI11)
    file(RELATIVE_PATH libraries /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries}")
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    set_property(GLOBAL APPEND PROPERTY DM_PROGRAMS ${name})
endfunction()
