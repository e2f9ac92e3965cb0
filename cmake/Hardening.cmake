# The server listens on the network, so release builds take the usual mitigations.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
if(NOT GPIO_SERVER_SANITIZE)
    target_compile_options(project-settings INTERFACE
        -fstack-protector-strong $<$<CONFIG:Release,RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
    target_link_options(project-settings INTERFACE -Wl,-z,relro -Wl,-z,now)
endif()
