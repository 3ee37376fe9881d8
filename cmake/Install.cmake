# The layout of the SDK for `cmake --install`, from which scripts/package.sh makes the packages.
include(CMakePackageConfigHelpers)

# What ships is compiled with symbols for functions and lines, which scripts/package.sh moves to an archive of their
# own. (-g with variables would up to double the build time. The tests, which are added after this, have no symbols.)
function(kx_with_symbols directory)
    get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
        get_target_property(type ${target} TYPE)
        if(type MATCHES "LIBRARY|EXECUTABLE" AND NOT type STREQUAL INTERFACE_LIBRARY)
            target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-g1>)
        endif()
    endforeach()
    get_property(children DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
    foreach(child ${children})
        kx_with_symbols(${child})
    endforeach()
endfunction()
kx_with_symbols(${PROJECT_SOURCE_DIR})

# MSVC's linker needs its own form of import library, which LLVM makes. Builds do not need it, so LLVM may be missing.
find_program(KX_LLVM_DLLTOOL NAMES llvm-dlltool llvm-dlltool-14)
set(libraries)
foreach(target KxPfwRul KxPolicy KxHash KxVqrDbg)
    install(TARGETS ${target} RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
    if(KX_LLVM_DLLTOOL)
        get_target_property(definition ${target} SOURCES)
        get_target_property(directory ${target} SOURCE_DIR)
        list(FILTER definition INCLUDE REGEX "\\.def$")
        cmake_path(ABSOLUTE_PATH definition BASE_DIRECTORY ${directory})
        set(library ${PROJECT_BINARY_DIR}/msvc/${target}.lib)
        add_custom_command(OUTPUT ${library} DEPENDS ${definition} VERBATIM
            COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/msvc
            COMMAND ${KX_LLVM_DLLTOOL} -m i386:x86-64 -d ${definition} -l ${library})
        list(APPEND libraries ${library})
        install(FILES ${library} DESTINATION lib)
    endif()
endforeach()
add_custom_target(KxPfwRul_msvc ALL DEPENDS ${libraries})
install(TARGETS kxrule RUNTIME DESTINATION bin)
install(FILES api/include/KxPfwRule.h api/include/KxPfwRule.hpp api/include/KxPfwRuleBuilder.hpp api/include/KxPolicy.h
    DESTINATION include)

# Files for find_package, FetchContent and pkg-config.
configure_package_config_file(cmake/sdk/KxPfwRulConfig.cmake.in ${PROJECT_BINARY_DIR}/KxPfwRulConfig.cmake
    INSTALL_DESTINATION lib/cmake/KxPfwRul NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KxPfwRulConfigVersion.cmake COMPATIBILITY SameMajorVersion)
configure_file(cmake/sdk/kxpfwrul.pc.in ${PROJECT_BINARY_DIR}/kxpfwrul.pc @ONLY)
configure_file(cmake/sdk/kxpolicy.pc.in ${PROJECT_BINARY_DIR}/kxpolicy.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KxPfwRulConfig.cmake ${PROJECT_BINARY_DIR}/KxPfwRulConfigVersion.cmake
    DESTINATION lib/cmake/KxPfwRul)
install(FILES ${PROJECT_BINARY_DIR}/kxpfwrul.pc ${PROJECT_BINARY_DIR}/kxpolicy.pc DESTINATION lib/pkgconfig)
install(FILES cmake/sdk/CMakeLists.txt DESTINATION .)

# Documents for users of the package. Those for the library's developers refer to sources that are not in it.
install(FILES cmake/sdk/README.md LICENSE CHANGELOG.md SECURITY.md DESTINATION .)
install(FILES docs/format.md docs/kxrule.md docs/kxrule.schema.json docs/policies.md docs/policy.schema.json
    docs/recovery.md docs/security.md docs/settings.md docs/threads.md DESTINATION docs)
install(DIRECTORY examples DESTINATION . PATTERN __pycache__ EXCLUDE)
install(FILES cmake/mingw-w64-x86_64.cmake DESTINATION examples)
install(DIRECTORY api/python DESTINATION . PATTERN __pycache__ EXCLUDE)
