#include "tessaline/auth/wallet/wallet_key.hpp"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace tessaline::auth::wallet {
namespace {

constexpr std::string_view kOne = "0000000000000000000000000000000000000000000000000000000000000001";
constexpr std::string_view kOrder = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";
constexpr std::string_view kOrderPlusOne = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364142";
constexpr std::string_view kOrderMinusOne =
    "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364140";
constexpr std::string_view kSome = "4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318";
constexpr std::string_view kMixedCase = "4C0883A69102937d6231471b5DbB6204fE5129617082792Ae468D01a3F362318";

using ParseResult = std::variant<WalletKey, KeyRefusal>;

template <typename Unit>
ParseResult parse_units(const std::basic_string<Unit>& text) {
  return WalletKey::parse({text.data(), static_cast<int>(sizeof(Unit)), text.size()});
}

ParseResult parse(std::string_view text) {
  return WalletKey::parse({text.data(), 1, text.size()});
}

template <typename Unit>
std::basic_string<Unit> widened(std::string_view text) {
  return {text.begin(), text.end()};
}

WalletKey key_of(std::string_view text) {
  return std::get<WalletKey>(parse(text));
}

std::string hex_of(const WalletKey& key) {
  std::array<char, kKeyHexDigits> digits{};
  key.write_hex(digits);
  return {digits.begin(), digits.end()};
}

std::string replaced(std::string_view text, std::size_t position, char digit) {
  std::string changed(text);
  changed[position] = digit;
  return changed;
}

void expect_refusal(const ParseResult& result, KeyFault fault, std::size_t hex_digits = 0,
                    std::size_t position = 0) {
  const auto* refusal = std::get_if<KeyRefusal>(&result);
  ASSERT_NE(refusal, nullptr);
  EXPECT_EQ(refusal->fault, fault);
  EXPECT_EQ(refusal->hex_digits, hex_digits);
  EXPECT_EQ(refusal->position, position);
}

TEST(WalletKeyTest, ParseReadsBareDigits) {
  EXPECT_EQ(hex_of(key_of(kSome)), kSome);
}

TEST(WalletKeyTest, ParseDropsOnePrefixInEitherCase) {
  EXPECT_EQ(hex_of(key_of("0x" + std::string(kSome))), kSome);
  EXPECT_EQ(hex_of(key_of("0X" + std::string(kSome))), kSome);
}

TEST(WalletKeyTest, ParseReadsWideText) {
  for (const std::string& text : {std::string(kMixedCase), "0x" + std::string(kMixedCase)}) {
    EXPECT_EQ(hex_of(std::get<WalletKey>(parse_units(widened<char16_t>(text)))), kMixedCase);
    EXPECT_EQ(hex_of(std::get<WalletKey>(parse_units(widened<char32_t>(text)))), kMixedCase);
  }
}

TEST(WalletKeyTest, ParseReadsUnalignedWideText) {
  const std::u32string text = widened<char32_t>(kSome);
  std::vector<char> memory(1 + text.size() * sizeof(char32_t));
  std::memcpy(memory.data() + 1, text.data(), text.size() * sizeof(char32_t));
  EXPECT_EQ(hex_of(std::get<WalletKey>(WalletKey::parse({memory.data() + 1, 4, text.size()}))), kSome);
}

TEST(WalletKeyTest, ParseKeepsTheCaseOfEveryLetter) {
  EXPECT_EQ(hex_of(key_of(kMixedCase)), kMixedCase);
  const std::string lower(kKeyHexDigits, 'a');
  for (std::size_t i = 0; i < kKeyHexDigits; ++i) {
    EXPECT_EQ(hex_of(key_of(replaced(lower, i, 'A'))), replaced(lower, i, 'A'));
  }
}

TEST(WalletKeyTest, CaseDoesNotChangeTheKey) {
  EXPECT_EQ(key_of(kMixedCase).address(), key_of(kSome).address());
}

TEST(WalletKeyTest, ParseRefusesEmptyText) {
  expect_refusal(parse(""), KeyFault::kEmpty);
  expect_refusal(WalletKey::parse({nullptr, 1, 0}), KeyFault::kEmpty);
  expect_refusal(WalletKey::parse({nullptr, 4, 0}), KeyFault::kEmpty);
}

TEST(WalletKeyTest, ParseRefusesPrefixAlone) {
  expect_refusal(parse("0x"), KeyFault::kWrongLength, 0);
  expect_refusal(parse("0X"), KeyFault::kWrongLength, 0);
  expect_refusal(parse_units(widened<char16_t>("0x")), KeyFault::kWrongLength, 0);
}

TEST(WalletKeyTest, ParseRefusesOneUnit) {
  expect_refusal(parse("0"), KeyFault::kWrongLength, 1);
  expect_refusal(parse("x"), KeyFault::kWrongLength, 1);
}

TEST(WalletKeyTest, ParseRefusesWrongLengths) {
  for (const std::size_t length : {2U, 62U, 63U, 65U, 66U, 128U, 1000U}) {
    const std::string digits(length, '1');
    expect_refusal(parse(digits), KeyFault::kWrongLength, length);
    expect_refusal(parse("0x" + digits), KeyFault::kWrongLength, length);
  }
}

TEST(WalletKeyTest, ParseCountsDigitsAfterThePrefix) {
  expect_refusal(parse("0x" + std::string(62, '1')), KeyFault::kWrongLength, 62);
}

TEST(WalletKeyTest, ParseRefusesDoubledPrefix) {
  expect_refusal(parse("0x0x" + std::string(kSome)), KeyFault::kWrongLength, 66);
  expect_refusal(parse("0x0x" + std::string(62, '1')), KeyFault::kNotHex, 0, 1);
}

TEST(WalletKeyTest, ParseChecksLengthBeforeDigits) {
  expect_refusal(parse("not hexadecimal"), KeyFault::kWrongLength, 15);
}

TEST(WalletKeyTest, ParseRefusesNonHexAtEveryPosition) {
  for (std::size_t i = 0; i < kKeyHexDigits; ++i) {
    expect_refusal(parse(replaced(kSome, i, 'g')), KeyFault::kNotHex, 0, i);
    expect_refusal(parse("0x" + replaced(kSome, i, ' ')), KeyFault::kNotHex, 0, i);
  }
}

TEST(WalletKeyTest, ParseNamesTheFirstOfSeveralBadDigits) {
  expect_refusal(parse(replaced(replaced(kSome, 63, '_'), 7, '\n')), KeyFault::kNotHex, 0, 7);
}

TEST(WalletKeyTest, ParseRefusesEveryOtherByte) {
  for (int unit = 0; unit < 256; ++unit) {
    const char byte = static_cast<char>(unit);
    if (std::string_view("0123456789abcdefABCDEF").find(byte) != std::string_view::npos) continue;
    expect_refusal(parse(replaced(kSome, 33, byte)), KeyFault::kNotHex, 0, 33);
  }
}

TEST(WalletKeyTest, ParseRefusesUnicodeDigitsAndWideUnitsThatEndInADigit) {
  std::u16string wide = widened<char16_t>(kSome);
  for (const char16_t unit : {u'\u0661', u'\uFF11', u'\u0131', u'\u0141'}) {
    wide[5] = unit;
    expect_refusal(parse_units(wide), KeyFault::kNotHex, 0, 5);
  }
  std::u32string wider = widened<char32_t>(kSome);
  for (const char32_t unit : {U'\U0001D7CF', U'\U00010031', U'\U00010061'}) {
    wider[63] = unit;
    expect_refusal(parse_units(wider), KeyFault::kNotHex, 0, 63);
  }
}

TEST(WalletKeyTest, ParseChecksDigitsBeforeTheValue) {
  expect_refusal(parse(std::string(63, '0') + "g"), KeyFault::kNotHex, 0, 63);
}

TEST(WalletKeyTest, ParseRefusesZero) {
  expect_refusal(parse(std::string(64, '0')), KeyFault::kNotScalar);
}

TEST(WalletKeyTest, ParseRefusesGroupOrder) {
  expect_refusal(parse(kOrder), KeyFault::kNotScalar);
}

TEST(WalletKeyTest, ParseRefusesMoreThanGroupOrder) {
  expect_refusal(parse(kOrderPlusOne), KeyFault::kNotScalar);
  expect_refusal(parse(std::string(64, 'F')), KeyFault::kNotScalar);
}

TEST(WalletKeyTest, ParseAcceptsOneBelowGroupOrder) {
  EXPECT_EQ(hex_of(key_of(kOrderMinusOne)), kOrderMinusOne);
}

// The expected addresses and signatures are from the Python package eth-account 0.14.0.
TEST(WalletKeyTest, AddressOfKnownKeys) {
  EXPECT_EQ(key_of(kOne).address(), "0x7e5f4552091a69125d5dfcb7b8c2659029395bdf");
  EXPECT_EQ(key_of(replaced(kOne, 63, '2')).address(), "0x2b5ad5c4795c026514f8317c7a215e218dccd6cf");
  EXPECT_EQ(key_of(kSome).address(), "0x2c7536e3605d9c16a7a3d7b1898e529396a65c23");
  EXPECT_EQ(key_of("b25c7db31feed9122727bf0939dc769a96564b2de4c4726d035b36ecf1e5b364").address(),
            "0x5ce9454909639d2d17a3f753ce7d93fa0b9ab12e");
  EXPECT_EQ(key_of("7fffffffffffffffffffffffffffffff5d576e7357a4501ddfe92f46681b20a0").address(),
            "0x3b3c67f57f74ce72a02978b0492620b1a661da43");
  EXPECT_EQ(key_of(replaced(std::string(64, '0'), 0, '8')).address(),
            "0xa71e43be339f9791235641f457c1ba2da86b9eb3");
  EXPECT_EQ(key_of(kOrderMinusOne).address(), "0x80c0dbf239224071c59dd8970ab9d542e3414ab2");
}

TEST(WalletKeyTest, SignsEmptyMessage) {
  EXPECT_EQ(
      key_of(kSome).sign_personal_message(""),
      "0x8a68b4e66cd2b575338e16069d7b65f6f67c7ceae8945dccf8cb7bdb06278d933dd9c888f3444ca4698464079a067ad3c"
      "fffe96d493b8ecf56885169d0fdfe7d1b");
}

TEST(WalletKeyTest, SignsWithEitherRecoveryByte) {
  EXPECT_EQ(
      key_of(kSome).sign_personal_message("Hello, world!"),
      "0x2a73ec42acd33331635dcab78139d763b36ba303fc64940acd5f6797f83a78e16cf49ce6937869cf5144c10c3bcfc07d2"
      "5a3155cd96315176775c812f700173a1c");
  EXPECT_EQ(
      key_of(kOrderMinusOne).sign_personal_message("Hello, world!"),
      "0xef5ddaaeaa69c45dbf924e45744c481cc474559231b54e218abd129986a82d65596c60ef5995074327fd77c37dba36241"
      "18b9c3673f2edb638cfde99b814a6431c");
  EXPECT_EQ(
      key_of(kOne).sign_personal_message(""),
      "0x0ac02a3eb3039b7a3ebb6a35f1e0dd31a4ed51781205a2c193354752a25edad50593868baf38c519b78bdc61a23c3f55e"
      "058c29f8b83d79ae48cc47d931afaed1b");
}

TEST(WalletKeyTest, SignsSeveralLines) {
  EXPECT_EQ(
      key_of(kSome).sign_personal_message("Sign in to example.test\n\nAddress: 0x00\nNonce: 7\n"),
      "0x54014516e17236340bc618d3fb308c8abbe34dbdd6c452c429c1fd9cfa8b1b6c7166fe5e0d5404e74203cb490b57ee5f2"
      "8b78db8b0a7dcf46bd0ab6626a230f71b");
}

TEST(WalletKeyTest, SignsBytesBeyondAsciiByTheirByteLength) {
  EXPECT_EQ(
      key_of(kSome).sign_personal_message("Grüße, 世界 🦊"),
      "0x89accaa5aaaa8ef96d62fa8f35954e9c6bebb450c39cfcb85f655aa4722593023d15afc12b2eb5bed9bce5f2e037a784b"
      "ff77c9984801c9e2486c6edb30196e91c");
}

TEST(WalletKeyTest, SignsMessageWithNul) {
  EXPECT_EQ(
      key_of(kSome).sign_personal_message(std::string_view("a\0b", 3)),
      "0xb78b3dc08c934f64c6d69b780f479049516cd451a9967788d1491954d15da8b24b99f33ed8535a2e16f19b8446bebbbb7"
      "9479f73db4f75050232b130b18a7c561c");
}

TEST(WalletKeyTest, SignsHundredKilobytes) {
  std::string message;
  for (int i = 0; i < 10'000; ++i) message += "0123456789";
  EXPECT_EQ(
      key_of(kSome).sign_personal_message(message),
      "0x2e0b01a90dca81b7577d54b2fa85bc3827aa644650718536219155023990614a24303b6443969e64cde61ad464db52c75"
      "4abb39d06c92a1fe42c4c5dc1430b1d1c");
}

TEST(WalletKeyTest, ThreadsSignAtOnce) {
  const WalletKey key = key_of(kSome);
  const std::string expected = key.sign_personal_message("Hello, world!");
  std::vector<int> wrong(8);
  std::vector<std::thread> threads;
  for (int& count : wrong) {
    threads.emplace_back([&expected, &count, own = key.copy()] {
      for (int i = 0; i < 100; ++i) count += own.sign_personal_message("Hello, world!") == expected ? 0 : 1;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(8));
}

TEST(WalletKeyTest, IsMoveOnly) {
  static_assert(!std::is_copy_constructible_v<WalletKey> && !std::is_copy_assignable_v<WalletKey>);
  static_assert(std::is_nothrow_move_constructible_v<WalletKey> &&
                std::is_nothrow_move_assignable_v<WalletKey>);
}

TEST(WalletKeyTest, CopyOutlivesItsSource) {
  std::optional<WalletKey> source = key_of(kMixedCase);
  const WalletKey copy = source->copy();
  source.reset();
  EXPECT_EQ(hex_of(copy), kMixedCase);
  EXPECT_EQ(copy.address(), key_of(kSome).address());
}

TEST(WalletKeyTest, SourceOutlivesItsCopy) {
  const WalletKey source = key_of(kSome);
  std::optional<WalletKey> copy = source.copy();
  *copy = key_of(kOne);
  copy.reset();
  EXPECT_EQ(hex_of(source), kSome);
}

TEST(WalletKeyTest, MoveHandsTheKeyOver) {
  WalletKey source = key_of(kSome);
  const WalletKey target = std::move(source);
  EXPECT_EQ(hex_of(target), kSome);
}

TEST(WalletKeyTest, MovedFromIsAssignedAgain) {
  WalletKey key = key_of(kSome);
  const WalletKey other = std::move(key);
  key = key_of(kOne);
  EXPECT_EQ(hex_of(key), kOne);
  EXPECT_EQ(hex_of(other), kSome);
}

/// The memory that the next key will use.
std::span<const std::uint8_t> next_slot() {
  return SecretSlot::acquire().bytes();
}

bool all_zero(std::span<const std::uint8_t> bytes) {
  return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == 0; });
}

TEST(WalletKeyTest, DestructionWipesTheKey) {
  const std::span<const std::uint8_t> memory = next_slot();
  {
    const WalletKey key = key_of(kSome);
    ASSERT_FALSE(all_zero(memory));
  }
  EXPECT_TRUE(all_zero(memory));
}

TEST(WalletKeyTest, RefusalWipesWhatWasRead) {
  const std::span<const std::uint8_t> memory = next_slot();
  for (const std::string& text : {replaced(kSome, 63, 'g'), std::string(kOrder)}) {
    expect_refusal(parse(text), text[0] == 'f' ? KeyFault::kNotScalar : KeyFault::kNotHex, 0,
                   text[0] == 'f' ? 0 : 63);
    EXPECT_TRUE(all_zero(memory));
  }
}

/// Runs a function on a stack that can be read afterwards.
class ScannedStack {
 public:
  ScannedStack()
      : memory_(
            mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {}
  ScannedStack(const ScannedStack&) = delete;
  ScannedStack& operator=(const ScannedStack&) = delete;
  ~ScannedStack() { munmap(memory_, kSize); }

  void run(void* (*function)(void*)) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, memory_, kSize);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, function, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
  }

  /// Whether any eight successive bytes of `secret` are in it.
  bool holds_part_of(std::string_view secret) const {
    constexpr std::size_t kPart = 8;
    const std::string_view stack(static_cast<const char*>(memory_), kSize);
    for (std::size_t i = 0; i + kPart <= secret.size(); ++i) {
      if (stack.find(secret.substr(i, kPart)) != std::string_view::npos) return true;
    }
    return false;
  }

 private:
  static constexpr std::size_t kSize = std::size_t{2048} * 1024;

  void* memory_;
};

std::string bytes_of(std::string_view digits) {
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

void expect_no_trace_of_key(const ScannedStack& stack) {
  const std::string bytes = bytes_of(kSome);
  EXPECT_FALSE(stack.holds_part_of(bytes)) << "as bytes";
  EXPECT_FALSE(stack.holds_part_of(std::string(bytes.rbegin(), bytes.rend()))) << "as little-endian words";
  EXPECT_FALSE(stack.holds_part_of(kSome)) << "as text";
}

TEST(WalletKeyStackTest, ScanFindsAKeyLeftBehind) {
  ScannedStack stack;
  stack.run([](void*) -> void* {
    // Far below the frames that end the thread.
    std::array<char, 4096> left;
    std::ranges::copy(kSome, left.data());
    asm volatile("" : : "r"(left.data()) : "memory");
    return nullptr;
  });
  EXPECT_TRUE(stack.holds_part_of(kSome));
}

TEST(WalletKeyStackTest, ParsingLeavesNoKey) {
  ScannedStack stack;
  stack.run([](void*) -> void* {
    static_cast<void>(parse(kSome));
    return nullptr;
  });
  expect_no_trace_of_key(stack);
}

TEST(WalletKeyStackTest, RefusalLeavesNoKey) {
  static std::string almost = replaced(kSome, 63, 'g');
  ScannedStack stack;
  stack.run([](void*) -> void* {
    static_cast<void>(parse(almost));
    return nullptr;
  });
  expect_no_trace_of_key(stack);
}

TEST(WalletKeyStackTest, SigningLeavesNoKey) {
  static const WalletKey key = key_of(kSome);
  ScannedStack stack;
  stack.run([](void*) -> void* {
    static_cast<void>(key.sign_personal_message("Hello, world!"));
    return nullptr;
  });
  expect_no_trace_of_key(stack);
}

TEST(WalletKeyStackTest, AddressLeavesNoKey) {
  static const WalletKey key = key_of(kSome);
  ScannedStack stack;
  stack.run([](void*) -> void* {
    static_cast<void>(key.address());
    return nullptr;
  });
  expect_no_trace_of_key(stack);
}

TEST(WalletKeyStackTest, CopyingAndWritingLeaveNoKey) {
  static const WalletKey key = key_of(kSome);
  static std::array<char, kKeyHexDigits> digits{};
  ScannedStack stack;
  stack.run([](void*) -> void* {
    key.copy().write_hex(digits);
    return nullptr;
  });
  expect_no_trace_of_key(stack);
}

}  // namespace
}  // namespace tessaline::auth::wallet
