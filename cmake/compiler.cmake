# Compiler options for everything: warnings as errors, and the sanitizers of the preset.
set(CMAKE_COMPILE_WARNING_AS_ERROR ON CACHE BOOL "Make every warning of the compiler an error")
add_library(kav_warnings INTERFACE)
target_compile_options(kav_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wformat=2
    -fstack-protector-strong -ffunction-sections -fdata-sections)
# In unity builds, sources shadow one another's names. The other builds report shadowing within a source.
if(NOT CMAKE_UNITY_BUILD)
    target_compile_options(kav_warnings INTERFACE -Wshadow)
endif()
# Log messages name their source file relative to the project folder, also when a compiler cache makes paths relative.
cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY "${PROJECT_BINARY_DIR}" OUTPUT_VARIABLE way_to_source)
target_compile_options(kav_warnings INTERFACE
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/= -fmacro-prefix-map=${way_to_source}/=)
target_link_options(kav_warnings INTERFACE -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now)

if(KAV_SANITIZE)
    target_compile_options(kav_warnings INTERFACE
        -fsanitize=${KAV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(kav_warnings INTERFACE -fsanitize=${KAV_SANITIZE})
    # Some tests limit memory, descriptors or time below what a sanitizer needs.
    target_compile_definitions(kav_warnings INTERFACE KAV_SANITIZED)
endif()
if(KAV_FUZZ)
    target_compile_options(kav_warnings INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(KAV_COVERAGE)
    target_compile_options(kav_warnings INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(kav_warnings INTERFACE --coverage)
    # Programs that cannot open a file for their counts would write to standard error.
    target_compile_definitions(kav_warnings INTERFACE KAV_COUNTED)
endif()

# Hardening of our libraries and programs.
add_library(kav_compiler INTERFACE)
target_link_libraries(kav_compiler INTERFACE kav_warnings)
if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT KAV_SANITIZE)
    target_compile_options(kav_compiler INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# Only the code under test is optimized. Optimizing the tests takes longer than running them.
add_library(kav_test_compiler INTERFACE)
target_link_libraries(kav_test_compiler INTERFACE kav_warnings)
target_compile_options(kav_test_compiler INTERFACE -O0)

# The viewer is linked statically unless a sanitizer needs the dynamic linker: it must start fast.
if(KAV_SANITIZE OR KAV_COVERAGE)
    set(KAV_STATIC_VIEWER OFF)
else()
    set(KAV_STATIC_VIEWER ON)
endif()
