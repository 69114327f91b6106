// SPDX-License-Identifier: Apache-2.0
#include "ctl/Text.hpp"

namespace {

constexpr unsigned char firstPrintable = 0x20;
constexpr unsigned char del = 0x7f;
constexpr unsigned char c1Lead = 0xc2; // U+0080 to U+009f are this byte and one from 0x80 to 0x9f
constexpr unsigned char lastC1 = 0x9f;

/// As in a shell's $'...', so that the name can be typed again.
std::string Escaped(unsigned char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    return std::string("\\x") + digits[byte >> 4U] + digits[byte & 0xfU];
}

} // namespace

std::string Printable(std::string_view text) {
    std::string printable;
    unsigned char before = 0;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        const bool isControl =
            byte < firstPrintable || byte == del || (before == c1Lead && byte > del && byte <= lastC1);
        printable += isControl ? Escaped(byte) : std::string(1, character);
        before = byte;
    }
    return printable;
}
