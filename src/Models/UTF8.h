// Text from the network: is it UTF-8, and how is it shown on one line.
#pragma once

#include <string>
#include <string_view>

namespace tessary {

/// Whether `bytes` are well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF (RFC
/// 3629).
bool isUTF8(std::string_view bytes);

/// The text with everything escaped that could end or disturb a line: control characters of both sets (U+0000
/// to U+001F, U+007F to U+009F) and the separators U+2028 and U+2029 as \n, \r, \t or \u{hex}, and bytes that
/// are no UTF-8 as \x and two digits. Everything else, the backslash included, stays as it is.
std::string escapedControls(std::string_view text);

} // namespace tessary
