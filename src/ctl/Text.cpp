// SPDX-License-Identifier: Apache-2.0
#include "ctl/Text.hpp"

#include <algorithm>
#include <array>

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

/// Controls C0, DEL and C1; zero-width characters and marks of direction; separators, embeddings and
/// overrides; isolates; the byte order mark.
constexpr std::array controls{Range{0x00, 0x1f},     Range{0x7f, 0x9f},     Range{0x200b, 0x200f},
                              Range{0x2028, 0x202e}, Range{0x2060, 0x206f}, Range{0xfeff, 0xfeff}};

/// Characters that take `length` bytes: how their first byte begins, and the least code point.
struct Form {
    unsigned char leadMask;
    unsigned char lead;
    std::size_t length;
    char32_t least;
};

constexpr std::array forms{Form{0x80, 0x00, 1, 0}, Form{0xe0, 0xc0, 2, 0x80}, Form{0xf0, 0xe0, 3, 0x800},
                           Form{0xf8, 0xf0, 4, 0x10000}};
constexpr unsigned char tailMask = 0xc0;
constexpr unsigned char tail = 0x80;
constexpr unsigned tailBits = 6;
constexpr Range surrogates{0xd800, 0xdfff};
constexpr char32_t lastCodePoint = 0x10ffff;

bool IsIn(const Range& range, char32_t codePoint) {
    return range.first <= codePoint && codePoint <= range.last;
}

bool IsTail(char byte) {
    return (static_cast<unsigned char>(byte) & tailMask) == tail;
}

/// As in a shell's $'...', so that the name can be typed again.
std::string Escaped(char character) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(character);
    return std::string("\\x") + digits[byte >> 4U] + digits[byte & 0xfU];
}

} // namespace

Character FirstCharacter(std::string_view text) {
    constexpr Character invalid{0, 1, false};
    const auto lead = static_cast<unsigned char>(text.front());
    const auto* const form = std::find_if(forms.begin(), forms.end(), [lead](const Form& candidate) {
        return (lead & candidate.leadMask) == candidate.lead;
    });
    if (form == forms.end() || text.size() < form->length) {
        return invalid;
    }
    const std::string_view tails = text.substr(1, form->length - 1);
    if (!std::all_of(tails.begin(), tails.end(), IsTail)) {
        return invalid;
    }
    char32_t codePoint = lead & static_cast<unsigned char>(~form->leadMask);
    for (const char byte : tails) {
        codePoint = (codePoint << tailBits) |
                    (static_cast<unsigned char>(byte) & static_cast<unsigned char>(~tailMask));
    }
    const bool isValid =
        form->least <= codePoint && codePoint <= lastCodePoint && !IsIn(surrogates, codePoint);
    return isValid ? Character{codePoint, form->length, true} : invalid;
}

bool IsControl(char32_t codePoint) {
    return std::any_of(controls.begin(), controls.end(),
                       [codePoint](const Range& range) { return IsIn(range, codePoint); });
}

std::string Printable(std::string_view text) {
    std::string printable;
    while (!text.empty()) {
        const Character character = FirstCharacter(text);
        const std::string_view bytes = text.substr(0, character.length);
        if (character.isValid && !IsControl(character.codePoint)) {
            printable += bytes;
        } else {
            for (const char byte : bytes) {
                printable += Escaped(byte);
            }
        }
        text.remove_prefix(bytes.size());
    }
    return printable;
}

std::size_t Width(std::string_view text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !IsTail(byte); }));
}
