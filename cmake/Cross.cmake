# The toolchain file for Debian's cross compilers: -DCMAKE_TOOLCHAIN_FILE=cmake/Cross.cmake -DKAVEL_ARCH=arm64.
# KAVEL_ARCH is Debian's name of the processor. The libraries are Debian's multiarch packages (libjson-c-dev:arm64).
# KAVEL_EMULATOR is the program that runs the tests: a path, or nothing where the processor's programs run as they are.
#
# KAVEL_ARCH=musl builds the module and the check of hosts for this processor with musl as the C library: with gcc, the
# headers of its C++ library and musl-tools. KAVEL_HEADERS is a folder with the headers of json-c, protobuf-c, liburcu and
# the kernel, and with none of another C library.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KAVEL_ARCH KAVEL_HEADERS)

if(KAVEL_ARCH STREQUAL musl)
  execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE gcc OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND g++ -print-multiarch OUTPUT_VARIABLE machine OUTPUT_STRIP_TRAILING_WHITESPACE)
  execute_process(COMMAND g++ -print-file-name=include OUTPUT_VARIABLE of_gcc OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REGEX REPLACE "-.*" "" processor ${machine})
  set(CMAKE_SYSTEM_NAME Linux)
  set(CMAKE_SYSTEM_PROCESSOR ${processor})
  set(CMAKE_C_COMPILER musl-gcc)
  set(CMAKE_CXX_COMPILER g++)
  set(CMAKE_C_FLAGS_INIT "-isystem ${KAVEL_HEADERS}")
  # These headers were set up for another C library, whose version they ask for.
  string(CONCAT CMAKE_CXX_FLAGS_INIT
    "-nostdinc -isystem /usr/include/c++/${gcc} -isystem /usr/include/${machine}/c++/${gcc} "
    "-isystem /usr/include/${processor}-linux-musl -isystem ${of_gcc} -isystem ${KAVEL_HEADERS} "
    "-D'__GLIBC_PREREQ(major,minor)=0'")
  # pkg-config leaves these out of what it gives.
  set(ENV{PKG_CONFIG_SYSTEM_INCLUDE_PATH} /usr/include:/usr/include/${machine})
  # No C++ program can be linked.
  set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
  return()
endif()

set(processors
  amd64 x86_64 x86_64-linux-gnu x86_64-linux-gnu
  arm64 aarch64 aarch64-linux-gnu aarch64-linux-gnu
  armhf armv7l arm-linux-gnueabihf arm-linux-gnueabihf
  i386 i686 i686-linux-gnu i386-linux-gnu
  s390x s390x s390x-linux-gnu s390x-linux-gnu)
list(FIND processors "${KAVEL_ARCH}" row)
if(row LESS 0)
  message(FATAL_ERROR "KAVEL_ARCH: amd64, arm64, armhf, i386 or s390x, not \"${KAVEL_ARCH}\"")
endif()
list(SUBLIST processors ${row} 4 row)
list(POP_FRONT row ignored CMAKE_SYSTEM_PROCESSOR compilers CMAKE_LIBRARY_ARCHITECTURE)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${compilers}-gcc)
set(CMAKE_CXX_COMPILER ${compilers}-g++)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:/usr/share/pkgconfig)
if(KAVEL_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KAVEL_EMULATOR})
endif()
