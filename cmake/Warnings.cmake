# Every target of the project links kavel_warnings: a warning is an error.
add_library(kavel_warnings INTERFACE)
target_compile_options(kavel_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Werror)
