#pragma once

#include <string>
#include <string_view>

namespace tessaline::auth::http {

/// ASCII only, independent of the locale.
std::string lower_case(std::string_view text);
bool equal_without_case(std::string_view left, std::string_view right);

/// Whether `text` is a non-empty token of HTTP: a method or a field name.
bool is_token(std::string_view text);

/// Without leading and trailing spaces and tabs.
std::string_view trim_blanks(std::string_view text);

}  // namespace tessaline::auth::http
