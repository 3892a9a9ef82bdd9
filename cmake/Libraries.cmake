# The libraries of each module, static and shared, and their installation.
#
# talvek_add_library(<folder> <description> [<shared folder>...]) makes of <folder>/*.cpp,
# <folder>/internal/*.cpp and the sources of the shared folders
#   talvek_<folder>         the archive; programs, tests and benchmarks of this tree link it
#   talvek_<folder>_musl    the same on musl, with TALVEK_STATIC
#   talvek_<folder>_shared  the shared library of the archive's objects, with TALVEK_SHARED
#   talvek::<folder>        what other projects link: the shared library with BUILD_SHARED_LIBS, else
#                           the archive
# main.cpp belongs to a program. Every module but common builds on talvek_common.

# Other projects include <talvek/common/COMMON.h>, from here as from an installation.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include)
file(CREATE_LINK ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/include/talvek SYMBOLIC)
set(talvek_include_dir $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>)

function(talvek_add_library folder description)
    set(patterns ${PROJECT_SOURCE_DIR}/${folder}/*.cpp ${PROJECT_SOURCE_DIR}/${folder}/internal/*.cpp)
    foreach(shared IN LISTS ARGN)
        list(APPEND patterns ${shared}/*.cpp)
    endforeach()
    file(GLOB sources CONFIGURE_DEPENDS ${patterns})
    list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")

    add_library(talvek_${folder} STATIC ${sources})
    # An archive can be linked into a shared object too.
    set_target_properties(talvek_${folder} PROPERTIES EXPORT_NAME ${folder}_static
        POSITION_INDEPENDENT_CODE ON ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
    target_compile_options(talvek_${folder} PRIVATE -fno-semantic-interposition)
    target_link_libraries(talvek_${folder} PUBLIC talvek_interface
        PRIVATE $<BUILD_INTERFACE:talvek_inside>)

    if(TALVEK_STATIC)
        add_library(talvek_${folder}_musl STATIC ${sources})
        target_link_libraries(talvek_${folder}_musl PRIVATE talvek_inside talvek_musl)
        set_target_properties(talvek_${folder}_musl PROPERTIES OUTPUT_NAME talvek_${folder}
            ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/musl EXPORT_COMPILE_COMMANDS OFF)
    endif()

    # CMake links a program with the C++ compiler, and thus with libstdc++, when a library target of it
    # is written in C++. The library needs none of that, so other projects link the archive's file.
    add_library(talvek_${folder}_file INTERFACE)
    add_dependencies(talvek_${folder}_file talvek_${folder})
    target_link_libraries(talvek_${folder}_file INTERFACE
        $<TARGET_FILE:talvek_${folder}> talvek_interface)
    target_include_directories(talvek_${folder}_file INTERFACE ${talvek_include_dir})

    if(TALVEK_SHARED)
        # A folder of their own: the linker prefers a shared library to the archive beside it.
        add_library(talvek_${folder}_shared SHARED $<TARGET_OBJECTS:talvek_${folder}>)
        set_target_properties(talvek_${folder}_shared PROPERTIES EXPORT_NAME ${folder}_shared
            OUTPUT_NAME talvek_${folder} VERSION ${PROJECT_VERSION}
            SOVERSION ${PROJECT_VERSION_MAJOR} LINKER_LANGUAGE C
            INSTALL_RPATH "$ORIGIN" BUILD_WITH_INSTALL_RPATH ON
            LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/shared
            LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exported-names)
        target_include_directories(talvek_${folder}_shared INTERFACE ${talvek_include_dir})
        target_link_libraries(talvek_${folder}_shared PUBLIC talvek_interface
            PRIVATE $<BUILD_INTERFACE:talvek_flags>)
        target_link_options(talvek_${folder}_shared PRIVATE -static-libgcc LINKER:-z,defs,-z,now
            LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exported-names)
    endif()

    if(NOT folder STREQUAL common)
        target_link_libraries(talvek_${folder} PUBLIC talvek_common)
        target_link_libraries(talvek_${folder}_file INTERFACE talvek_common_file)
        if(TALVEK_SHARED)
            # The archive holds base/, of which every shared library has a copy that nobody sees.
            target_link_libraries(talvek_${folder}_shared PUBLIC talvek_common_shared
                PRIVATE talvek_common)
        endif()
    endif()

    if(BUILD_SHARED_LIBS)
        add_library(talvek::${folder} ALIAS talvek_${folder}_shared)
    else()
        add_library(talvek::${folder} ALIAS talvek_${folder}_file)
    endif()

    if(TALVEK_INSTALL)
        talvek_install_library(${folder} "${description}")
    endif()
endfunction()

# Installs a module's libraries, public headers and pkg-config file.
function(talvek_install_library folder description)
    set(libraries)
    set(requires)
    if(TALVEK_SHARED)
        list(APPEND libraries talvek_${folder}_shared)
    endif()
    if(NOT BUILD_SHARED_LIBS)
        list(APPEND libraries talvek_${folder})
    endif()
    install(TARGETS ${libraries} EXPORT talvekTargets)
    file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h)
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talvek/${folder})

    if(NOT folder STREQUAL common)
        set(requires talvek-common)
    endif()
    set(definitions)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
        set(definitions "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
    endif()
    # Files of an installation find each other wherever it lies, so that --prefix and DESTDIR may
    # differ from what was set up.
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
        BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE up)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/talvek.pc.in
        ${PROJECT_BINARY_DIR}/talvek-${folder}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/talvek-${folder}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# What find_package(talvek) reads.
function(talvek_install_package)
    include(CMakePackageConfigHelpers)
    set(dir ${CMAKE_INSTALL_LIBDIR}/cmake/talvek)
    install(TARGETS talvek_interface EXPORT talvekTargets)
    install(EXPORT talvekTargets NAMESPACE talvek:: DESTINATION ${dir})
    write_basic_package_version_file(${PROJECT_BINARY_DIR}/talvekConfigVersion.cmake
        COMPATIBILITY SameMajorVersion)
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/talvekConfig.cmake
        ${PROJECT_BINARY_DIR}/talvekConfigVersion.cmake DESTINATION ${dir})
endfunction()

# Manual pages by their section, and the examples as sources.
function(talvek_install_documents)
    file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.[1-8])
    foreach(page IN LISTS pages)
        cmake_path(GET page EXTENSION LAST_ONLY section)
        string(REPLACE "." man section ${section})
        install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/${section})
    endforeach()
    # Section 3 is made from the headers.
    find_program(PERL perl)
    if(PERL)
        file(GLOB headers CONFIGURE_DEPENDS common/*.h dev/*.h dns/*.h service/*.h)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
            ${headers} docs/talvek.8 tools/docs/man-pages)
        file(REMOVE_RECURSE ${PROJECT_BINARY_DIR}/man3)
        file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man3)
        execute_process(COMMAND ${PERL} tools/docs/man-pages ${PROJECT_BINARY_DIR}/man3
            WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMAND_ERROR_IS_FATAL ANY)
        install(DIRECTORY ${PROJECT_BINARY_DIR}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR})
    endif()
    file(GLOB examples CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.[ch]
        ${PROJECT_SOURCE_DIR}/examples/*.py)
    install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
endfunction()

# What supervises the daemon. The unit and the script name the program by its path below
# CMAKE_INSTALL_PREFIX.
function(talvek_install_supervision)
    install(PROGRAMS ${PROJECT_SOURCE_DIR}/packaging/talvek-listener
        DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})
    configure_file(packaging/systemd/talvek.service talvek.service @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/talvek.service DESTINATION lib/systemd/system)
    configure_file(packaging/init.d/talvek init.d/talvek @ONLY)
    install(PROGRAMS ${PROJECT_BINARY_DIR}/init.d/talvek
        DESTINATION ${CMAKE_INSTALL_DATADIR}/talvek/init.d)
    install(FILES packaging/logrotate/talvek
        DESTINATION ${CMAKE_INSTALL_DATADIR}/talvek/logrotate.d)
endfunction()
