# What looks at bytes from the network, without the network: the fuzz target builds nothing else.
if(NOT TARGET gpio-mqtt-messages)
    find_package(nlohmann_json REQUIRED)
    include(${CMAKE_CURRENT_LIST_DIR}/../common/Text.cmake)
    add_library(gpio-mqtt-messages STATIC
        ${CMAKE_CURRENT_LIST_DIR}/Discovery.cpp
        ${CMAKE_CURRENT_LIST_DIR}/Platform.cpp
        ${CMAKE_CURRENT_LIST_DIR}/Topics.cpp)
    target_include_directories(gpio-mqtt-messages PUBLIC
        ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/include)
    target_compile_definitions(gpio-mqtt-messages PUBLIC GPIO_MQTT_VERSION="${PROJECT_VERSION}")
    target_link_libraries(gpio-mqtt-messages PUBLIC
        gpio-bridge-text nlohmann_json::nlohmann_json project-settings)
endif()
