# Header-only libraries installed on the system, without putting the rest of its include directory on the path.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/third_party)
foreach(library CLI nlohmann utf8 utf8.h)
    file(CREATE_LINK /usr/include/${library} ${PROJECT_BINARY_DIR}/third_party/${library} SYMBOLIC)
endforeach()
add_library(kx_third_party INTERFACE)
target_include_directories(kx_third_party SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/third_party)
