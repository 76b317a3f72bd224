#include "tessaline/auth/http/text.hpp"

#include <gtest/gtest.h>

namespace tessaline::auth::http {
namespace {

TEST(Text, ComparesAsciiWithoutCase) {
  EXPECT_TRUE(equal_without_case("Content-TYPE", "content-type"));
  EXPECT_FALSE(equal_without_case("Content-Typ", "Content-Type"));
  EXPECT_FALSE(equal_without_case("[", "{"));
  EXPECT_EQ(lower_case("AZ@[az\xC4"), "az@[az\xC4");
}

TEST(Text, KnowsTokens) {
  EXPECT_TRUE(is_token("X-Some_Header.1~!#$%&'*+^`|"));
  for (const char* text : {"", "a b", "a:", "a\r\n", "(a)", "\xE4", "a/b", "\"a\""})
    EXPECT_FALSE(is_token(text));
  EXPECT_FALSE(is_token(std::string_view("a\0", 2)));
}

TEST(Text, TrimsBlanksOnly) {
  EXPECT_EQ(trim_blanks(" \t a b\t "), "a b");
  EXPECT_EQ(trim_blanks(" \t"), "");
  EXPECT_EQ(trim_blanks("\va"), "\va");
}

}  // namespace
}  // namespace tessaline::auth::http
