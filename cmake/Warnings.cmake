target_compile_options(project-settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${GPIO_SERVER_WERROR}>:-Werror>)

# g++ 12 warns at -O3 about overlaps inside std::string's own operator+ that cannot happen.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(project-settings INTERFACE -Wno-restrict)
endif()
