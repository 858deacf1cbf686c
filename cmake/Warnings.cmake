# Every target of the project links kavel_warnings. A warning is an error in the presets, not for those who build a release
# with another compiler.
add_library(kavel_warnings INTERFACE)
target_compile_options(kavel_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2)
