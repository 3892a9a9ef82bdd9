# Compiler settings of every target, and the static library of each module.

add_library(talvek_flags INTERFACE)
target_compile_options(talvek_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor>)
target_include_directories(talvek_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_definitions(talvek_flags INTERFACE _GNU_SOURCE)

# A recording appliance keeps files over 2 GiB and runs past January 2038: the 64-bit forms of
# off_t and time_t everywhere. COMMON.h refuses a program that is compiled otherwise.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    target_compile_definitions(talvek_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    # Everything is built by one compiler; how older ones passed arguments concerns nothing here.
    target_compile_options(talvek_flags INTERFACE -Wno-psabi)
endif()

if(TALVEK_SANITIZE)
    target_compile_options(talvek_flags INTERFACE
        -fsanitize=${TALVEK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(talvek_flags INTERFACE -fsanitize=${TALVEK_SANITIZE})
    # The instrumentation hides initialisations from the compiler; the plain build keeps the warning.
    target_compile_options(talvek_flags INTERFACE -Wno-maybe-uninitialized)
endif()

if(TALVEK_COVERAGE)
    add_library(coverage_at_exit STATIC ${PROJECT_SOURCE_DIR}/tests/support/coverage_at_exit.cpp)
    target_link_libraries(talvek_flags INTERFACE coverage_at_exit)
    target_compile_options(talvek_flags INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(talvek_flags INTERFACE --coverage
        -Wl,--wrap=_exit,--wrap=raise,--undefined=__wrap__exit)
endif()

# talvek_add_module(<folder> [<needed library>...]) makes talvek_<folder> of <folder>/*.cpp.
# main.cpp, where there is one, belongs to a program and not to the library.
function(talvek_add_module folder)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp
        ${PROJECT_SOURCE_DIR}/${folder}/internal/*.cpp)
    list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
    # What every program calls stands first, next to the program's own code: the kernel maps pages
    # in groups, and an idle daemon then holds few of the rest.
    foreach(often IN ITEMS file log)
        if("${PROJECT_SOURCE_DIR}/${folder}/${often}.cpp" IN_LIST sources)
            list(REMOVE_ITEM sources "${PROJECT_SOURCE_DIR}/${folder}/${often}.cpp")
            list(PREPEND sources "${PROJECT_SOURCE_DIR}/${folder}/${often}.cpp")
        endif()
    endforeach()
    add_library(talvek_${folder} STATIC ${sources})
    target_compile_options(talvek_${folder} PRIVATE -fstack-protector-strong)
    target_link_libraries(talvek_${folder} PUBLIC talvek_flags ${ARGN})
    set_target_properties(talvek_${folder} PROPERTIES ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
endfunction()

# talvek_link_small(<program>) takes what little is needed of the C++ runtime into the program itself.
function(talvek_link_small program)
    if(NOT TALVEK_SANITIZE)
        target_link_options(${program} PRIVATE -static-libstdc++ -static-libgcc
            -Wl,--as-needed -Wl,-O1 -Wl,--hash-style=gnu)
    endif()
endfunction()
