# The tests of every preset and the checks as one run of ctest, with one summary. Read by ctest, not by CMake.
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH root)
foreach(preset native release debug)
    subdirs("${root}/build/${preset}")
endforeach()
foreach(check format text shell rooms contract tables tidy)
    add_test("check.${check}" "${root}/scripts/check.sh" ${check})
    set_tests_properties("check.${check}" PROPERTIES TIMEOUT 1200)
endforeach()
set_tests_properties("check.tidy" PROPERTIES PROCESSORS 2 COST 1000) # the longest first, so that nothing waits for it
add_test("sdk" "${root}/tests/sdk/test.sh")
set_tests_properties("sdk" PROPERTIES COST 1000 TIMEOUT 600 FIXTURES_SETUP sdk)
add_test("sdk.alone" "${root}/cmake/wine-run.sh" "./consumer.exe" "alone")
set_tests_properties("sdk.alone" PROPERTIES FIXTURES_REQUIRED sdk RUN_SERIAL TRUE WORKING_DIRECTORY
    "${root}/build/sdk/a folder/consumer")
