install(TARGETS gpio-web RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT web)
install(FILES gpio-web.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT web)

set(PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
install(FILES ${PACKAGING}/completions/gpio-web
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT web)
install(FILES ${PACKAGING}/examples/gpio-web-network.conf ${PACKAGING}/examples/gpio-web-nginx.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/gpio-web/examples COMPONENT web)
