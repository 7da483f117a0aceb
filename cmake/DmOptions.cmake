# Compiler settings shared by every target of the project.
add_library(dm_warnings INTERFACE)
if(MSVC)
    target_compile_options(dm_warnings INTERFACE /W4 $<$<BOOL:${DM_WERROR}>:/WX>)
else()
    target_compile_options(dm_warnings INTERFACE -Wall -Wextra -Wshadow -Wnon-virtual-dtor
                                                 $<$<BOOL:${DM_WERROR}>:-Werror>)
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

# add_dm_program(name sources...): a program linked against dm with the project's warnings.
function(add_dm_program name)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE dm::dm dm_warnings)
endfunction()
