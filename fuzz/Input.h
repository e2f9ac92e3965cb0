#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

/// The bytes of one run, taken from the front. Past the end there are zeros and empty texts.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : bytes_(reinterpret_cast<const char*>(data), size) {}

    unsigned char byte() {
        return position_ < bytes_.size() ? static_cast<unsigned char>(bytes_[position_++]) : 0;
    }

    std::string upTo(char separator) {
        const std::size_t end = std::min(bytes_.find(separator, position_), bytes_.size());
        std::string text = bytes_.substr(position_, end - position_);
        position_ = std::min(end + 1, bytes_.size());
        return text;
    }

    std::string rest() {
        std::string text = bytes_.substr(position_);
        position_ = bytes_.size();
        return text;
    }

    bool isEmpty() const { return position_ >= bytes_.size(); }

    /// The pieces between separators; the first byte tells the separator, so that every byte can
    /// occur in a piece.
    std::vector<std::string> pieces() {
        std::vector<std::string> result;
        const auto separator = static_cast<char>(byte());
        while (!isEmpty()) {
            result.push_back(upTo(separator));
        }
        return result;
    }

private:
    std::string bytes_;
    std::size_t position_ = 0;
};

} // namespace fuzz
