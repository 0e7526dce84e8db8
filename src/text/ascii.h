// The case of the letters A to Z, whatever the locale: names are UTF-8, and no byte above 0x7F is a
// letter.
//
// Included by the modules that compare names or texts without regard to case.
#pragma once

namespace psp::text {

constexpr bool is_upper(char character) { return character >= 'A' && character <= 'Z'; }
constexpr bool is_lower(char character) { return character >= 'a' && character <= 'z'; }
constexpr bool is_letter(char character) { return is_upper(character) || is_lower(character); }
constexpr bool is_letter_or_digit(char character) {
  return is_letter(character) || (character >= '0' && character <= '9');
}

constexpr char to_lower(char character) {
  return is_upper(character) ? static_cast<char>(character - 'A' + 'a') : character;
}

}  // namespace psp::text
