// kit::Value: a stored property, a JSON document, a record or a payload.
//
// Values are immutable handles that share structure: copying one costs a reference count, whatever its size. To change
// an array or a dictionary, take a mutable copy (MutableArray, MutableDictionary; constant time), change it, and make a
// value of it again. Appending to an array of 100,000 copies nothing: older handles keep their own length.
//
// A handle may be read by any thread while other threads hold copies of it. As with any value type, one handle object
// must not be written by one thread while another reads it. A mutable copy belongs to one thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kit/date.h"

namespace morvik::kit {

class Value;
class Array;
class Dictionary;
class MutableArray;
class MutableDictionary;

namespace detail {
struct ArrayRep;
struct DictionaryRep;
}  // namespace detail

enum class Kind : uint8_t {
  kAbsent,  ///< nothing: an unset property, a missing key
  kNull,    ///< the platform null object: present, and null
  kBoolean,
  kInteger,   ///< signed 64 bits
  kUnsigned,  ///< an unsigned 64-bit number beyond the signed range
  kDouble,
  kString,  ///< UTF-8 by convention; any bytes are kept as they are
  kDate,
  kArray,
  kDictionary,
};

/// One value, 16 bytes. Default-constructed values are absent.
class Value {
 public:
  constexpr Value() noexcept : bits_{} {}
  Value(const Value& other) noexcept : head_(other.head_), bits_(other.bits_) { retain(); }
  Value(Value&& other) noexcept : head_(other.head_), bits_(other.bits_) { other.head_ = Head{}; }
  Value& operator=(const Value& other) noexcept {
    Value copy(other);
    swap(copy);
    return *this;
  }
  Value& operator=(Value&& other) noexcept {
    swap(other);
    return *this;
  }
  constexpr ~Value() {
    if (head_.shared)
      release();
  }
  void swap(Value& other) noexcept {
    std::swap(head_, other.head_);
    std::swap(bits_, other.bits_);
  }

  Value(bool value) noexcept : head_{Kind::kBoolean, false, 0} { bits_.boolean = value; }            // NOLINT
  Value(int value) noexcept : Value(static_cast<int64_t>(value)) {}                                  // NOLINT
  Value(int64_t value) noexcept : head_{Kind::kInteger, false, 0} { bits_.integer = value; }         // NOLINT
  Value(uint64_t value) noexcept;                                                                    // NOLINT
  Value(double value) noexcept : head_{Kind::kDouble, false, 0} { bits_.number = value; }            // NOLINT
  Value(Date value) noexcept : head_{Kind::kDate, false, 0} { bits_.integer = value.microseconds; }  // NOLINT
  Value(std::string_view text);                                                                      // NOLINT
  Value(const std::string& text) : Value(std::string_view(text)) {}                                  // NOLINT
  Value(const char* text) : Value(std::string_view(text)) {}                                         // NOLINT
  Value(const Array& array) noexcept;                                                                // NOLINT
  Value(const Dictionary& dictionary) noexcept;                                                      // NOLINT
  Value(MutableArray&& array);                                                                       // NOLINT
  Value(MutableDictionary&& dictionary);                                                             // NOLINT

  static Value null() noexcept {
    Value value;
    value.head_.kind = Kind::kNull;
    return value;
  }
  /// A string whose bytes live for the whole process (a literal); nothing is allocated or counted.
  template <size_t N>
  static constexpr Value literal(const char (&text)[N]) noexcept {
    return Value(Literal{}, text, N - 1);
  }

  Kind kind() const noexcept { return head_.kind; }
  bool isAbsent() const noexcept { return head_.kind == Kind::kAbsent; }
  bool isNull() const noexcept { return head_.kind == Kind::kNull; }
  /// Absent or the null object: the null-safe converters treat both alike.
  bool isNil() const noexcept { return head_.kind <= Kind::kNull; }
  bool isBoolean() const noexcept { return head_.kind == Kind::kBoolean; }
  bool isNumber() const noexcept { return head_.kind >= Kind::kInteger && head_.kind <= Kind::kDouble; }
  bool isString() const noexcept { return head_.kind == Kind::kString; }
  bool isDate() const noexcept { return head_.kind == Kind::kDate; }
  bool isArray() const noexcept { return head_.kind == Kind::kArray; }
  bool isDictionary() const noexcept { return head_.kind == Kind::kDictionary; }

