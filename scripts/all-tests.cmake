# The tests of every preset and the checks as one run of ctest, with one summary. Read by ctest, not by CMake.
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
foreach(preset native release debug)
    subdirs("${root}/build/${preset}")
endforeach()
foreach(check format text shell contract headers locks tables tidy)
    add_test("check.${check}" "${root}/scripts/check.sh" ${check})
    set_tests_properties("check.${check}" PROPERTIES PROCESSORS 2 TIMEOUT 1200)
endforeach()
