#include "tessaline/auth/wallet/keccak.hpp"

#include <bit>

namespace tessaline::auth::wallet {
namespace {

using Lanes = std::array<std::uint64_t, 25>;

constexpr std::array<std::uint64_t, 24> kRoundConstants = {
    0x0000000000000001, 0x0000000000008082, 0x800000000000808a, 0x8000000080008000, 0x000000000000808b,
    0x0000000080000001, 0x8000000080008081, 0x8000000000008009, 0x000000000000008a, 0x0000000000000088,
    0x0000000080008009, 0x000000008000000a, 0x000000008000808b, 0x800000000000008b, 0x8000000000008089,
    0x8000000000008003, 0x8000000000008002, 0x8000000000000080, 0x000000000000800a, 0x800000008000000a,
    0x8000000080008081, 0x8000000000008080, 0x0000000080000001, 0x8000000080008008};

/// The non-linear step for one row of five lanes.
[[gnu::always_inline]] inline void chi(std::uint64_t* row, std::uint64_t b0, std::uint64_t b1,
                                       std::uint64_t b2, std::uint64_t b3, std::uint64_t b4) noexcept {
  row[0] = b0 ^ (~b1 & b2);
  row[1] = b1 ^ (~b2 & b3);
  row[2] = b2 ^ (~b3 & b4);
  row[3] = b3 ^ (~b4 & b0);
  row[4] = b4 ^ (~b0 & b1);
}

/// Writes into another set of lanes, so that the compiler keeps the lanes in registers.
[[gnu::always_inline]] inline void round(const Lanes& a, Lanes& out, std::uint64_t constant) noexcept {
  using std::rotl;
  const std::uint64_t c0 = a[0] ^ a[5] ^ a[10] ^ a[15] ^ a[20];
  const std::uint64_t c1 = a[1] ^ a[6] ^ a[11] ^ a[16] ^ a[21];
  const std::uint64_t c2 = a[2] ^ a[7] ^ a[12] ^ a[17] ^ a[22];
  const std::uint64_t c3 = a[3] ^ a[8] ^ a[13] ^ a[18] ^ a[23];
  const std::uint64_t c4 = a[4] ^ a[9] ^ a[14] ^ a[19] ^ a[24];
  const std::uint64_t d0 = c4 ^ rotl(c1, 1);
  const std::uint64_t d1 = c0 ^ rotl(c2, 1);
  const std::uint64_t d2 = c1 ^ rotl(c3, 1);
  const std::uint64_t d3 = c2 ^ rotl(c4, 1);
  const std::uint64_t d4 = c3 ^ rotl(c0, 1);
  chi(&out[0], a[0] ^ d0, rotl(a[6] ^ d1, 44), rotl(a[12] ^ d2, 43), rotl(a[18] ^ d3, 21),
      rotl(a[24] ^ d4, 14));
  out[0] ^= constant;
  chi(&out[5], rotl(a[3] ^ d3, 28), rotl(a[9] ^ d4, 20), rotl(a[10] ^ d0, 3), rotl(a[16] ^ d1, 45),
      rotl(a[22] ^ d2, 61));
  chi(&out[10], rotl(a[1] ^ d1, 1), rotl(a[7] ^ d2, 6), rotl(a[13] ^ d3, 25), rotl(a[19] ^ d4, 8),
      rotl(a[20] ^ d0, 18));
  chi(&out[15], rotl(a[4] ^ d4, 27), rotl(a[5] ^ d0, 36), rotl(a[11] ^ d1, 10), rotl(a[17] ^ d2, 15),
      rotl(a[23] ^ d3, 56));
  chi(&out[20], rotl(a[2] ^ d2, 62), rotl(a[8] ^ d3, 55), rotl(a[14] ^ d4, 39), rotl(a[15] ^ d0, 41),
      rotl(a[21] ^ d1, 2));
}

void permute(Lanes& lanes) noexcept {
  Lanes even = lanes;
  Lanes odd;
  for (std::size_t i = 0; i < kRoundConstants.size(); i += 2) {
    round(even, odd, kRoundConstants[i]);
    round(odd, even, kRoundConstants[i + 1]);
  }
  lanes = even;
}

std::uint64_t load_little_endian(const std::uint8_t* bytes) noexcept {
  std::uint64_t lane = 0;
  for (unsigned i = 0; i < 8; ++i) lane |= std::uint64_t{bytes[i]} << (8 * i);
  return lane;
}

void absorb_byte(Lanes& lanes, std::size_t offset, std::uint8_t byte) noexcept {
  lanes[offset / 8] ^= std::uint64_t{byte} << (8 * (offset % 8));
}

}  // namespace

void Keccak256::update(std::span<const std::uint8_t> data) noexcept {
  while (!data.empty()) {
    if (offset_ == 0 && data.size() >= kRate) {
      for (std::size_t i = 0; i < kRate / 8; ++i) lanes_[i] ^= load_little_endian(&data[8 * i]);
      data = data.subspan(kRate);
      permute(lanes_);
      continue;
    }
    absorb_byte(lanes_, offset_, data.front());
    data = data.subspan(1);
    if (++offset_ == kRate) {
      permute(lanes_);
      offset_ = 0;
    }
  }
}

Digest Keccak256::finish() noexcept {
  absorb_byte(lanes_, offset_, 0x01);
  absorb_byte(lanes_, kRate - 1, 0x80);
  permute(lanes_);
  Digest digest;
  for (std::size_t i = 0; i < digest.size(); ++i) {
    digest[i] = static_cast<std::uint8_t>(lanes_[i / 8] >> (8 * (i % 8)));
  }
  return digest;
}

Digest keccak256(std::span<const std::uint8_t> data) noexcept {
  Keccak256 hash;
  hash.update(data);
  return hash.finish();
}

}  // namespace tessaline::auth::wallet
