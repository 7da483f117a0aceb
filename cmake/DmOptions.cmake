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

# add_dm_program(name sources...): a host program linked against dm with the project's warnings,
# parsing its arguments with CLI11 (Debian's libcli11-dev).
function(add_dm_program name)
    find_package(CLI11 REQUIRED)
    add_executable(${name} ${ARGN})
    target_link_libraries(${name} PRIVATE dm::dm dm_warnings CLI11::CLI11)
endfunction()
