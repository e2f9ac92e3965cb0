#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What the bridge tells about itself on the bus.
class UsbDescriptors {
public:
    static constexpr std::uint16_t VENDOR = 0x0403;

    explicit UsbDescriptors(std::uint16_t product, std::string serialNumber = "VB000001");

    std::uint16_t getProduct() const { return product; }
    std::vector<std::uint8_t> device() const;
    std::vector<std::uint8_t> configuration() const;

    /// String 0 lists the languages; empty when there is no such string.
    std::vector<std::uint8_t> string(std::uint8_t index) const;

private:
    std::uint16_t product;
    std::string serialNumber;
};
