# The SDK as `cmake --install` lays it out: bin, include, lib, share/doc.
include(CMakePackageConfigHelpers)

# What ships is compiled with symbols, which scripts/package.sh takes out into an archive of their own. (The tests, which
# are added after this, go without.)
function(kx_with_symbols directory)
    get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
        get_target_property(type ${target} TYPE)
        if(type MATCHES "LIBRARY|EXECUTABLE" AND NOT type STREQUAL INTERFACE_LIBRARY)
            target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-g>)
        endif()
    endforeach()
    get_property(children DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
    foreach(child ${children})
        kx_with_symbols(${child})
    endforeach()
endfunction()
kx_with_symbols(${PROJECT_SOURCE_DIR})

# MSVC's linker wants its own form of import library, which LLVM makes. Building needs it not, so it may be missing.
find_program(KX_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
if(KX_LLVM_DLLTOOL)
    set(library ${CMAKE_BINARY_DIR}/msvc/KxPfwRul.lib)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/msvc)
    add_custom_command(OUTPUT ${library} DEPENDS ${CMAKE_SOURCE_DIR}/api/KxPfwRul.def VERBATIM
        COMMAND ${KX_LLVM_DLLTOOL} -m i386:x86-64 -d ${CMAKE_SOURCE_DIR}/api/KxPfwRul.def -l ${library})
    add_custom_target(KxPfwRul_msvc ALL DEPENDS ${library})
    install(FILES ${library} DESTINATION lib)
endif()

install(TARGETS KxPfwRul RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
foreach(target KxHash KxVqrDbg kxrule)
    if(TARGET ${target})
        install(TARGETS ${target} RUNTIME DESTINATION bin)
    endif()
endforeach()
install(FILES api/include/KxPfwRule.h api/include/KxPfwRule.hpp api/include/KxPfwRuleBuilder.hpp DESTINATION include)

write_basic_package_version_file(${CMAKE_BINARY_DIR}/KxPfwRulConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/KxPfwRulConfig.cmake ${CMAKE_BINARY_DIR}/KxPfwRulConfigVersion.cmake DESTINATION lib/cmake/KxPfwRul)

install(FILES LICENSE README.md CHANGELOG.md SECURITY.md DESTINATION share/doc/KxPfwRul)
install(DIRECTORY docs examples DESTINATION share/doc/KxPfwRul)
