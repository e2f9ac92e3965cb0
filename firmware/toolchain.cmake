# avr-gcc for the bare microcontroller.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR avr)
set(CMAKE_C_COMPILER avr-gcc)
set(CMAKE_OBJCOPY avr-objcopy CACHE FILEPATH "")
set(CMAKE_SIZE avr-size CACHE FILEPATH "")
# A program for the bare part links only with its own flags, which the check of the compiler lacks.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
