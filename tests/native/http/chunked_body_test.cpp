#include "tessaline/auth/http/chunked_body.hpp"

#include <gtest/gtest.h>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

/// The result of a body in pieces of that size; "(refused)" if it is invalid, "(open)" if it has not ended.
std::string read(std::string_view bytes, std::size_t piece) {
  ChunkedBody chunks;
  std::string body;
  for (std::size_t begin = 0; begin < bytes.size(); begin += piece) {
    if (!chunks.add(bytes.substr(begin, piece), body)) return "(refused)";
  }
  return chunks.complete() ? body : "(open)";
}

void expect(std::string_view bytes, const std::string& result) {
  for (const std::size_t piece : {std::size_t{1}, std::size_t{2}, std::size_t{7}, bytes.size()}) {
    EXPECT_EQ(read(bytes, piece), result) << bytes << " by " << piece;
  }
}

TEST(ChunkedBody, GivesTheContent) {
  expect("3\r\nabc\r\n0\r\n\r\n", "abc");
  expect("0\r\n\r\n", "");
  expect("A;x=\"y\"\r\n0123456789\r\n002\r\nab\r\n000\r\nTrailer: t\r\n\r\n", "0123456789ab");
  expect("2\nab\n0\n\n", "ab");
}

TEST(ChunkedBody, IsOpenUntilItsEnd) {
  for (const char* bytes :
       {"3\r\nab", "3\r\nabc\r\n", "3\r\nabc\r\n0\r\n", "3\r\nabc\r\n0\r\nT: t\r\n", "3"}) {
    expect(bytes, "(open)");
  }
}

TEST(ChunkedBody, RefusesWhatIsNoChunk) {
  for (const char* bytes : {"x\r\n", "\r\n", "-1\r\n", "3\rabc", "2\r\nabXX\r\n", "2\r\nab\rX", ";x\r\n",
                            "fffffffffffffffff\r\n"}) {
    expect(bytes, "(refused)");
  }
}

TEST(ChunkedBody, IsBounded) {
  const std::string longest(kLongestTrailerLine, 't');
  expect("0\r\n" + longest + "\r\n\r\n", "");
  expect("0\r\n" + longest + "t", "(refused)");
  std::string trailers = "0\r\n";
  while (trailers.size() <= kMostTrailerBytes) trailers += longest + "\r\n";
  expect(trailers, "(refused)");
  expect("1;" + std::string(5'000, 'x') + "\r\na\r\n0\r\n\r\n", "(refused)");
}

TEST(ChunkedBody, PassesOverWhatFollows) {
  expect("1\r\na\r\n0\r\n\r\nHTTP/1.1 200 OK", "a");
}

}  // namespace
}  // namespace tessaline::auth::http
