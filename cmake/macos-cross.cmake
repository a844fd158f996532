# Cross-compiles for macOS on Linux, to check without a Mac that the product compiles and links. The
# result is never shipped; see docs/decisions/0009-checking-macos-without-a-mac.md.
#
# CMAKE_OSX_ARCHITECTURES (arm64 or x86_64, one of them) and CMAKE_OSX_DEPLOYMENT_TARGET must be set,
# as the presets macos-arm64 and macos-x86_64 do.

# Links each entry of the folder `from` into the folder `to`.
function(halvo_link_entries from to)
    file(MAKE_DIRECTORY ${to})
    file(GLOB entries RELATIVE ${from} ${from}/*)
    foreach(entry IN LISTS entries)
        if(NOT EXISTS ${to}/${entry})
            file(CREATE_LINK ${from}/${entry} ${to}/${entry} SYMBOLIC)
        endif()
    endforeach()
endfunction()

# Writes to `file` a stub (https://github.com/llvm/llvm-project, TextAPI, version 4) of macOS's
# libc++ from Debian's of version 19. The one in macOS 26 is newer, and libc++ keeps its exported
# symbols; so every symbol that links here exists there.
function(halvo_write_libcxx_stub file)
    find_program(HALVO_LLVM_NM llvm-nm-19 REQUIRED)
    execute_process(
        COMMAND ${HALVO_LLVM_NM} --dynamic --defined-only --extern-only --format=just-symbols
            /usr/lib/llvm-19/lib/libc++.so.1 /usr/lib/llvm-19/lib/libc++abi.so.1
        OUTPUT_VARIABLE symbols
        COMMAND_ERROR_IS_FATAL ANY)
    # Mangled names and those of the runtime, without versions; in Mach-O with another underscore.
    string(REGEX MATCHALL "(_Z|__cxa_|__gxx_|__dynamic_cast)[^\n@]*" symbols "${symbols}")
    list(REMOVE_DUPLICATES symbols)
    list(SORT symbols)
    list(TRANSFORM symbols REPLACE "(.+)" "'_\\1'")
    list(JOIN symbols ", " symbols)
    file(CONFIGURE OUTPUT ${file} CONTENT "--- !tapi-tbd
tbd-version: 4
targets: [ x86_64-macos, arm64-macos ]
install-name: '/usr/lib/libc++.1.dylib'
exports:
  - targets: [ x86_64-macos, arm64-macos ]
    symbols: [ ${symbols} ]
...
" @ONLY)
endfunction()

# Makes in the folder `root`, or brings up to date:
#   sysroot/      Darwin's headers and the stub of its libSystem (see scripts/darwin-headers), our own
#                 declarations of Apple's frameworks with their stubs, and a stub of libc++
#   third-party/  the libraries of Debian that are headers only
# No more can be linked than the stubs list.
function(halvo_make_darwin_root root)
    set(project ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/..)
    execute_process(
        COMMAND ${project}/scripts/darwin-headers --where
        OUTPUT_VARIABLE darwin OUTPUT_STRIP_TRAILING_WHITESPACE
        RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "The Darwin headers are missing: run scripts/setup")
    endif()

    set(sysroot ${root}/sysroot)
    set(usr ${sysroot}/usr)
    set(declarations ${project}/tests/AppleDeclarations)
    get_filename_component(declarations ${declarations} REALPATH)
    halvo_link_entries(${darwin}/include/any-macos-any/os ${usr}/include/os)
    halvo_link_entries(${declarations}/os ${usr}/include/os)
    halvo_link_entries(${darwin}/include/any-macos-any/mach-o ${usr}/include/mach-o)
    halvo_link_entries(${declarations}/mach-o ${usr}/include/mach-o)
    halvo_link_entries(${darwin}/include/any-macos-any ${usr}/include)
    halvo_link_entries(${declarations}/lib ${usr}/lib)
    file(CREATE_LINK ${darwin}/darwin/libSystem.tbd ${usr}/lib/libSystem.tbd SYMBOLIC)
    halvo_write_libcxx_stub(${usr}/lib/libc++.tbd)
    foreach(framework IN ITEMS CoreFoundation Foundation Security SystemConfiguration)
        set(bundle ${sysroot}/System/Library/Frameworks/${framework}.framework)
        file(MAKE_DIRECTORY ${bundle})
        file(CREATE_LINK ${declarations}/${framework} ${bundle}/Headers SYMBOLIC)
        file(CREATE_LINK ${declarations}/${framework}/${framework}.tbd
            ${bundle}/${framework}.tbd SYMBOLIC)
    endforeach()
    # The compiler reads the version of the SDK from it.
    file(CONFIGURE OUTPUT ${sysroot}/SDKSettings.json CONTENT "{
    \"CanonicalName\": \"macosx26.0\",
    \"Version\": \"26.0\",
    \"DefaultDeploymentTarget\": \"26.0\",
    \"MaximumDeploymentTarget\": \"26.0.99\"
}
")

    file(MAKE_DIRECTORY ${root}/third-party/include ${root}/third-party/share/cmake)
    foreach(library IN ITEMS boost CLI nlohmann)
        file(CREATE_LINK /usr/include/${library} ${root}/third-party/include/${library} SYMBOLIC)
    endforeach()
    # Copies: they find the headers relative to their own path.
    file(COPY /usr/share/cmake/CLI11 /usr/share/cmake/nlohmann_json DESTINATION ${root}/third-party/share/cmake)
endfunction()

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${CMAKE_OSX_ARCHITECTURES})

# The sysroot, and the header-only libraries that also work there. In the build folder, since nothing
# else of /usr/include may be found.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES HALVO_DARWIN_ROOT)
if(NOT HALVO_DARWIN_ROOT)
    set(HALVO_DARWIN_ROOT ${CMAKE_BINARY_DIR}/darwin)
endif()
get_property(in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT in_try_compile)
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
# The version of a Mac's linker, which the compiler generates code for; its default is an old one.
# Without chained fixups, so that the tools here can follow pointers.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -mlinker-version=1115 -Wl,-no_fixup_chains")

# Packages, headers and libraries of the target only; programs of the host only.
set(CMAKE_FIND_ROOT_PATH ${HALVO_DARWIN_ROOT}/third-party)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
