# What looks at words that come from outside, without the client library, which fuzz targets leave out.
include_guard(GLOBAL)

add_library(gpio-bridge-text STATIC
    ${CMAKE_CURRENT_LIST_DIR}/Host.cpp
    ${CMAKE_CURRENT_LIST_DIR}/Text.cpp)
target_include_directories(gpio-bridge-text PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(gpio-bridge-text PUBLIC project-settings)
