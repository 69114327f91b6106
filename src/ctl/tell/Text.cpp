// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/Text.hpp"

#include <algorithm>
#include <array>

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

/// Controls C0, DEL and C1; zero-width characters and marks of direction; separators, embeddings and
/// overrides; isolates; the byte order mark; annotations; tags.
constexpr std::array controls{
    Range{.first = 0x00, .last = 0x1f},     Range{.first = 0x7f, .last = 0x9f},
    Range{.first = 0x61c, .last = 0x61c},   Range{.first = 0x180e, .last = 0x180e},
    Range{.first = 0x200b, .last = 0x200f}, Range{.first = 0x2028, .last = 0x202e},
    Range{.first = 0x2060, .last = 0x206f}, Range{.first = 0xfeff, .last = 0xfeff},
    Range{.first = 0xfff9, .last = 0xfffb}, Range{.first = 0xe0000, .last = 0xe007f}};

/// Characters that take `length` bytes: how their first byte begins, and the least code point.
struct Form {
    unsigned char leadMask;
    unsigned char lead;
    std::size_t length;
    char32_t least;
};

constexpr std::array forms{Form{.leadMask = 0x80, .lead = 0x00, .length = 1, .least = 0},
                           Form{.leadMask = 0xe0, .lead = 0xc0, .length = 2, .least = 0x80},
                           Form{.leadMask = 0xf0, .lead = 0xe0, .length = 3, .least = 0x800},
                           Form{.leadMask = 0xf8, .lead = 0xf0, .length = 4, .least = 0x10000}};
constexpr unsigned char tailMask = 0xc0;
constexpr unsigned char tail = 0x80;
constexpr unsigned tailBits = 6;
constexpr Range surrogates{.first = 0xd800, .last = 0xdfff};
constexpr char32_t lastCodePoint = 0x10ffff;

bool IsIn(const Range& range, char32_t codePoint) {
    return range.first <= codePoint && codePoint <= range.last;
}

bool IsTail(char byte) {
    return (static_cast<unsigned char>(byte) & tailMask) == tail;
}

/// As in a shell's $'...'.
std::string Escaped(char character) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(character);
    return std::string("\\x") + digits[byte >> 4U] + digits[byte & 0xfU];
}

/// The first character of a text in UTF-8, see utf-8(7).
struct Character {
    char32_t codePoint{};
    std::size_t length = 1; ///< Bytes; 1 for a byte that begins no character.
    bool isValid{};
};

/// Reads the first character of `text`, which must not be empty. Overlong forms, surrogates and what lies
/// beyond U+10FFFF are not valid.
Character FirstCharacter(std::string_view text) {
    constexpr Character invalid{};
    const auto lead = static_cast<unsigned char>(text.front());
    const auto* const form = std::ranges::find_if(
        forms, [lead](const Form& candidate) { return (lead & candidate.leadMask) == candidate.lead; });
    if (form == forms.end() || text.size() < form->length) {
        return invalid;
    }
    const std::string_view tails = text.substr(1, form->length - 1);
    if (!std::ranges::all_of(tails, IsTail)) {
        return invalid;
    }
    char32_t codePoint = lead & static_cast<unsigned char>(~form->leadMask);
    for (const char byte : tails) {
        codePoint = (codePoint << tailBits) |
                    (static_cast<unsigned char>(byte) & static_cast<unsigned char>(~tailMask));
    }
    const bool isValid =
        form->least <= codePoint && codePoint <= lastCodePoint && !IsIn(surrogates, codePoint);
    return isValid ? Character{.codePoint = codePoint, .length = form->length, .isValid = true} : invalid;
}

/// Whether a terminal would do something with the character instead of showing it: a control character, or
/// one that reorders or hides its neighbours.
bool IsControl(char32_t codePoint) {
    return std::ranges::any_of(controls, [codePoint](const Range& range) { return IsIn(range, codePoint); });
}

} // namespace

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

std::string_view Beginning(std::string_view text, std::size_t width) {
    const auto* const end =
        std::ranges::find_if(text, [&](char byte) { return !IsTail(byte) && width-- == 0; });
    return text.substr(0, static_cast<std::size_t>(end - text.begin()));
}
