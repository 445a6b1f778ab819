// Builds hash tables of names at compile time. A bucket is one C string, in which the entries follow one another
// without gaps:
//
//   length of the name (digits) | number (digits) | name in lower case
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "markup/Ascii.h"

namespace qx::markup {

// The sum of the bytes as signed characters, modulo `size`. The result is negative for some texts with bytes above 127.
constexpr int Hash(std::string_view text, int size) {
  std::int64_t sum = 0;
  for (const char c : text) sum += static_cast<signed char>(c);
  return static_cast<int>(sum % size);
}

struct BucketFormat {
  int buckets;
  int length_digits;
  int number_digits;
};

// All buckets one after another, each terminated by a NUL.
template <std::size_t kBytes, std::size_t kBuckets>
struct BucketPool {
  std::array<char, kBytes> text{};
  std::array<std::size_t, kBuckets> offsets{};
};

template <typename Row, std::size_t kRows>
consteval std::size_t BucketPoolBytes(const Row (&rows)[kRows], BucketFormat format) {
  std::size_t bytes = static_cast<std::size_t>(format.buckets);
  for (const Row& row : rows) {
    bytes += static_cast<std::size_t>(format.length_digits + format.number_digits) + row.name.size();
  }
  return bytes;
}

namespace detail {

constexpr std::size_t WriteDecimal(char* out, std::size_t value, int digits) {
  for (int i = digits - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
  return static_cast<std::size_t>(digits);
}

constexpr int ReadDecimal(const char* text, int digits) {
  int value = 0;
  for (int i = 0; i < digits; ++i) value = value * 10 + (text[i] - '0');
  return value;
}

constexpr int HashLower(std::string_view name, int size) {
  std::int64_t sum = 0;
  for (const char c : name) sum += ToLower(c);
  return static_cast<int>(sum % size);
}

}  // namespace detail

// Builds the buckets. Rows in the same bucket keep the order of the list.
template <std::size_t kBytes, std::size_t kBuckets, typename Row, std::size_t kRows>
consteval BucketPool<kBytes, kBuckets> MakeBucketPool(const Row (&rows)[kRows], BucketFormat format) {
  BucketPool<kBytes, kBuckets> pool;
  std::array<int, kRows> hashes{};
  for (std::size_t i = 0; i < kRows; ++i) hashes[i] = detail::HashLower(rows[i].name, format.buckets);
  std::size_t at = 0;
  for (std::size_t bucket = 0; bucket < kBuckets; ++bucket, ++at) {
    pool.offsets[bucket] = at;
    for (std::size_t i = 0; i < kRows; ++i) {
      if (hashes[i] != static_cast<int>(bucket)) continue;
      at += detail::WriteDecimal(&pool.text[at], rows[i].name.size(), format.length_digits);
      at += detail::WriteDecimal(&pool.text[at], static_cast<std::size_t>(rows[i].code), format.number_digits);
      for (const char c : rows[i].name) pool.text[at++] = ToLower(c);
    }
  }
  return pool;
}

// The buckets as C strings; `pool` must be a constant with static storage.
template <std::size_t kBytes, std::size_t kBuckets>
constexpr std::array<const char*, kBuckets> PointersInto(const BucketPool<kBytes, kBuckets>& pool) {
  std::array<const char*, kBuckets> buckets{};
  for (std::size_t i = 0; i < kBuckets; ++i) buckets[i] = pool.text.data() + pool.offsets[i];
  return buckets;
}

// The number of the first entry with this lower-case name; `missing` if no entry has the name.
template <std::size_t kBuckets>
constexpr int FindInBuckets(const std::array<const char*, kBuckets>& buckets, BucketFormat format,
                            std::string_view name, int missing) {
  const int hash = Hash(name, format.buckets);
  if (hash < 0) return missing;  // no entry has such bytes
  const char* entry = buckets[static_cast<std::size_t>(hash)];
  while (*entry != '\0') {
    const auto length = static_cast<std::size_t>(detail::ReadDecimal(entry, format.length_digits));
    const char* const entry_name = entry + format.length_digits + format.number_digits;
    if (name == std::string_view(entry_name, length)) {
      return detail::ReadDecimal(entry + format.length_digits, format.number_digits);
    }
    entry = entry_name + length;
  }
  return missing;
}

}  // namespace qx::markup
