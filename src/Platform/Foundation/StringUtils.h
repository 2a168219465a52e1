// Text helpers with the platform's string semantics. Strings are UTF-8 throughout; where
// the platform counts UTF-16 code units (lengths the log keeps), utf16Length gives them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvina {

// Number of UTF-16 code units of a UTF-8 text (a 4-byte sequence counts 2; invalid bytes 1 each).
size_t utf16Length(std::string_view utf8);

// White space and line breaks as the platform's whitespace-and-newline set knows them
// (ASCII blanks, tabs, CR/LF/VT/FF, U+0085, U+00A0, U+1680, U+2000-U+200A, U+2028, U+2029,
// U+202F, U+205F, U+3000) removed from both ends.
std::string_view trimWhitespaceAndNewlines(std::string_view text);
// Spaces and tabs only.
std::string_view trimWhitespace(std::string_view text);

// Replaces every non-overlapping occurrence, left to right.
std::string replaceAll(std::string_view text, std::string_view from, std::string_view to);
bool contains(std::string_view text, std::string_view part);

// Path helpers with the platform's rules: lastPathComponent("/a/b/") is "b",
// stringByAppendingPathComponent("/a/", "b") is "/a/b", deletingLastPathComponent("/a/b") is "/a".
std::string appendPathComponent(std::string_view path, std::string_view component);
std::string lastPathComponent(std::string_view path);
std::string deletingLastPathComponent(std::string_view path);
std::string pathExtension(std::string_view path);
std::string deletingPathExtension(std::string_view path);
std::vector<std::string> pathComponents(std::string_view path);

}  // namespace corvina
