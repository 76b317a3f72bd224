#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <span>
#include <string>
#include <vector>

#include "hex_text.hpp"
#include "tessaline/auth/wallet/keccak.hpp"
#include "vector_tables.hpp"

namespace tessaline::auth::wallet {
namespace {

using testing::Bytes;
using testing::bytes_of;
using testing::hex_text;
using testing::open_table;

struct KnownAnswer {
  Bytes message;
  std::string digest;
};

std::string lowered(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::vector<KnownAnswer> known_answers(const std::string& name) {
  auto file = open_table(name);
  std::vector<KnownAnswer> rows;
  std::size_t bits = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("Len = ")) bits = std::stoul(line.substr(6));
    if (line.starts_with("Msg = ")) {
      Bytes message = bytes_of(line.substr(6));
      message.resize(bits / 8);  // the empty message is written "00"
      rows.push_back({message, ""});
    }
    if (line.starts_with("MD = ")) rows.back().digest = lowered(line.substr(5));
  }
  return rows;
}

// In pieces that begin and end anywhere in a block.
std::string digest_in_pieces(std::span<const std::uint8_t> data) {
  Keccak256 hash;
  for (std::size_t piece = 0; !data.empty(); ++piece) {
    const auto count = std::min(piece % 150, data.size());
    hash.update(data.first(count));
    data = data.subspan(count);
  }
  return hex_text(hash.finish());
}

void expect_digests(const std::vector<KnownAnswer>& rows) {
  for (const KnownAnswer& row : rows) {
    EXPECT_EQ(hex_text(keccak256(row.message)), row.digest) << row.message.size() << " bytes";
    EXPECT_EQ(digest_in_pieces(row.message), row.digest) << row.message.size() << " bytes";
  }
}

TEST(Keccak256VectorsTest, ShortMessages) {
  const auto rows = known_answers("keccak/ShortMsgKAT_256.txt");
  ASSERT_EQ(rows.size(), 256U);
  for (std::size_t i = 0; i < rows.size(); ++i) ASSERT_EQ(rows[i].message.size(), i);
  expect_digests(rows);
}

TEST(Keccak256VectorsTest, LongMessages) {
  const auto rows = known_answers("keccak/LongMsgKAT_256.txt");
  ASSERT_EQ(rows.size(), 65U);
  ASSERT_EQ(rows.back().message.size(), 4288U);
  expect_digests(rows);
}

}  // namespace
}  // namespace tessaline::auth::wallet
