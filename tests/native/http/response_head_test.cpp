#include "tessaline/auth/http/response_head.hpp"

#include <gtest/gtest.h>

#include <initializer_list>

#include "tessaline/auth/http/limits.hpp"

namespace tessaline::auth::http {
namespace {

ResponseHead read(std::initializer_list<const char*> lines) {
  ResponseHead head;
  for (const char* line : lines) EXPECT_TRUE(head.add_line(line)) << line;
  return head;
}

TEST(ResponseHead, KeepsSpellingAndTrimsValues) {
  auto head = read({"HTTP/1.1 200 OK\r\n", "Retry-AFTER: \t7 \r\n", "X-Empty:\r\n", "x-bare:v\n", "\r\n"});
  EXPECT_TRUE(head.complete());
  EXPECT_EQ(head.take_fields(), (Headers{{"Retry-AFTER", "7"}, {"X-Empty", ""}, {"x-bare", "v"}}));
}

TEST(ResponseHead, KeepsTheFirstOfRepeatedNames) {
  auto head = read({"HTTP/1.1 200 OK\r\n", "A: 1\r\n", "B: 2\r\n", "a: 3\r\n", " 4\r\n", "\r\n"});
  EXPECT_EQ(head.take_fields(), (Headers{{"A", "1"}, {"B", "2"}}));
}

TEST(ResponseHead, JoinsContinuationLines) {
  auto head =
      read({"HTTP/1.1 200 OK\r\n", "A: 1\r\n", " \t 2 \r\n", "\t3\r\n", "B:\r\n", " 4\r\n", " \r\n", "\r\n"});
  EXPECT_EQ(head.take_fields(), (Headers{{"A", "1 2 3"}, {"B", "4"}}));
}

TEST(ResponseHead, ForgetsInterimAnswers) {
  auto head = read(
      {"HTTP/1.1 103 Early Hints\r\n", "Link: x\r\n", "\r\n", "HTTP/1.1 200 OK\r\n", "A: 1\r\n", "\r\n"});
  EXPECT_EQ(head.take_fields(), (Headers{{"A", "1"}}));
}

TEST(ResponseHead, PassesTrailersOver) {
  auto head = read({"HTTP/1.1 200 OK\r\n", "A: 1\r\n", "\r\n", "B: 2\r\n", "\r\n"});
  EXPECT_TRUE(head.complete());
  EXPECT_EQ(head.take_fields(), (Headers{{"A", "1"}}));
}

TEST(ResponseHead, IsIncompleteUntilTheEmptyLine) {
  EXPECT_FALSE(ResponseHead().begun());
  const auto head = read({"HTTP/1.1 200 OK\r\n", "A: 1\r\n"});
  EXPECT_TRUE(head.begun());
  EXPECT_FALSE(head.complete());
}

TEST(ResponseHead, RefusesOtherProtocols) {
  for (const char* line : {"HTTP/2 200\r\n", "HTTP/2.0 200 OK\r\n", "HTTP/1.\r\n", "HTTP/\r\n",
                           "ICY 200 OK\r\n", "HTTP/1.1 101 Switching Protocols\r\n"}) {
    ResponseHead head;
    EXPECT_FALSE(head.add_line(line)) << line;
  }
}

TEST(ResponseHead, RefusesWhatIsNoHead) {
  for (const char* line : {"HTTP/1.1 2000 OK\r\n", "HTTP/1.1 abc\r\n", "HTTP/1.1\t200\r\n", "HTTP/1.1200\r\n",
                           "\r\n", "X: y\r\n", " X: y\r\n"}) {
    EXPECT_FALSE(ResponseHead().add_line(line)) << line;
  }
  for (const std::string& line : {std::string("no colon\r\n"), std::string(" folded\r\n"),
                                  std::string("X: a\0b\r\n", 8), std::string("X: a\rY: b\r\n")}) {
    auto head = read({"HTTP/1.1 200 OK\r\n"});
    EXPECT_FALSE(head.add_line(line)) << line;
  }
}

TEST(ResponseHead, RefusesFoldedFraming) {
  for (const char* field : {"Content-Length: 5\r\n", "Transfer-Encoding:\r\n"}) {
    auto head = read({"HTTP/1.1 200 OK\r\n", field});
    EXPECT_FALSE(head.add_line(" chunked\r\n")) << field;
  }
}

TEST(ResponseHead, IsBounded) {
  ResponseHead many;
  std::size_t lines = 0;
  EXPECT_TRUE(many.add_line("HTTP/1.1 200 OK\r\n"));
  while (many.add_line("a: b\r\n")) ++lines;
  EXPECT_EQ(lines, kMostFields - 1);
  ResponseHead wide;
  const std::string line = "a: " + std::string(10'000, 'b') + "\r\n";
  EXPECT_TRUE(wide.add_line("HTTP/1.1 200 OK\r\n"));
  for (lines = 0; wide.add_line(line);) ++lines;
  EXPECT_EQ(lines, kMostHeadBytes / line.size());
}

TEST(ResponseHead, TellsHowTheBodyEnds) {
  EXPECT_TRUE(read({"HTTP/1.1 200 OK\r\n", "transfer-encoding: x, Chunked\r\n", "\r\n"}).chunked());
  EXPECT_FALSE(read({"HTTP/1.1 200 OK\r\n", "Transfer-Encoding: chunkedx\r\n", "\r\n"}).chunked());
  EXPECT_TRUE(read({"HTTP/1.1 200 OK\r\n", "Content-Length: 0\r\n", "\r\n"}).has_length());
}

}  // namespace
}  // namespace tessaline::auth::http
