# Warnings, hardening and definitions for everything this project compiles.
add_library(kx_flags INTERFACE)
target_include_directories(kx_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_features(kx_flags INTERFACE cxx_std_20 c_std_11)
target_compile_definitions(kx_flags INTERFACE KXRULE_API=) # the exports are compiled here, not imported
target_compile_options(kx_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict> # GCC 12 wrongly warns about `s = "literal"` at -O2
    # The same bytes from any checkout. (But coverage tools have to find the sources.)
    $<$<NOT:$<CONFIG:Coverage>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=>
    $<$<BOOL:${KX_WERROR}>:-Werror>)

if(WIN32)
    target_compile_definitions(kx_flags INTERFACE
        _WIN32_WINNT=0x0601 WINVER=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX
        $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS> $<$<NOT:$<CONFIG:Debug,Coverage>>:_FORTIFY_SOURCE=2>)
    target_compile_options(kx_flags INTERFACE
        -fstack-protector-strong -fcf-protection
        $<$<CONFIG:Debug>:-fsanitize=undefined -fsanitize-undefined-trap-on-error>)
    # The stack protector's run-time library comes from the link option of the same name.
    target_link_options(kx_flags INTERFACE
        -static -fstack-protector-strong
        -Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat -Wl,--no-insert-timestamp
        -Wl,--major-subsystem-version,6 -Wl,--minor-subsystem-version,1 # Windows 7; older versions refuse it
        # Sections begin on pages of the file, too: Wine then maps what is used of them instead of reading all of them.
        -Wl,--file-alignment,4096)
else()
    # With coverage, the sanitizers' checks would count as branches.
    target_compile_definitions(kx_flags INTERFACE _GLIBCXX_ASSERTIONS)
    target_compile_options(kx_flags INTERFACE
        "$<$<NOT:$<CONFIG:Coverage>>:-fsanitize=address,undefined;-fno-sanitize-recover=all;-fno-omit-frame-pointer>"
        $<$<BOOL:${KX_FUZZ}>:-fsanitize=fuzzer-no-link>)
    target_link_options(kx_flags INTERFACE $<$<NOT:$<CONFIG:Coverage>>:-fsanitize=address,undefined>)
endif()
