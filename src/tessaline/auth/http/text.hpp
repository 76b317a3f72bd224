#pragma once

#include <string>
#include <string_view>

namespace tessaline::auth::http {

/// ASCII only, whatever the process's locale.
std::string lower_case(std::string_view text);
bool equal_without_case(std::string_view left, std::string_view right);

/// Whether `text` is a non-empty token of HTTP: a method or a field name.
bool is_token(std::string_view text);

/// Without spaces and tabs at both ends.
std::string_view trim_blanks(std::string_view text);

}  // namespace tessaline::auth::http
