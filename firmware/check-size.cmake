# Prints what the program takes, and fails when that is more than it may.
set(FLASH_LIMIT 4096)
# Of 512 bytes; the rest is the stack's, whose depth the tests measure.
set(RAM_LIMIT 384)

execute_process(COMMAND ${SIZE} -A ${PROGRAM} OUTPUT_VARIABLE sections COMMAND_ERROR_IS_FATAL ANY)

function(section_size name result)
    if(sections MATCHES "\\.${name} +([0-9]+)")
        set(${result} ${CMAKE_MATCH_1} PARENT_SCOPE)
    else()
        set(${result} 0 PARENT_SCOPE)
    endif()
endfunction()

section_size(text text)
section_size(data data)
section_size(bss bss)
section_size(noinit noinit)
if(text EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} holds no program")
endif()
math(EXPR flash "${text} + ${data}")
math(EXPR ram "${data} + ${bss} + ${noinit}")
message("firmware: ${flash} of ${FLASH_LIMIT} bytes of flash, ${ram} of ${RAM_LIMIT} bytes of RAM besides the stack")
if(flash GREATER FLASH_LIMIT OR ram GREATER RAM_LIMIT)
    message(FATAL_ERROR "${PROGRAM} is too large")
endif()
