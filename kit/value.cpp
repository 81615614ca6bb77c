#include "kit/value.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>

namespace morvik::kit {
namespace detail {
namespace {

constexpr uint32_t kFirstChunkCapacity = 4;
constexpr uint32_t kFirstSpineCapacity = 4;

}  // namespace

Chunk* Chunk::make(uint32_t capacity) {
  void* memory = ::operator new(sizeof(Chunk) + capacity * sizeof(Value));
  return new (memory) Chunk{1, 0, capacity};
}

Chunk* Chunk::copyOf(Chunk* source, uint32_t count, uint32_t capacity) {
  Chunk* chunk = make(capacity);
  for (uint32_t i = 0; i < count; ++i)
    new (chunk->items() + i) Value(source->items()[i]);
  chunk->used.store(count, std::memory_order_relaxed);
  return chunk;
}

void Chunk::release() {
  if (references.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  const uint32_t count = used.load(std::memory_order_relaxed);
  for (uint32_t i = 0; i < count; ++i)
    items()[i].~Value();
  this->~Chunk();
  ::operator delete(this);
}

Spine* Spine::make(uint32_t capacity) {
  void* memory = ::operator new(sizeof(Spine) + capacity * sizeof(Chunk*));
  return new (memory) Spine{1, 0, capacity};
}

Spine* Spine::copyOf(Spine* source, uint32_t count, uint32_t capacity) {
  Spine* spine = make(capacity);
  for (uint32_t i = 0; i < count; ++i) {
    spine->chunks()[i] = source->chunks()[i];
    spine->chunks()[i]->retain();
  }
  spine->used.store(count, std::memory_order_relaxed);
  return spine;
}

void Spine::release() {
  if (references.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  const uint32_t count = used.load(std::memory_order_relaxed);
  for (uint32_t i = 0; i < count; ++i)
    chunks()[i]->release();
  this->~Spine();
  ::operator delete(this);
}

namespace {

bool claim(std::atomic<uint32_t>& used, uint32_t expected) {
  return used.compare_exchange_strong(expected, expected + 1, std::memory_order_acq_rel);
}

uint32_t grown(uint32_t capacity, uint32_t first) {
  return capacity == 0 ? first : capacity * 2;
}

/// A row that shares the first `count` chunks of `before` and may take one more at its end.
Spine* spineWithRoom(Spine* before, uint32_t count) {
  const uint32_t capacity = before->capacity > count ? before->capacity : grown(before->capacity, kFirstSpineCapacity);
  return Spine::copyOf(before, count, capacity);
}

/// Dictionaries within dictionaries that are searched for an array; deeper ones are taken to hold one.
constexpr unsigned kMaxSearchDepth = 16;

/// Whether an array may be reached from `value`. Empty arrays hold nothing.
bool mayReachAnArray(const Value& value, unsigned depth = 0) {
  if (value.isArray())
    return value.size() != 0;
  if (!value.isDictionary())
    return false;
  const Dictionary dictionary = value.dictionary();
  return depth == kMaxSearchDepth || std::any_of(dictionary.begin(), dictionary.end(), [depth](const Entry& entry) {
           return mayReachAnArray(entry.value, depth + 1);
         });
}

bool isHeldOnce(const std::atomic<uint32_t>& references) {
  return references.load(std::memory_order_acquire) == 1;
}

void place(Chunk* chunk, uint32_t slot, Value&& element) {
  new (chunk->items() + slot) Value(std::move(element));
}

}  // namespace

ArrayRep* ArrayRep::becoming(ArrayRep* before, Spine* row_of_chunks, size_t size) {
  if (before->references.load(std::memory_order_acquire) == 1) {
    before->spine->release();
    before->spine = row_of_chunks;
    before->size = size;
    return before;
  }
  ArrayRep* after = make(row_of_chunks, size);
  if (before->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    delete before;
  return after;
}

ArrayRep* ArrayRep::appended(ArrayRep* before, Value&& element) {
  if (before == nullptr) {
    Spine* spine = Spine::make(kFirstSpineCapacity);
    Chunk* chunk = Chunk::make(kFirstChunkCapacity);
    place(chunk, 0, std::move(element));
    chunk->used.store(1, std::memory_order_relaxed);
    spine->chunks()[0] = chunk;
    spine->used.store(1, std::memory_order_relaxed);
    return make(spine, 1);
  }
  const size_t size = before->size;
  const auto slot = static_cast<uint32_t>(size % kChunkCapacity);
  const auto row = static_cast<uint32_t>(size / kChunkCapacity);
  Spine* spine = before->spine;
  // An element from which this very row can be reached must not be put into it: the two would hold each other for ever.
  // Where nobody else holds the row, the element does not either.
  const bool held_once = isHeldOnce(before->references) && isHeldOnce(spine->references);
  if (slot != 0) {
    Chunk* last = spine->chunks()[row];
    const bool may_take_it = (held_once && isHeldOnce(last->references)) || !mayReachAnArray(element);
    if (slot < last->capacity && may_take_it && claim(last->used, slot)) {
      place(last, slot, std::move(element));
      spine->retain();
      return becoming(before, spine, size + 1);
    }
    // Someone else took the slot or might be in the element, or the first small chunk is full: this handle gets a chunk
    // and a row of its own.
    const uint32_t wanted = slot < last->capacity ? last->capacity : last->capacity * 2;
    Chunk* chunk = Chunk::copyOf(last, slot, wanted < kChunkCapacity ? wanted : kChunkCapacity);
    place(chunk, slot, std::move(element));
    chunk->used.store(slot + 1, std::memory_order_relaxed);
    Spine* own = spineWithRoom(spine, row);
    own->chunks()[row] = chunk;
    own->used.store(row + 1, std::memory_order_relaxed);
    return becoming(before, own, size + 1);
  }
  const bool may_take_it = held_once || !mayReachAnArray(element);
  Chunk* chunk = Chunk::make(kChunkCapacity);
  place(chunk, 0, std::move(element));
  chunk->used.store(1, std::memory_order_relaxed);
  if (row < spine->capacity && may_take_it && claim(spine->used, row)) {
    spine->chunks()[row] = chunk;
    spine->retain();
    return becoming(before, spine, size + 1);
  }
  Spine* own = spineWithRoom(spine, row);
  own->chunks()[row] = chunk;
  own->used.store(row + 1, std::memory_order_relaxed);
  return becoming(before, own, size + 1);
}

DictionaryRep* DictionaryRep::make(std::span<Entry> source) {
  void* memory = ::operator new(sizeof(DictionaryRep) + source.size() * sizeof(Entry));
  auto* rep = new (memory) DictionaryRep{1, static_cast<uint32_t>(source.size())};
  for (size_t i = 0; i < source.size(); ++i)
    new (rep->entries() + i) Entry(std::move(source[i]));
  return rep;
}

void DictionaryRep::destroy(DictionaryRep* rep) {
  for (uint32_t i = 0; i < rep->size; ++i)
    rep->entries()[i].~Entry();
  rep->~DictionaryRep();
  ::operator delete(rep);
}

}  // namespace detail

namespace {

/// An unsigned number that fits is held as a signed one, so that equal numbers look equal.
bool fitsSigned(uint64_t value) {
  return value <= static_cast<uint64_t>(INT64_MAX);
}

}  // namespace

Value::Value(uint64_t value) noexcept {
  if (fitsSigned(value)) {
    head_.kind = Kind::kInteger;
    bits_.integer = static_cast<int64_t>(value);
  } else {
    head_.kind = Kind::kUnsigned;
    bits_.natural = value;
  }
}

Value::Value(std::string_view text) {
  const size_t size = text.size() < kMaxStringBytes ? text.size() : kMaxStringBytes;
  head_.kind = Kind::kString;
  head_.size = static_cast<uint32_t>(size);
  if (size == 0) {
    bits_.characters = "";
    return;
  }
  void* memory = ::operator new(sizeof(std::atomic<uint32_t>) + size);
  bits_.counter = new (memory) std::atomic<uint32_t>(1);
  void* bytes = bits_.counter + 1;
  std::memcpy(bytes, text.data(), size);
  head_.shared = true;
}

Value::Value(const Array& array) noexcept : Value(array.value_) {
  if (isAbsent())
    head_.kind = Kind::kArray;
}
Value::Value(const Dictionary& dictionary) noexcept : Value(dictionary.value_) {
  if (isAbsent())
    head_.kind = Kind::kDictionary;
}
Value::Value(MutableArray&& array) : Value(std::move(array.view_)) {}
Value::Value(MutableDictionary&& dictionary) {
  head_.kind = Kind::kDictionary;
  if (dictionary.entries_.empty())
    return;
  bits_.counter = &detail::DictionaryRep::make(dictionary.entries_)->references;
  head_.shared = true;
  dictionary.entries_.clear();
}

namespace {

/// A container that nobody holds any more.
struct DeadContainer {
  detail::ArrayRep* array;
  detail::DictionaryRep* dictionary;

  void destroy() const {
    delete array;
    if (dictionary != nullptr)
      detail::DictionaryRep::destroy(dictionary);
  }
};

/// Containers destroyed inside one another. What lies deeper waits for its turn, so that no depth of nesting exhausts
/// the stack.
constexpr unsigned kMaxNestedDestructions = 64;

thread_local unsigned nested_destructions = 0;
thread_local std::vector<DeadContainer>* waiting_for_destruction = nullptr;

void destroyBounded(const DeadContainer& dead) {
  if (nested_destructions == kMaxNestedDestructions) {
    waiting_for_destruction->push_back(dead);
    return;
  }
  if (nested_destructions != 0) {
    ++nested_destructions;
    dead.destroy();
    --nested_destructions;
    return;
  }
  std::vector<DeadContainer> waiting;
  waiting_for_destruction = &waiting;
  nested_destructions = 1;
  dead.destroy();
  while (!waiting.empty()) {
    const DeadContainer next = waiting.back();
    waiting.pop_back();
    next.destroy();
  }
  nested_destructions = 0;
  waiting_for_destruction = nullptr;
}

}  // namespace

void Value::destroy() noexcept {
  switch (head_.kind) {
    case Kind::kString:
      ::operator delete(bits_.counter);
      break;
    case Kind::kArray:
      destroyBounded({arrayRep(), nullptr});
      break;
    default:
      destroyBounded({nullptr, dictionaryRep()});
      break;
  }
}

Array Value::array() const noexcept {
  return isArray() ? Array(*this) : Array();
}
Dictionary Value::dictionary() const noexcept {
  return isDictionary() ? Dictionary(*this) : Dictionary();
}

bool Value::identicalTo(const Value& other) const noexcept {
  if (kind() != other.kind())
    return false;
  switch (kind()) {
    case Kind::kAbsent:
    case Kind::kNull:
      return true;
    case Kind::kBoolean:
      return bits_.boolean == other.bits_.boolean;
    case Kind::kString:
      return head_.size == other.head_.size && string().data() == other.string().data();
    case Kind::kInteger:
    case Kind::kDate:
      return bits_.integer == other.bits_.integer;
    case Kind::kUnsigned:
      return bits_.natural == other.bits_.natural;
    case Kind::kDouble:
      // By its bits: not-a-number is itself, and a zero that changed its sign has changed.
      return std::bit_cast<uint64_t>(bits_.number) == std::bit_cast<uint64_t>(other.bits_.number);
    default:  // containers
      return head_.shared == other.head_.shared && (!head_.shared || bits_.counter == other.bits_.counter);
  }
}

namespace {

/// -1, 0, 1, or 2 where they cannot be compared (not a number).
int compareToDouble(int64_t a, double b) {
  if (b != b)
    return 2;
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (b >= limit)
    return -1;
  if (b < -limit)
    return 1;
  const auto whole = static_cast<int64_t>(b);
  if (a != whole)
    return a < whole ? -1 : 1;
  const double rest = b - static_cast<double>(whole);
  return rest > 0 ? -1 : (rest < 0 ? 1 : 0);
}

bool equalToDouble(uint64_t a, double b) {
  constexpr double limit = 18446744073709551616.0;  // 2^64
  return b >= 0 && b < limit && static_cast<double>(static_cast<uint64_t>(b)) == b && static_cast<uint64_t>(b) == a;
}

bool equalNumbers(const Value& a, const Value& b) {
  if (a.kind() == b.kind()) {
    if (a.kind() == Kind::kDouble)
      return a.number() == b.number();
    return a.identicalTo(b);
  }
  if (b.kind() == Kind::kDouble) {
    return a.kind() == Kind::kInteger ? compareToDouble(a.integer(), b.number()) == 0
                                      : equalToDouble(a.unsignedInteger(), b.number());
  }
  if (a.kind() == Kind::kDouble)
    return equalNumbers(b, a);
  return false;  // an unsigned one that does not fit never equals a signed one
}

bool equalArrays(const Array& a, const Array& b) {
  if (a.size() != b.size())
    return false;
  for (size_t i = a.sharedPrefix(b); i < a.size(); ++i) {
    if (!(a[i] == b[i]))
      return false;
  }
  return true;
}

bool equalDictionaries(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size())
    return false;
  for (const Entry& entry : a) {
    if (!b.contains(entry.key.string()) || !(b[entry.key.string()] == entry.value))
      return false;
  }
  return true;
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber())
    return equalNumbers(a, b);
  if (a.kind() != b.kind())
    return false;
  switch (a.kind()) {
    case Kind::kString:
      return a.string() == b.string();
    case Kind::kArray:
      return a.identicalTo(b) || equalArrays(a.array(), b.array());
    case Kind::kDictionary:
      return a.identicalTo(b) || equalDictionaries(a.dictionary(), b.dictionary());
    default:
      return a.identicalTo(b);
  }
}

// -------------------------------------------------------------------------------------------------------------- arrays

Array::Array(std::initializer_list<Value> elements) {
  MutableArray copy;
  for (const Value& element : elements)
    copy.append(element);
  *this = Value(std::move(copy)).array();
}

size_t Array::sharedPrefix(const Array& other) const noexcept {
  const size_t limit = size() < other.size() ? size() : other.size();
  if (limit == 0)
    return 0;
  detail::Spine* mine = value_.arrayRep()->spine;
  detail::Spine* theirs = other.value_.arrayRep()->spine;
  if (mine == theirs)
    return limit;
  size_t index = 0;
  for (size_t row = 0; index < limit && mine->chunks()[row] == theirs->chunks()[row]; ++row) {
    index += detail::kChunkCapacity;
  }
  if (index > limit)
    index = limit;
  while (index < limit && (*this)[index].identicalTo(other[index]))
    ++index;
  return index;
}

MutableArray::MutableArray(const Value& value) : view_(value.array()) {}

void MutableArray::append(Value element) {
  Value& held = view_.value_;
  detail::ArrayRep* before = view_.empty() ? nullptr : held.arrayRep();
  if (before == nullptr)
    held = Value();
  held.bits_.counter = &detail::ArrayRep::appended(before, std::move(element))->references;
  held.head_.kind = Kind::kArray;
  held.head_.shared = true;
}

size_t MutableArray::removeAllEqualTo(const Value& element) {
  const size_t before = size();
  retainIf([&element](const Value& candidate) { return !(candidate == element); });
  return before - size();
}

void MutableArray::truncateTo(size_t size) {
  if (size == 0) {
    view_ = Array();
    return;
  }
  if (size >= view_.size())
    return;
  detail::Spine* spine = view_.value_.arrayRep()->spine;
  spine->retain();
  Value shorter;
  shorter.bits_.counter = &detail::ArrayRep::make(spine, size)->references;
  shorter.head_.kind = Kind::kArray;
  shorter.head_.shared = true;
  view_ = Array(std::move(shorter));
}

void MutableArray::replaceAt(size_t index, Value element) {
  const Array before = view_;
  truncateTo(index);
  append(std::move(element));
  for (size_t i = index + 1; i < before.size(); ++i)
    append(before[i]);
}

// -------------------------------------------------------------------------------------------------------- dictionaries

Dictionary::Dictionary(std::initializer_list<std::pair<Value, Value>> entries) {
  MutableDictionary copy(entries.size());
  for (const auto& [key, value] : entries)
    copy.set(key, value);
  *this = Value(std::move(copy)).dictionary();
}

Dictionary Dictionary::fromEntries(std::span<Entry> entries) {
  Value value;
  value.head_.kind = Kind::kDictionary;
  if (!entries.empty()) {
    value.bits_.counter = &detail::DictionaryRep::make(entries)->references;
    value.head_.shared = true;
  }
  return Dictionary(std::move(value));
}

bool Dictionary::contains(std::string_view key) const noexcept {
  for (const Entry& entry : *this) {
    if (entry.key.string() == key)
      return true;
  }
  return false;
}

MutableDictionary::MutableDictionary(const Value& value) : MutableDictionary(value.dictionary()) {}
MutableDictionary::MutableDictionary(const Dictionary& dictionary) : entries_(dictionary.begin(), dictionary.end()) {}

const Value& MutableDictionary::operator[](std::string_view key) const noexcept {
  for (const Entry& entry : entries_) {
    if (entry.key.string() == key)
      return entry.value;
  }
  return detail::kAbsentValue;
}

void MutableDictionary::set(Value key, Value value) {
  if (value.isAbsent())
    return remove(key.string());
  for (Entry& entry : entries_) {
    if (entry.key.string() == key.string()) {
      entry.value = std::move(value);
      return;
    }
  }
  entries_.push_back({std::move(key), std::move(value)});
}

void MutableDictionary::remove(std::string_view key) {
  std::erase_if(entries_, [key](const Entry& entry) { return entry.key.string() == key; });
}

}  // namespace morvik::kit
