# Compiler settings, and the static library of each module.

# What users of the library need too. On 32-bit targets off_t and time_t have 64 bits everywhere: a
# recording appliance keeps files over 2 GiB and runs past January 2038. The public headers refuse a
# program that is compiled otherwise.
add_library(talvek_interface INTERFACE)
set_target_properties(talvek_interface PROPERTIES EXPORT_NAME interface)
target_include_directories(talvek_interface INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_definitions(talvek_interface INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# Settings of the project's own sources, tests and benchmarks.
add_library(talvek_flags INTERFACE)
target_link_libraries(talvek_flags INTERFACE talvek_interface)
target_compile_options(talvek_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor>
    # What a lock guards (base/thread_annotations.h); ./do fuzz compiles the libraries with clang.
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(TALVEK_WERROR)
    target_compile_options(talvek_flags INTERFACE -Werror)
endif()
target_compile_definitions(talvek_flags INTERFACE _GNU_SOURCE)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    # One compiler builds everything; how older ones passed arguments is of no concern.
    target_compile_options(talvek_flags INTERFACE -Wno-psabi)
endif()

# The product's own sources. A C program links the library with nothing but the C library, so it is
# compiled without exceptions and run-time type information. Unwind tables stay: where cancellation
# acts in a caller's callback, the caller's own C++ frames above the library are unwound.
add_library(talvek_inside INTERFACE)
target_link_libraries(talvek_inside INTERFACE talvek_flags)
target_compile_options(talvek_inside INTERFACE -fstack-protector-strong
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -funwind-tables>)

if(TALVEK_SANITIZE)
    target_compile_options(talvek_flags INTERFACE
        -fsanitize=${TALVEK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(talvek_flags INTERFACE -fsanitize=${TALVEK_SANITIZE})
    # The instrumentation hides initialisations from the compiler; the plain build keeps the warning.
    target_compile_options(talvek_flags INTERFACE
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

if(TALVEK_COVERAGE)
    # The product counts, and so do the tests that compile a header of base/ (tests/CMakeLists.txt).
    add_library(coverage_at_exit STATIC ${PROJECT_SOURCE_DIR}/tests/support/coverage_at_exit.cpp)
    target_link_libraries(talvek_flags INTERFACE coverage_at_exit)
    # The compiler would have fork and execv write the counts, which a child of COM_System, on its small
    # stack and the memory of its parent, must not.
    set(TALVEK_COUNTS -O0 --coverage -fprofile-update=atomic -fno-builtin-fork -fno-builtin-execv)
    target_compile_options(talvek_inside INTERFACE ${TALVEK_COUNTS})
    target_link_options(talvek_flags INTERFACE --coverage
        -Wl,--wrap=_exit,--wrap=abort,--wrap=raise,--undefined=__wrap__exit)
endif()
