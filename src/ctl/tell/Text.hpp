// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The first character of a text in UTF-8, see utf-8(7).
struct Character {
    char32_t codePoint;
    std::size_t length; ///< Bytes; 1 for a byte that begins no character.
    bool isValid;
};

/// Reads the first character of `text`, which must not be empty. Overlong forms, surrogates and what lies
/// beyond U+10FFFF are not valid.
Character FirstCharacter(std::string_view text);

/// Whether a terminal would do something with the character instead of showing it: a control character, or
/// one that reorders or hides its neighbours.
bool IsControl(char32_t codePoint);

/// `text` with the bytes of each control character, and each byte that is not UTF-8, shown as "\xHH", so that
/// names from files of other users can neither steer the terminal nor hide in it.
std::string Printable(std::string_view text);

/// How many characters `text`, valid UTF-8, has.
std::size_t Width(std::string_view text);
