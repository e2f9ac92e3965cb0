#pragma once

/// The library's headers, which are C and not meant for these warnings.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wshadow"
extern "C" {
#include <avr_extint.h>
#include <avr_uart.h>
#include <sim_avr.h>
#include <sim_elf.h>
}
#pragma GCC diagnostic pop
