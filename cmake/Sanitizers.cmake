if(GPIO_SERVER_SANITIZE)
    target_compile_options(project-settings INTERFACE
        -fsanitize=${GPIO_SERVER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(project-settings INTERFACE -fsanitize=${GPIO_SERVER_SANITIZE})
endif()
