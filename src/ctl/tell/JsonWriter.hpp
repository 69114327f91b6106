// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <concepts>
#include <optional>
#include <string>
#include <string_view>

/// Writes one JSON document (RFC 8259) in ASCII, piece by piece: the caller sees to it that there is a key
/// before each value of an object.
class JsonWriter {
public:
    /// Writes an object or an array with what `content` writes.
    template <typename Content>
    void Object(const Content& content) {
        Nest('{', content, '}');
    }
    template <typename Content>
    void Array(const Content& content) {
        Nest('[', content, ']');
    }

    void Key(std::string_view name);

    void Value(std::string_view characters); ///< A byte that is not UTF-8 becomes U+FFFD.
    void Value(const char* characters) { Value(std::string_view(characters)); }
    void Value(bool truth) { Literal(truth ? "true" : "false"); }
    void Value(std::integral auto number) { Literal(std::to_string(number)); }
    void Value(std::chrono::microseconds time); ///< Seconds with a fraction.
    template <typename Content>
    void Value(const std::optional<Content>& content) {
        content ? Value(*content) : Literal("null");
    }

    template <typename Content>
    void Member(std::string_view name, const Content& content) {
        Key(name);
        Value(content);
    }

    const std::string& Text() const { return text; }

private:
    template <typename Content>
    void Nest(char opening, const Content& content, char closing) {
        Separate();
        text += opening;
        needsComma = false;
        content();
        text += closing;
        needsComma = true;
    }
    void Separate();
    void Literal(std::string_view literal);
    void Quote(std::string_view characters);

    std::string text;
    bool needsComma = false;
};
