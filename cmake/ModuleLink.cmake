# Helpers for a library that is loaded into the agent.

# How the sources of a module are compiled, wherever they are: nothing of the C++ runtime is used.
add_library(kavel_module_flags INTERFACE)
target_compile_options(kavel_module_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions;-fno-rtti;-fno-threadsafe-statics;-fvisibility=hidden>)

# kavel_module_link(TARGET MAP): links a module that may need libc alone at run time: with the C driver, without the C++
# runtime that CMake would add behind that driver's back in the calling directory, exporting what MAP lets out. Its file has
# a note with the version of the host interface.
macro(kavel_module_link TARGET MAP)
  set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
  set_target_properties(${TARGET} PROPERTIES LINKER_LANGUAGE C LINK_DEPENDS ${MAP})
  target_link_options(${TARGET} PRIVATE
    -Wl,--version-script=${MAP} -Wl,--as-needed -Wl,-soname,$<TARGET_FILE_NAME:${TARGET}>)
  target_sources(${TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/src/hostapi/interface_version.c)
  target_link_libraries(${TARGET} PRIVATE hostapi)
endmacro()
