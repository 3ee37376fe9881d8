# find_package(KxPfwRul) gives the target KxPfwRul::KxPfwRul, for MinGW and for MSVC.
get_filename_component(KxPfwRul_ROOT_DIR "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
if(NOT TARGET KxPfwRul::KxPfwRul)
    add_library(KxPfwRul::KxPfwRul SHARED IMPORTED)
    set_target_properties(KxPfwRul::KxPfwRul PROPERTIES
        IMPORTED_LOCATION "${KxPfwRul_ROOT_DIR}/bin/KxPfwRul.dll"
        INTERFACE_INCLUDE_DIRECTORIES "${KxPfwRul_ROOT_DIR}/include")
    if(MINGW)
        set_property(TARGET KxPfwRul::KxPfwRul PROPERTY IMPORTED_IMPLIB "${KxPfwRul_ROOT_DIR}/lib/libKxPfwRul.dll.a")
    else()
        set_property(TARGET KxPfwRul::KxPfwRul PROPERTY IMPORTED_IMPLIB "${KxPfwRul_ROOT_DIR}/lib/KxPfwRul.lib")
    endif()
endif()