  // For any other kind these return false, 0, "" or the empty container.
  bool boolean() const noexcept { return isBoolean() && bits_.boolean; }
  int64_t integer() const noexcept { return head_.kind == Kind::kInteger ? bits_.integer : 0; }
  uint64_t unsignedInteger() const noexcept { return head_.kind == Kind::kUnsigned ? bits_.natural : 0; }
  double number() const noexcept { return head_.kind == Kind::kDouble ? bits_.number : 0.0; }
  Date date() const noexcept { return Date{isDate() ? bits_.integer : 0}; }
  /// Valid while this value, or a copy of it, lives.
  std::string_view string() const noexcept {
    if (!isString())
      return {};
    return {head_.shared ? reinterpret_cast<const char*>(bits_.counter + 1) : bits_.characters, head_.size};
  }
  Array array() const noexcept;
  Dictionary dictionary() const noexcept;

  /// Entry of a dictionary; absent if this is no dictionary or has no such key. Valid while this value lives.
  const Value& operator[](std::string_view key) const noexcept;
  /// Number of elements of an array or entries of a dictionary; 0 for every other kind.
  size_t size() const noexcept;

  /// Deep equality. Numbers are compared by value, whatever their kind (1 == 1.0); a boolean equals only a boolean. A
  /// dictionary's order does not matter. Depth is bounded by how the value was built; readers bound the depth of
  /// documents from outside.
  friend bool operator==(const Value& a, const Value& b);

  /// The same object: same kind and same shared structure (or same number; doubles by their bits). Constant time; used
  /// to find what changed between two versions of a list.
  bool identicalTo(const Value& other) const noexcept;

 private:
  friend class Array;
  friend class Dictionary;
  friend class MutableArray;
  friend class MutableDictionary;
  friend struct detail::ArrayRep;
  friend struct detail::DictionaryRep;

  struct Literal {};
  struct Head {
    Kind kind = Kind::kAbsent;
    bool shared = false;  ///< bits_ point to a counted object
    uint32_t size = 0;    ///< of a string, in bytes
  };
  union Bits {
    constexpr Bits() noexcept : integer(0) {}
    constexpr explicit Bits(const char* text) noexcept : characters(text) {}
    bool boolean;
    int64_t integer;
    uint64_t natural;
    double number;
    const char* characters;
    /// A shared object begins with its counter. Text is followed by its bytes, containers by their members.
    std::atomic<uint32_t>* counter;
  };

  constexpr Value(Literal, const char* text, size_t size) noexcept
      : head_{Kind::kString, false, static_cast<uint32_t>(size)}, bits_(text) {}
  detail::ArrayRep* arrayRep() const noexcept { return reinterpret_cast<detail::ArrayRep*>(bits_.counter); }
  detail::DictionaryRep* dictionaryRep() const noexcept {
    return reinterpret_cast<detail::DictionaryRep*>(bits_.counter);
  }
  void retain() const noexcept {
    if (head_.shared)
      bits_.counter->fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    if (bits_.counter->fetch_sub(1, std::memory_order_acq_rel) == 1)
      destroy();
  }
  void destroy() noexcept;

  Head head_;
  Bits bits_;
};
static_assert(sizeof(Value) == 16);

/// A longer string is truncated (its length is kept in 32 bits).
inline constexpr size_t kMaxStringBytes = 0xFFFFFFF0u;

/// Immutable view of an array value; holds a reference, so it outlives the value it came from.
class Array {
 public:
  /// Walks the elements in order, chunk by chunk. Valid while the array, or a copy of it, lives.
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = Value;
    using difference_type = std::ptrdiff_t;
    using pointer = const Value*;
    using reference = const Value&;
    Iterator() = default;
    reference operator*() const { return *element_; }
    pointer operator->() const { return element_; }
    Iterator& operator++() {
      ++element_;
      if (++index_ == chunk_end_ && index_ != end_)
        enter(segment_ + 1);
      return *this;
    }
    Iterator operator++(int) {
      Iterator old = *this;
      ++*this;
      return old;
    }
    /// Steps over `count` elements, which must exist: a binary search if that ends in another chunk.
    Iterator& operator+=(size_t count) noexcept;
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.index_ == b.index_; }

