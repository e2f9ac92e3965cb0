# Writes the page's files, as they are and compressed, into a C++ source.
#   cmake -D SOURCE_DIR=... -D OUTPUT=... -P Embed.cmake
set(LIMIT 30720)
set(files "/|index.html|text/html"
          "/app.js|app.js|text/javascript"
          "/style.css|style.css|text/css")

function(add_array name hex)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    string(REPEAT "0x..," 16 line)
    string(REGEX REPLACE "(${line})" "\\1\n" bytes "${bytes}")
    string(APPEND arrays "constexpr unsigned char ${name}[] = {${bytes}};\n")
    set(arrays "${arrays}" PARENT_SCOPE)
endfunction()

set(arrays "")
set(entries "")
set(total 0)
set(number 0)
foreach(file IN LISTS files)
    string(REPLACE "|" ";" parts "${file}")
    list(GET parts 0 path)
    list(GET parts 1 name)
    list(GET parts 2 type)
    file(SIZE "${SOURCE_DIR}/${name}" size)
    math(EXPR total "${total} + ${size}")
    file(READ "${SOURCE_DIR}/${name}" plain HEX)
    file(SHA256 "${SOURCE_DIR}/${name}" hash)
    string(SUBSTRING "${hash}" 0 20 hash)
    execute_process(COMMAND gzip -9 -n -c "${SOURCE_DIR}/${name}"
                    OUTPUT_FILE "${OUTPUT}.gz" COMMAND_ERROR_IS_FATAL ANY)
    file(READ "${OUTPUT}.gz" packed HEX)
    file(REMOVE "${OUTPUT}.gz")
    add_array(PLAIN_${number} "${plain}")
    add_array(PACKED_${number} "${packed}")
    string(APPEND entries "    PageFile{\"${path}\", \"${type}; charset=utf-8\", \"${hash}\", "
           "view(PLAIN_${number}), view(PACKED_${number})},\n")
    math(EXPR number "${number} + 1")
endforeach()
if(total GREATER LIMIT)
    message(FATAL_ERROR "The page has ${total} bytes; it may have ${LIMIT}")
endif()

file(WRITE "${OUTPUT}" "#include \"Page.h\"

#include <array>
#include <cstddef>

namespace webbridge {

namespace {

${arrays}
template <std::size_t size> std::string_view view(const unsigned char (&bytes)[size]) {
    return {reinterpret_cast<const char*>(bytes), size};
}

} // namespace

std::span<const PageFile> pageFiles() {
    static const std::array FILES{
${entries}    };
    return FILES;
}

} // namespace webbridge
")
