# What looks at bytes from the network, without the network: for the program and for its fuzz target.
include_guard(GLOBAL)
find_package(Boost 1.74 REQUIRED)
find_package(nlohmann_json REQUIRED)

include(${CMAKE_CURRENT_LIST_DIR}/../common/Text.cmake)

set(WEB_DIR ${CMAKE_CURRENT_LIST_DIR})
set(page ${CMAKE_CURRENT_BINARY_DIR}/generated/Page.cpp)
set(page_files page/index.html page/app.js page/style.css)
list(TRANSFORM page_files PREPEND ${WEB_DIR}/)
add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -D SOURCE_DIR=${WEB_DIR}/page -D OUTPUT=${page}
            -P ${WEB_DIR}/Embed.cmake
    DEPENDS ${page_files} ${WEB_DIR}/Embed.cmake
    VERBATIM)

add_library(gpio-web-requests STATIC
    ${WEB_DIR}/Application.cpp
    ${WEB_DIR}/Documents.cpp
    ${WEB_DIR}/Guard.cpp
    ${WEB_DIR}/Http.cpp
    ${WEB_DIR}/News.cpp
    ${WEB_DIR}/RequestReader.cpp
    ${page})
target_include_directories(gpio-web-requests PUBLIC
    ${WEB_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(gpio-web-requests PUBLIC GPIO_WEB_VERSION="${PROJECT_VERSION}")
target_include_directories(gpio-web-requests SYSTEM PRIVATE ${Boost_INCLUDE_DIRS})
target_link_libraries(gpio-web-requests PUBLIC
    gpio-bridge-text nlohmann_json::nlohmann_json project-settings)