    /// Index of the element, from 0; the array's size at its end.
    size_t index() const noexcept { return index_; }
    /// How many elements from here on are in the same memory as those from `other` on, as far as both arrays share
    /// chunks. Looks at no element: one step per chunk, none if one array grew from the other. 0 means nothing: the
    /// elements may still be identical.
    size_t sharedRun(const Iterator& other) const noexcept;

   private:
    friend class Array;
    Iterator(const detail::ArrayRep* array, size_t index) noexcept;
    /// Finds the place of index_ in a segment, which must contain it.
    void enter(uint32_t segment) noexcept;
    const detail::ArrayRep* array_ = nullptr;
    const Value* element_ = nullptr;
    size_t index_ = 0;
    size_t chunk_end_ = 0;  ///< index of the first element after the chunk
    size_t end_ = 0;
    uint32_t segment_ = 0;
  };

  Array() = default;
  Array(std::initializer_list<Value> elements);
  size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  /// Element at `index`; absent past the end. Valid while this array lives.
  const Value& operator[](size_t index) const noexcept;
  Iterator begin() const noexcept;
  Iterator end() const noexcept;
  /// How many leading elements are identical in both arrays. Constant time if one came from the other by appending;
  /// else shared chunks are compared as one.
  size_t sharedPrefix(const Array& other) const noexcept;

 private:
  friend class Value;
  friend class MutableArray;
  explicit Array(Value value) noexcept : value_(std::move(value)) {}
  /// The representation; null for an array that never had an element.
  const detail::ArrayRep* rep() const noexcept { return value_.head_.shared ? value_.arrayRep() : nullptr; }
  Value value_;
};

struct Entry {
  Value key;  ///< always a string
  Value value;
};

/// Immutable view of a dictionary value; small and flat, in insertion order.
class Dictionary {
 public:
  Dictionary() = default;
  Dictionary(std::initializer_list<std::pair<Value, Value>> entries);
  /// A dictionary of these entries, whose keys must differ, in one allocation; the entries are moved from.
  static Dictionary fromEntries(std::span<Entry> entries);
  size_t size() const noexcept;
  bool empty() const noexcept { return size() == 0; }
  /// The entry's value; absent if there is none. Valid while this dictionary lives.
  const Value& operator[](std::string_view key) const noexcept;
  bool contains(std::string_view key) const noexcept;
  const Entry* begin() const noexcept;
  const Entry* end() const noexcept { return begin() + size(); }

 private:
  friend class Value;
  friend class MutableDictionary;
  explicit Dictionary(Value value) noexcept : value_(std::move(value)) {}
  Value value_;
};

/// A mutable copy of an array. Taken in constant time; only changed parts are copied.
class MutableArray {
 public:
  MutableArray() = default;
  /// A copy of the value's array; empty for any other kind.
  explicit MutableArray(const Value& value);
  explicit MutableArray(const Array& array) : MutableArray(array.value_) {}

  size_t size() const noexcept { return view_.size(); }
  bool empty() const noexcept { return size() == 0; }
  const Value& operator[](size_t index) const noexcept { return view_[index]; }
  /// Appends; constant time even on a copy of a long array. (An element that contains arrays costs one more pointer per
  /// 64 elements while other handles share this array: it might contain this very one.)
  void append(Value element);
  void removeAll() noexcept { view_ = Array(); }
  /// Removes all elements that equal `element`; returns how many.
  size_t removeAllEqualTo(const Value& element);
  /// Removes the element at `index`; no effect past the end. Costs one or two chunks of 64 elements and a pointer per
  /// 64 elements, however long the array.
  void removeAt(size_t index);
  /// Keeps the elements for which `keep(element)` is true, in order; asked once for each, first to last. Chunks of 64
  /// elements that lose none stay shared. If `keep` throws, the array is unchanged.
  template <class Keep>
  void retainIf(Keep keep);
  /// Replaces the element at `index`; no effect past the end. Costs a chunk of 64 elements and a pointer per 64
  /// elements.
  void replaceAt(size_t index, Value element);

