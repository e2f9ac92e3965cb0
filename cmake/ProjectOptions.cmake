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
