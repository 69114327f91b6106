// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/JsonWriter.hpp"

#include "ctl/tell/Text.hpp"

#include <array>
#include <cstdio>

namespace {

constexpr char32_t replacement = 0xfffd;
constexpr char32_t firstSupplementary = 0x10000;

std::string EscapedUnit(unsigned unit) {
    std::array<char, 8> escaped{};
    std::snprintf(escaped.data(), escaped.size(), "\\u%04x", unit);
    return escaped.data();
}

/// Characters that do not stand for themselves; those beyond U+FFFF are two units of UTF-16.
std::string Escaped(char32_t codePoint) {
    constexpr unsigned highSurrogate = 0xd800;
    constexpr unsigned lowSurrogate = 0xdc00;
    constexpr unsigned unitBits = 10;
    constexpr unsigned unitMask = 0x3ff;
    if (codePoint == '"' || codePoint == '\\') {
        return {'\\', static_cast<char>(codePoint)};
    }
    if (codePoint < firstSupplementary) {
        return EscapedUnit(codePoint);
    }
    const unsigned offset = codePoint - firstSupplementary;
    return EscapedUnit(highSurrogate | (offset >> unitBits)) +
           EscapedUnit(lowSurrogate | (offset & unitMask));
}

bool StandsForItself(char32_t codePoint) {
    return codePoint >= ' ' && codePoint <= '~' && codePoint != '"' && codePoint != '\\';
}

} // namespace

void JsonWriter::Key(std::string_view name) {
    Separate();
    Quote(name);
    text += ':';
    needsComma = false;
}

void JsonWriter::Value(std::string_view characters) {
    Separate();
    Quote(characters);
    needsComma = true;
}

void JsonWriter::Value(std::chrono::microseconds time) {
    constexpr std::chrono::microseconds::rep perSecond = 1'000'000;
    std::array<char, 32> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%jd.%06jd",
                  static_cast<std::intmax_t>(time.count() / perSecond),
                  static_cast<std::intmax_t>(time.count() % perSecond));
    Literal(seconds.data());
}

void JsonWriter::Separate() {
    if (needsComma) {
        text += ',';
    }
}

void JsonWriter::Literal(std::string_view literal) {
    Separate();
    text += literal;
    needsComma = true;
}

void JsonWriter::Quote(std::string_view characters) {
    text += '"';
    while (!characters.empty()) {
        const Character character = FirstCharacter(characters);
        const char32_t codePoint = character.isValid ? character.codePoint : replacement;
        if (StandsForItself(codePoint)) {
            text += static_cast<char>(codePoint);
        } else {
            text += Escaped(codePoint);
        }
        characters.remove_prefix(character.length);
    }
    text += '"';
}
