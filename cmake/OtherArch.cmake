# Toolchain file: builds for another architecture with Debian's cross compiler, against the libraries of a root directory
# of that architecture. TELEMETRY_ARCH (Debian's name) and TELEMETRY_ROOT say which; scripts/run-tests --arch sets both.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TELEMETRY_ARCH TELEMETRY_ROOT)
set(processor_i386 i686)
set(processor_s390x s390x)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor_${TELEMETRY_ARCH}})
set(CMAKE_C_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_SYSTEM_PROCESSOR}-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TELEMETRY_ARCH}-linux-gnu)

# The compiler brings the C and C++ libraries; everything else is the root's.
set(CMAKE_FIND_ROOT_PATH ${TELEMETRY_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(root_libraries ${TELEMETRY_ROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${root_libraries})
set(CMAKE_SHARED_LINKER_FLAGS_INIT -Wl,-rpath-link,${root_libraries})
set(ENV{PKG_CONFIG_LIBDIR} ${root_libraries}/pkgconfig:${TELEMETRY_ROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${TELEMETRY_ROOT})
set(CMAKE_C_FLAGS_INIT "-isystem ${TELEMETRY_ROOT}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")
