# find_package(talvek) defines talvek::common, talvek::dev, talvek::dns and talvek::service. They are
# the shared libraries; the archives with talvek_USE_STATIC_LIBS, and where only those are installed.

include(${CMAKE_CURRENT_LIST_DIR}/talvekTargets.cmake)

foreach(module IN ITEMS common dev dns service)
    set(kind shared)
    if(TARGET talvek::${module}_static)
        # The archives are C++ inside and need nothing of its run-time library.
        get_target_property(configurations talvek::${module}_static IMPORTED_CONFIGURATIONS)
        foreach(configuration IN LISTS configurations)
            set_property(TARGET talvek::${module}_static
                PROPERTY IMPORTED_LINK_INTERFACE_LANGUAGES_${configuration} C)
        endforeach()
        if(talvek_USE_STATIC_LIBS OR NOT TARGET talvek::${module}_shared)
            set(kind static)
        endif()
    endif()
    if(NOT TARGET talvek::${module} AND TARGET talvek::${module}_${kind})
        add_library(talvek::${module} ALIAS talvek::${module}_${kind})
    endif()
endforeach()
