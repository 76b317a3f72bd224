#include "tessaline/auth/wallet/keccak.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "hex_text.hpp"

namespace tessaline::auth::wallet {
namespace {

using testing::hex_text;

std::vector<std::uint8_t> sequence(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<std::uint8_t>((7 * i + 3) % 251);
  return bytes;
}

std::string digest_of(std::string_view text) {
  return hex_text(keccak256({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}));
}

std::string digest_in_chunks(std::span<const std::uint8_t> data, std::size_t chunk) {
  Keccak256 hash;
  while (!data.empty()) {
    const std::size_t count = std::min(chunk, data.size());
    hash.update(data.first(count));
    data = data.subspan(count);
  }
  return hex_text(hash.finish());
}

TEST(Keccak256Test, PublishedVectors) {
  EXPECT_EQ(digest_of(""), "c5d2460186f7233c927e7db2dcc703c0e500b653ca82273b7bfad8045d85a470");
  EXPECT_EQ(digest_of("\xcc"), "eead6dbfc7340a56caedc044696a168870549a6a7f6f56961e84a54bd9970b8a");
  EXPECT_EQ(digest_of("abc"), "4e03657aea45a94fc7d47ba826c8d667c0d1e6e33a64a036ec44f58fa12d6c45");
  EXPECT_EQ(digest_of("testing"), "5f16f4c7f149ac4f9510d9cf8cf384038ad348b3bcdc01915f95de12df9d1b02");
  EXPECT_EQ(digest_of("The quick brown fox jumps over the lazy dog"),
            "4d741b6f1eb29cb2a9b9911c82f56fa8d73b04959d3d9d222895df6c0b28aa15");
  EXPECT_EQ(digest_of("The quick brown fox jumps over the lazy dog."),
            "578951e24efd62a3d63a86f7cd19aaa53c898fe287d2552133220370240b572d");
  EXPECT_EQ(digest_of("Transfer(address,address,uint256)"),
            "ddf252ad1be2c89b69c2b068fc378daa952ba7f163c4a11628f55a4df523b3ef");
}

// The expected digest is from pycryptodome 3.24.1.
TEST(Keccak256Test, MillionBytes) {
  EXPECT_EQ(digest_of(std::string(1'000'000, 'a')),
            "fadae6b49f129bbb812be8407b7b2894f34aecf6dbd1f9b0f0c7e9853098fc96");
}

TEST(Keccak256Test, ChunksOfEverySizeEqualOneShot) {
  for (const std::size_t length : {1U, 135U, 136U, 137U, 271U, 272U, 273U, 300U}) {
    const std::vector<std::uint8_t> data = sequence(length);
    const std::string digest = hex_text(keccak256(data));
    for (std::size_t chunk = 1; chunk <= length; ++chunk) {
      EXPECT_EQ(digest_in_chunks(data, chunk), digest) << length << " by " << chunk;
    }
  }
}

TEST(Keccak256Test, EverySplitInTwoEqualsOneShot) {
  const std::vector<std::uint8_t> data = sequence(300);
  const std::string digest = hex_text(keccak256(data));
  for (std::size_t split = 0; split <= data.size(); ++split) {
    Keccak256 hash;
    hash.update(std::span(data).first(split));
    hash.update(std::span(data).subspan(split));
    EXPECT_EQ(hex_text(hash.finish()), digest) << split;
  }
}

TEST(Keccak256Test, EmptyUpdatesChangeNothing) {
  Keccak256 hash;
  hash.update({});
  hash.update(sequence(136));
  hash.update({});
  EXPECT_EQ(hex_text(hash.finish()), hex_text(keccak256(sequence(136))));
}

}  // namespace
}  // namespace tessaline::auth::wallet