 private:
  friend class Value;
  /// `indices` are ascending, unique, and below size().
  void removeAllAt(std::span<const size_t> indices);
  /// Takes over the caller's reference; the previous one has been handed on.
  void become(detail::ArrayRep* array) noexcept;
  Array view_;
};

/// A mutable copy of a dictionary.
class MutableDictionary {
 public:
  MutableDictionary() = default;
  explicit MutableDictionary(const Value& value);
  explicit MutableDictionary(const Dictionary& dictionary);
  /// Reserves space for that many entries, to build a dictionary in one allocation.
  explicit MutableDictionary(size_t capacity) { entries_.reserve(capacity); }

  size_t size() const noexcept { return entries_.size(); }
  const Value& operator[](std::string_view key) const noexcept;
  /// Sets or replaces; the order is that of first insertion. An absent value removes the key.
  void set(Value key, Value value);
  /// Appends without a lookup; the key must not exist yet (for builders of fixed records).
  void add(Value key, Value value) { entries_.push_back({std::move(key), std::move(value)}); }
  void remove(std::string_view key);
  const std::vector<Entry>& entries() const noexcept { return entries_; }

 private:
  friend class Value;
  std::vector<Entry> entries_;
};

// --------------------------------------------------------------------------- memory layout of containers; for inlining

namespace detail {

/// Elements of one chunk. A mutable copy of a long array copies at most one chunk and the row of chunk pointers.
inline constexpr uint32_t kChunkCapacity = 64;

// A run of elements. `used` slots are constructed; a handle that ends exactly at `used` may claim the next one, which
// no older handle looks at.
struct alignas(Value) Chunk {
  std::atomic<uint32_t> references;
  std::atomic<uint32_t> used;
  uint32_t capacity;

  Value* items() { return reinterpret_cast<Value*>(this + 1); }
  static Chunk* make(uint32_t capacity);
  static Chunk* copyOf(Chunk* source, uint32_t count, uint32_t capacity);
  void retain() { references.fetch_add(1, std::memory_order_relaxed); }
  void release();
};
static_assert(sizeof(Chunk) % alignof(Value) == 0);

// A chunk's place in an array. How many of its elements belong to the array follows from the start of the next one,
// never from the chunk: in another array the same chunk may be the last one, and grow.
struct Segment {
  Chunk* chunk;
  size_t start;  ///< elements before it
};

// The row of chunks, with the same rule for claiming the next place. No chunk is empty, and no two neighbours would fit
// into one chunk: removing elements merges them. So a row is at most about twice as long as with full chunks. All
// handles of a row see the same elements, each up to its size.
struct alignas(Segment) Spine {
  std::atomic<uint32_t> references;
  std::atomic<uint32_t> used;
  uint32_t capacity;
  bool regular;  ///< all chunks but the last are full: an element's place is a division

  Segment* segments() { return reinterpret_cast<Segment*>(this + 1); }
  static Spine* make(uint32_t capacity);
  static Spine* copyOf(Spine* source, uint32_t count, uint32_t capacity);
  void retain() { references.fetch_add(1, std::memory_order_relaxed); }
  void release();
};
static_assert(sizeof(Spine) % alignof(Segment) == 0);

// One handle's view: the first `size` elements of a row. They are in its first `segment_count` chunks; anything after
// these belongs to newer handles and may be written at any time.
struct ArrayRep {
  std::atomic<uint32_t> references;
  uint32_t segment_count;
  Spine* spine;
  size_t size;

  static ArrayRep* make(Spine* spine, uint32_t segment_count, size_t size) {
    return new ArrayRep{1, segment_count, spine, size};
  }
  ~ArrayRep() { spine->release(); }

  /// The segment of the element at `index`, which must be below `size`.
  uint32_t segmentOf(size_t index) const {
    return spine->regular ? static_cast<uint32_t>(index / kChunkCapacity) : searchedSegmentOf(index);
  }
  /// Index of the first element after a segment.
  size_t endOf(uint32_t segment) const {
    return segment + 1 < segment_count ? spine->segments()[segment + 1].start : size;
  }
  /// Elements of a segment that belong to this view.
  uint32_t countOf(uint32_t segment) const {
    return static_cast<uint32_t>(endOf(segment) - spine->segments()[segment].start);
  }
  const Value& at(size_t index) const {
    if (spine->regular)
      return spine->segments()[index / kChunkCapacity].chunk->items()[index % kChunkCapacity];
    const Segment& segment = spine->segments()[searchedSegmentOf(index)];
    return segment.chunk->items()[index - segment.start];
  }

