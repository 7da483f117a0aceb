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

if(DM_SANITIZE)
    add_compile_options(-fsanitize=${DM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${DM_SANITIZE})
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
