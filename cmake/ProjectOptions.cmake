# The switches of the build, and the settings that every target shares.
option(GPIO_SERVER_WERROR "Treat compiler warnings as errors" OFF)
set(GPIO_SERVER_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)

# Every target of this project links this interface.
add_library(project-settings INTERFACE)

# A time_t of 64 bits also where 32 are the default, so that dates do not end in 2038. Not for all
# targets: libraries of the system take a timeval of the default width.
function(use_wide_time target)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
        target_compile_definitions(${target} PRIVATE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
    endif()
endfunction()
