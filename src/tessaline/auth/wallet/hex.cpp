#include "tessaline/auth/wallet/hex.hpp"

namespace tessaline::auth::wallet {

void append_hex(std::string& text, std::span<const std::uint8_t> bytes) {
  text.reserve(text.size() + 2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    text.push_back(write_hex_digit(byte >> 4U));
    text.push_back(write_hex_digit(byte & 0xFU));
  }
}

}  // namespace tessaline::auth::wallet
