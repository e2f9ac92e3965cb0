include(CMakePackageConfigHelpers)

set(GPIO_CLIENT_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/GpioClient)

install(TARGETS gpio-client RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT client)
install(TARGETS gpio-client-lib EXPORT GpioClientTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client-dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/gpio-client
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT client-dev FILES_MATCHING PATTERN "*.h")
install(EXPORT GpioClientTargets NAMESPACE GpioClient:: FILE GpioClientTargets.cmake
        DESTINATION ${GPIO_CLIENT_CONFIG_DIR} COMPONENT client-dev)

configure_package_config_file(GpioClientConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/generated/GpioClientConfig.cmake
    INSTALL_DESTINATION ${GPIO_CLIENT_CONFIG_DIR})
write_basic_package_version_file(
    ${CMAKE_CURRENT_BINARY_DIR}/generated/GpioClientConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/generated/GpioClientConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/generated/GpioClientConfigVersion.cmake
        DESTINATION ${GPIO_CLIENT_CONFIG_DIR} COMPONENT client-dev)

# Relative, because cmake --install may choose another prefix.
file(RELATIVE_PATH PREFIX_FROM_PKGCONFIG
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(gpio-client.pc.in generated/gpio-client.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/generated/gpio-client.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT client-dev)

install(FILES gpio-client.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT client)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/completions/gpio-client
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT client)
