#include "board/UsbDescriptors.h"

namespace {

using Descriptor = std::vector<std::uint8_t>;

constexpr std::uint16_t PRODUCT_OLD_BRIDGE = 0x6001;
constexpr std::uint16_t RELEASE_OLD_BRIDGE = 0x0600;
constexpr std::uint16_t RELEASE_FTX = 0x1000;
constexpr std::uint8_t STRING_DESCRIPTOR = 3;

std::uint8_t low(std::uint16_t value) {
    return static_cast<std::uint8_t>(value & 0xFFU);
}
std::uint8_t high(std::uint16_t value) {
    return static_cast<std::uint8_t>(value >> 8U);
}

Descriptor textDescriptor(const std::string& text) {
    Descriptor result{static_cast<std::uint8_t>(2 + 2 * text.size()), STRING_DESCRIPTOR};
    for (const char character : text) {
        result.push_back(static_cast<std::uint8_t>(character));
        result.push_back(0);
    }
    return result;
}

} // namespace

UsbDescriptors::UsbDescriptors(std::uint16_t productId, std::string serial)
    : product(productId), serialNumber(std::move(serial)) {}

std::vector<std::uint8_t> UsbDescriptors::device() const {
    const std::uint16_t release = product == PRODUCT_OLD_BRIDGE ? RELEASE_OLD_BRIDGE : RELEASE_FTX;
    return {
        18,
        1, // length, device descriptor
        0x00,
        0x02, // USB 2.0
        0,
        0,
        0, // class is told by the interface
        8, // packet length of endpoint 0
        low(VENDOR),
        high(VENDOR), //
        low(product),
        high(product), //
        low(release),
        high(release), //
        1,
        2,
        3, // strings: maker, product, serial number
        1, // configurations
    };
}

std::vector<std::uint8_t> UsbDescriptors::configuration() const {
    return {
        9, 2, 32,   0, 1,  1,    0,    0xA0, 45, // 32 bytes, 1 interface, value 1, 90 mA
        9, 4, 0,    0, 2,  0xFF, 0xFF, 0xFF, 2,  // interface 0, two endpoints, vendor class
        7, 5, 0x81, 2, 64, 0,    0,              // bulk IN
        7, 5, 0x02, 2, 64, 0,    0,              // bulk OUT
    };
}

std::vector<std::uint8_t> UsbDescriptors::string(std::uint8_t index) const {
    switch (index) {
    case 0:
        return {4, STRING_DESCRIPTOR, 0x09, 0x04};
    case 1:
        return textDescriptor("Virtual");
    case 2:
        return textDescriptor("Virtual I/O board");
    case 3:
        return textDescriptor(serialNumber);
    default:
        return {};
    }
}
