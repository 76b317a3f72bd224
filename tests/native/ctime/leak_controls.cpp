#include <array>
#include <cstdint>
#include <string_view>

#include "check.hpp"
#include "leaks.hpp"
#include "secret.hpp"

namespace tessaline::ctime {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef0fEDCBA9876543210123456789ABCDEF0fedcba987654321";
constexpr std::array<std::uint8_t, 32> kBytes = {1, 2, 3};
constexpr std::array<std::uint8_t, 32> kOther = {1, 2, 4};

volatile std::size_t result = 0;

// The result of a control is public and used, or the compiler would remove the control.
template <typename T>
void use(T value) {
  ctime_mark_public(&value, sizeof value);
  result = result + static_cast<std::size_t>(value);
}

void table_decoder() {
  std::array<std::uint8_t, 32> bytes{};
  leaks::decode_by_table(Secret<char>{kDigits}.values(), bytes);
  use(bytes[0]);
}

void branching_decoder() {
  std::array<std::uint8_t, 32> bytes{};
  leaks::decode_by_branches(Secret<char>{kDigits}.values(), bytes);
  use(bytes[0]);
}

void table_encoder() {
  std::array<char, 64> digits{};
  leaks::encode_by_table(Secret<unsigned char>{kBytes}.values(), digits);
  use(digits[0]);
}

void early_exit() {
  use(leaks::equal_until_different(Secret<unsigned char>{kBytes}.values(), kOther));
}

void library_compare() {
  use(leaks::equal_by_memcmp(Secret<unsigned char>{kBytes}.values(), kOther));
}

void leading_zeros() {
  use(leaks::significant_bytes(Secret<unsigned char>{kBytes}.values()));
}

constexpr std::array kControls = {
    Check{"decoder by table", table_decoder},       Check{"decoder by branches", branching_decoder},
    Check{"encoder by table", table_encoder},       Check{"comparison with early exit", early_exit},
    Check{"comparison by memcmp", library_compare}, Check{"count of leading zeros", leading_zeros},
};

}  // namespace

std::span<const Check> leak_controls() {
  return kControls;
}

}  // namespace tessaline::ctime
