# The program is one static file on musl (docs/decisions/static-program.md). The compiler and the
# header-only parts of libstdc++ are those of all other targets; the C library is musl's.
#
# Where musl is found for the target's processor, this defines
#   talvek_musl               compiler settings of what is linked with musl
#   talvek_link_musl(<program>)   links a program as one static, position independent file
# and sets TALVEK_STATIC to OFF otherwise.

string(REPLACE "-gnu" "-musl" triplet "${CMAKE_CXX_LIBRARY_ARCHITECTURE}")
# ./do arm unpacks the package of the board's processor in the build folder.
set(musl_roots ${PROJECT_BINARY_DIR}/debs "")
foreach(root IN LISTS musl_roots)
    if(EXISTS ${root}/usr/lib/${triplet}/rcrt1.o)
        set(musl_include ${root}/usr/include/${triplet})
        set(musl_lib ${root}/usr/lib/${triplet})
        break()
    endif()
endforeach()
if(NOT musl_lib)
    message(WARNING "No musl for ${CMAKE_CXX_LIBRARY_ARCHITECTURE}: the program is linked dynamically. "
        "./do build and ./do arm fetch the package musl-dev; -DTALVEK_STATIC=OFF omits this warning.")
    set(TALVEK_STATIC OFF)
    return()
endif()

# The kernel's headers share a folder with glibc's, so links to them are made in a folder of their
# own.
foreach(name IN ITEMS asm asm-generic linux)
    foreach(dir IN LISTS CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
        if(EXISTS ${dir}/${name})
            file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/musl/kernel)
            file(CREATE_LINK ${dir}/${name} ${PROJECT_BINARY_DIR}/musl/kernel/${name} SYMBOLIC)
            break()
        endif()
    endforeach()
endforeach()

set(cxx_dirs ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
list(FILTER cxx_dirs INCLUDE REGEX "/c\\+\\+/")
set(compiler_dirs ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
list(FILTER compiler_dirs INCLUDE REGEX "/lib/(gcc|gcc-cross|clang)/")
list(TRANSFORM cxx_dirs PREPEND "SHELL:-isystem ")
list(TRANSFORM compiler_dirs PREPEND "SHELL:-isystem ")

add_library(talvek_musl INTERFACE)
target_compile_options(talvek_musl INTERFACE -fPIE -nostdinc
    "$<$<COMPILE_LANGUAGE:CXX>:-nostdinc++;SHELL:-isystem ${PROJECT_SOURCE_DIR}/cmake/musl;${cxx_dirs}>"
    "SHELL:-isystem ${musl_include}" ${compiler_dirs}
    "SHELL:-isystem ${PROJECT_BINARY_DIR}/musl/kernel"
    # A request of ioctl is an int there, and some are larger.
    -Wno-overflow -Wno-sign-conversion
    # musl's pthread_cancel unwinds nothing, and nothing in the program throws.
    -fno-unwind-tables -fno-asynchronous-unwind-tables
    # The kernel maps the file at once: what is smaller takes less memory and time at every start.
    $<$<CONFIG:Release>:-Os>)

function(talvek_link_musl program)
    # Code and constants share one mapping, as they do by default on ARM: a process starts and forks
    # with two mappings less.
    target_link_options(${program} PRIVATE -nostdlib -static
        LINKER:-z,noseparate-code LINKER:-pie,--no-dynamic-linker,-z,text,-z,relro,-z,now,-z,noexecstack
        $<$<CONFIG:Release>:LINKER:-s> -L${musl_lib} ${musl_lib}/rcrt1.o ${musl_lib}/crti.o)
    target_link_libraries(${program} PRIVATE
        -Wl,--start-group -lc -lgcc -Wl,--end-group ${musl_lib}/crtn.o)
endfunction()
