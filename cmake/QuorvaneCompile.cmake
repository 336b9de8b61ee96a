# Two interface targets that carry every compile rule of the project:
#   quorvane_flags    for all of our C++
#   quorvane_python   adds Python's and NumPy's headers, as system headers

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_library(quorvane_flags INTERFACE)
target_include_directories(quorvane_flags INTERFACE ${PROJECT_SOURCE_DIR}/cpp)

# On Windows Clang takes the options of Microsoft's compiler, and its own behind /clang:.
if(MSVC AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "Microsoft's compiler has no vectors of doubles. Clang has: cmake -T ClangCL")
endif()
function(quorvane_compile_options target scope)
    if(MSVC)
        list(TRANSFORM ARGN PREPEND /clang:)
    endif()
    target_compile_options(${target} ${scope} ${ARGN})
endfunction()

# Results are compared bit for bit with other implementations: no fused multiply-add where the
# source has a multiplication and an addition. Said to the linker too, which compiles under LTO.
quorvane_compile_options(quorvane_flags INTERFACE -ffp-contract=off)
if(NOT MSVC)
    target_link_options(quorvane_flags INTERFACE -ffp-contract=off)
endif()

quorvane_compile_options(quorvane_flags INTERFACE
    -Wall -Wextra -Wpedantic
    -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual -Wcast-align
    -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi -Wundef -Wformat=2 -Wimplicit-fallthrough
)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(quorvane_flags INTERFACE
        -Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wuseless-cast)
endif()
if(QUORVANE_WERROR)
    quorvane_compile_options(quorvane_flags INTERFACE -Werror)
endif()

if(QUORVANE_SANITIZE)
    set(_sanitize -fsanitize=${QUORVANE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_compile_options(quorvane_flags INTERFACE ${_sanitize})
    target_link_options(quorvane_flags INTERFACE ${_sanitize})
endif()

if(QUORVANE_COVERAGE)
    # Histories count in several threads at once.
    target_compile_options(quorvane_flags INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(quorvane_flags INTERFACE --coverage)
endif()

if(QUORVANE_IPO)
    include(CheckIPOSupported)
    check_ipo_supported(RESULT _ipo_works OUTPUT _ipo_why LANGUAGES CXX)
    if(_ipo_works)
        set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
    else()
        message(STATUS "No link-time optimisation: ${_ipo_why}")
    endif()
endif()

if(QUORVANE_CLANG_TIDY)
    find_program(QUORVANE_CLANG_TIDY_PROGRAM NAMES clang-tidy
        HINTS ${PROJECT_SOURCE_DIR}/.venv/bin)
    if(NOT QUORVANE_CLANG_TIDY_PROGRAM)
        message(FATAL_ERROR "clang-tidy was asked for and is not on PATH or in .venv")
    endif()
    set(CMAKE_CXX_CLANG_TIDY ${QUORVANE_CLANG_TIDY_PROGRAM})
endif()

add_library(quorvane_python INTERFACE)
target_link_libraries(quorvane_python INTERFACE quorvane_flags Python::Module Python::NumPy)
target_compile_definitions(quorvane_python INTERFACE
    # One wheel runs on NumPy 1.24 to 2.x: only the API that 1.22 already had (1.24 is its equal).
    NPY_NO_DEPRECATED_API=NPY_1_22_API_VERSION
    NPY_TARGET_VERSION=NPY_1_22_API_VERSION
)
