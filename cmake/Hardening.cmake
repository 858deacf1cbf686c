# How everything that is installed is compiled and linked: hardened, and with the same bytes wherever it is built. Targets
# of the product link kavel_hardening, tests do not. A build with sanitizers has checks of its own instead.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)

add_library(kavel_hardening INTERFACE)
target_compile_options(kavel_hardening INTERFACE
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=build
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
target_link_options(kavel_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

if(CMAKE_CXX_FLAGS MATCHES "sanitize")
  return()
endif()

# It is for optimised code alone: without optimisation glibc warns.
target_compile_options(kavel_hardening INTERFACE
  -fstack-protector-strong
  $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)

# What the processor decides: shadow stack and indirect branch tracking on x86, their counterparts on arm64.
foreach(flag -fstack-clash-protection -fcf-protection=full -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER HAS${flag} has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    target_compile_options(kavel_hardening INTERFACE ${flag})
  endif()
endforeach()
