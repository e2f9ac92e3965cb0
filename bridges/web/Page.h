#pragma once

#include <span>
#include <string_view>

namespace webbridge {

/// A file of the page, embedded when the program is built.
struct PageFile {
    std::string_view path; ///< As in a request, "/" for the page itself.
    std::string_view type;
    std::string_view etag; ///< Without quotes.
    std::string_view content;
    std::string_view compressed; ///< The same with gzip.
};

std::span<const PageFile> pageFiles();

} // namespace webbridge
