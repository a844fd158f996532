# Builds for macOS on Linux: to check, without a Mac, that the product compiles and links there. What
# comes out is never shipped; see docs/decisions/0009-checking-macos-without-a-mac.md.
#
# CMAKE_OSX_ARCHITECTURES (arm64 or x86_64, one of them) and CMAKE_OSX_DEPLOYMENT_TARGET must be set,
# as the presets macos-arm64 and macos-x86_64 do.

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_OSX_ARCHITECTURES})

# The system that is built for, and what of the libraries here works there. Laid out in the build
# folder: nothing of /usr/include may be seen but what is named.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HALVO_DARWIN_ROOT)
if(NOT HALVO_DARWIN_ROOT)
    set(HALVO_DARWIN_ROOT ${CMAKE_BINARY_DIR}/darwin)
endif()
get_property(in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT in_try_compile)
    include(${CMAKE_CURRENT_LIST_DIR}/DarwinRoot.cmake)
    halvo_make_darwin_root(${HALVO_DARWIN_ROOT})
endif()
set(CMAKE_OSX_SYSROOT ${HALVO_DARWIN_ROOT}/sysroot CACHE PATH "" FORCE)

foreach(language IN ITEMS CXX OBJCXX)
    find_program(CMAKE_${language}_COMPILER clang++-19 REQUIRED)
    set(CMAKE_${language}_COMPILER_TARGET
        ${CMAKE_OSX_ARCHITECTURES}-apple-macos${CMAKE_OSX_DEPLOYMENT_TARGET})
endforeach()
foreach(tool IN ITEMS AR RANLIB NM STRIP OBJDUMP INSTALL_NAME_TOOL)
    string(TOLOWER llvm-${tool}-19 program)
    string(REPLACE _ - program ${program})
    find_program(CMAKE_${tool} ${program} REQUIRED)
endforeach()
# The version is that of a Mac's linker, for which the compiler generates; without one it would take
# it for one of long ago. Pointers are left as they are, so that the tools here can follow them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -mlinker-version=1115 -Wl,-no_fixup_chains")

# Packages, headers and libraries come from there only, programs from here.
set(CMAKE_FIND_ROOT_PATH ${HALVO_DARWIN_ROOT}/third-party)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# Of Boost only the headers work for another system.
set(CMAKE_DISABLE_FIND_PACKAGE_Boost ON)