  /// A view with one more element. `before` itself if nobody else holds it, else a new one; the caller's reference to
  /// `before` is taken over in both cases.
  static ArrayRep* appended(ArrayRep* before, Value&& element);
  /// A new view without the elements at `indices` (ascending); null if none is left. Chunks that lose none are shared,
  /// unless they fit into one with a neighbour that does.
  static ArrayRep* without(const ArrayRep& before, std::span<const size_t> indices);
  /// A new view with another element at `index`, which must be below the size.
  static ArrayRep* replaced(const ArrayRep& before, size_t index, Value&& element);

 private:
  uint32_t searchedSegmentOf(size_t index) const;
  /// The view of `size` elements in `row_of_chunks`, whose reference is taken over.
  static ArrayRep* becoming(ArrayRep* before, Spine* row_of_chunks, uint32_t segment_count, size_t size);
};

// A dictionary: its entries follow its header, so that one record is one allocation.
struct DictionaryRep {
  std::atomic<uint32_t> references;
  uint32_t size;

  Entry* entries() { return reinterpret_cast<Entry*>(this + 1); }
  static DictionaryRep* make(std::span<Entry> source);
  static void destroy(DictionaryRep* rep);
};
static_assert(sizeof(DictionaryRep) % alignof(Entry) == 0);

/// Returned by lookups that find nothing.
inline constinit const Value kAbsentValue;

}  // namespace detail

inline const Value& Value::operator[](std::string_view key) const noexcept {
  if (!isDictionary() || !head_.shared)
    return detail::kAbsentValue;
  const Entry* entry = dictionaryRep()->entries();
  for (const Entry* end = entry + dictionaryRep()->size; entry != end; ++entry) {
    if (entry->key.string() == key)
      return entry->value;
  }
  return detail::kAbsentValue;
}

inline size_t Value::size() const noexcept {
  if (!head_.shared)
    return 0;
  if (isArray())
    return arrayRep()->size;
  return isDictionary() ? dictionaryRep()->size : 0;
}

inline size_t Array::size() const noexcept {
  return value_.size();
}

inline const Value& Array::operator[](size_t index) const noexcept {
  return index < size() ? value_.arrayRep()->at(index) : detail::kAbsentValue;
}

inline Array::Iterator::Iterator(const detail::ArrayRep* array, size_t index) noexcept
    : array_(array), index_(index), chunk_end_(index), end_(array == nullptr ? 0 : array->size) {
  if (index_ != end_)
    enter(array_->segmentOf(index_));
}

inline void Array::Iterator::enter(uint32_t segment) noexcept {
  const detail::Segment& entered = array_->spine->segments()[segment];
  segment_ = segment;
  element_ = entered.chunk->items() + (index_ - entered.start);
  chunk_end_ = array_->endOf(segment);
}

inline Array::Iterator& Array::Iterator::operator+=(size_t count) noexcept {
  index_ += count;
  if (index_ < chunk_end_)
    element_ += count;
  else if (index_ != end_)
    enter(array_->segmentOf(index_));
  else
    chunk_end_ = end_;
  return *this;
}

inline Array::Iterator Array::begin() const noexcept {
  return {rep(), 0};
}

inline Array::Iterator Array::end() const noexcept {
  return {rep(), size()};
}

inline size_t Dictionary::size() const noexcept {
  return value_.size();
}
inline const Value& Dictionary::operator[](std::string_view key) const noexcept {
  return value_[key];
}
inline const Entry* Dictionary::begin() const noexcept {
  return size() == 0 ? nullptr : value_.dictionaryRep()->entries();
}

template <class Keep>
void MutableArray::retainIf(Keep keep) {
  std::vector<size_t> removed;
  size_t index = 0;
  for (const Value& element : view_) {
    if (!keep(element))
      removed.push_back(index);
    ++index;
  }
  removeAllAt(removed);
}

}  // namespace morvik::kit
