#include "markup/ElemStack.h"

#include <unistd.h>

#include <ctime>
#include <new>
#include <type_traits>

#include "markup/Ascii.h"
#include "markup/Names.h"

static_assert(std::is_trivially_copyable_v<OpenTag>, "entries are moved as bytes");

namespace {

constexpr std::size_t kFirstEntries = 7;
constexpr std::uint64_t kHashPrime = (1ULL << 61) - 1;

__extension__ using Wide = unsigned __int128;

// The prime is 2^61 - 1, so 2^61 is 1 modulo the prime: the bits from 2^61 up are added to the low 61 bits.
std::uint64_t ReduceModPrime(Wide value) {
  const auto sum = static_cast<std::uint64_t>(value & kHashPrime) + static_cast<std::uint64_t>(value >> 61);
  return sum >= kHashPrime ? sum - kHashPrime : sum;
}

std::uint64_t RandomFactor() {
  std::uint64_t factor = 0;
  if (getentropy(&factor, sizeof factor) != 0) factor = static_cast<std::uint64_t>(std::clock()) * 0x9E3779B97F4A7C15U;
  return factor % (kHashPrime - 512) + 256;
}

}  // namespace

void ElemStack::AddToIndex(std::string_view name) {
  ForEachMatch(name, [this](Hash hash) { ++(*matches_)[hash]; });
}

void ElemStack::RemoveFromIndex(std::string_view name) {
  ForEachMatch(name, [this](Hash hash) {
    const auto match = matches_->find(hash);
    if (--match->second == 0) matches_->erase(match);
  });
}

std::size_t ElemStack::FindInnermost(std::string_view name) {
  if (depth_ == 0) return kNone;
  if (qx::markup::StoredNameMatches(Top().Name(), name, ignore_case_)) return depth_ - 1;

  if (matches_ == nullptr) BuildIndex();
  Hash hash = 0;
  for (const char c : name) hash = Step(hash, c);
  if (matches_->find(hash) == matches_->end()) return kNone;
  for (std::size_t depth = depth_ - 1; depth-- > 0;) {
    if (qx::markup::StoredNameMatches(tags_[depth].Name(), name, ignore_case_)) return depth;
  }
  return kNone;
}

// The stack of a deep document has megabytes. realloc moves their pages without a copy.
void ElemStack::Grow() {
  const std::size_t capacity = capacity_ == 0 ? kFirstEntries : 2 * capacity_;
  void* const grown = std::realloc(tags_.get(), capacity * sizeof(OpenTag));
  if (grown == nullptr) throw std::bad_alloc();
  (void)tags_.release();  // realloc has freed or moved it
  tags_.reset(static_cast<OpenTag*>(grown));
  capacity_ = capacity;
}

void ElemStack::BuildIndex() {
  factor_ = RandomFactor();
  matches_ = std::make_unique<std::unordered_map<Hash, std::uint32_t>>();
  for (std::size_t depth = 0; depth < depth_; ++depth) AddToIndex(tags_[depth].Name());
}

// The hash is a polynomial modulo a prime, computed byte by byte. So the computation also passes the hash of each
// prefix of the name.
ElemStack::Hash ElemStack::Step(Hash hash, char c) const {
  const char folded = ignore_case_ ? qx::markup::ToLower(c) : c;
  const Wide next = Wide{hash} * factor_ + static_cast<unsigned char>(folded) + 1;
  return ReduceModPrime(next);
}

template <typename Visit>
void ElemStack::ForEachMatch(std::string_view stored, Visit visit) const {
  Hash hash = 0;
  for (std::size_t i = 0; i < stored.size(); ++i) {
    if (i > 0 && qx::markup::IsClass(stored[i], qx::markup::kStoredEnd)) visit(hash);
    hash = Step(hash, stored[i]);
  }
  visit(hash);
}
