# Fails when the program calls anything of the device's libraries besides these.
# Use: cmake -DNM=nm -DPROGRAM=GpioServer -P LibraryCalls.cmake
set(expected
    ftdi_deinit
    ftdi_get_error_string
    ftdi_get_library_version
    ftdi_init
    ftdi_read_data
    ftdi_read_data_submit
    ftdi_set_baudrate
    ftdi_set_interface
    ftdi_transfer_data_done
    ftdi_usb_close
    ftdi_usb_open
    ftdi_usb_purge_buffers
    ftdi_write_data_submit
    libusb_handle_events_completed)
execute_process(
    COMMAND ${NM} --dynamic --undefined-only --format=posix ${PROGRAM}
    OUTPUT_VARIABLE symbols
    COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "(^|\n)(ftdi|libusb)_[a-z_0-9]+" found "${symbols}")
list(TRANSFORM found STRIP)
list(SORT found)
if(NOT found STREQUAL expected)
    message(FATAL_ERROR "calls:    ${found}\nexpected: ${expected}")
endif()
