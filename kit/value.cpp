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
constexpr uint32_t kFirstSpineCapacity = 2;

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
  void* memory = ::operator new(sizeof(Spine) + capacity * sizeof(Segment));
  return new (memory) Spine{1, 0, capacity, true};
}

Spine* Spine::copyOf(Spine* source, uint32_t count, uint32_t capacity) {
  Spine* spine = make(capacity);
  for (uint32_t i = 0; i < count; ++i) {
    const Segment& segment = source->segments()[i];
    segment.chunk->retain();
    new (spine->segments() + i) Segment(segment);
  }
  spine->regular = source->regular;
  spine->used.store(count, std::memory_order_relaxed);
  return spine;
}

void Spine::release() {
  if (references.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  const uint32_t count = used.load(std::memory_order_relaxed);
  for (uint32_t i = 0; i < count; ++i)
    segments()[i].chunk->release();
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

/// A row that shares the first `count` chunks of `before`, with space for one more at its end.
Spine* spineWithRoom(Spine* before, uint32_t count) {
  const uint32_t capacity = before->capacity > count ? before->capacity : grown(before->capacity, kFirstSpineCapacity);
  return Spine::copyOf(before, count, capacity);
}

/// Depth to which nested dictionaries are searched for an array; deeper ones are assumed to contain one.
constexpr unsigned kMaxSearchDepth = 16;

/// Whether an array can be reached from `value`. Empty arrays contain nothing.
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

struct Release {
  template <class Counted>
  void operator()(Counted* counted) const {
    counted->release();
  }
};
template <class Counted>
using Owned = std::unique_ptr<Counted, Release>;

void place(Chunk* chunk, uint32_t slot, Value&& element) {
  new (chunk->items() + slot) Value(std::move(element));
}

void place(Spine* spine, uint32_t at, const Segment& segment) {
  new (spine->segments() + at) Segment(segment);
}

}  // namespace

ArrayRep* ArrayRep::becoming(ArrayRep* before, Spine* row_of_chunks, uint32_t segment_count, size_t size) {
  if (before->references.load(std::memory_order_acquire) == 1) {
    before->spine->release();
    before->spine = row_of_chunks;
    before->segment_count = segment_count;
    before->size = size;
    return before;
  }
  Owned<Spine> row(row_of_chunks);  // memory may run out
  ArrayRep* const after = make(row.get(), segment_count, size);
  static_cast<void>(row.release());
  if (before->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    delete before;
  return after;
}

ArrayRep* ArrayRep::appended(ArrayRep* before, Value&& element) {
  if (before == nullptr) {
    // Memory may run out at each of the three.
    Owned<Spine> spine(Spine::make(kFirstSpineCapacity));
    Owned<Chunk> chunk(Chunk::make(kFirstChunkCapacity));
    place(chunk.get(), 0, std::move(element));
    chunk->used.store(1, std::memory_order_relaxed);
    place(spine.get(), 0, {chunk.release(), 0});
    spine->used.store(1, std::memory_order_relaxed);
    ArrayRep* const first = make(spine.get(), 1, 1);
    static_cast<void>(spine.release());
    return first;
  }
  const size_t size = before->size;
  const uint32_t count = before->segment_count;
  Spine* spine = before->spine;
  // An element from which this very row can be reached must not be put into it: the two would keep each other alive for
  // ever. If nobody else holds the row, the element does not either.
  const bool held_once = isHeldOnce(before->references) && isHeldOnce(spine->references);
  const Segment last = spine->segments()[count - 1];
  const auto slot = static_cast<uint32_t>(size - last.start);
  if (slot < kChunkCapacity) {
    const bool may_take_it = (held_once && isHeldOnce(last.chunk->references)) || !mayReachAnArray(element);
    if (slot < last.chunk->capacity && may_take_it && claim(last.chunk->used, slot)) {
      place(last.chunk, slot, std::move(element));
      spine->retain();
      return becoming(before, spine, count, size + 1);
    }
    // Another handle took the slot or may be in the element, or the first small chunk is full: this handle gets a new
    // chunk and row.
    const uint32_t wanted = slot < last.chunk->capacity ? last.chunk->capacity : last.chunk->capacity * 2;
    Owned<Chunk> chunk(Chunk::copyOf(last.chunk, slot, wanted < kChunkCapacity ? wanted : kChunkCapacity));
    place(chunk.get(), slot, std::move(element));
    chunk->used.store(slot + 1, std::memory_order_relaxed);
    Spine* own = spineWithRoom(spine, count - 1);
    place(own, count - 1, {chunk.release(), last.start});
    own->used.store(count, std::memory_order_relaxed);
    return becoming(before, own, count, size + 1);
  }
  const bool may_take_it = held_once || !mayReachAnArray(element);
  Owned<Chunk> chunk(Chunk::make(kChunkCapacity));
  place(chunk.get(), 0, std::move(element));
  chunk->used.store(1, std::memory_order_relaxed);
  if (count < spine->capacity && may_take_it && claim(spine->used, count)) {
    place(spine, count, {chunk.release(), size});
    spine->retain();
    return becoming(before, spine, count + 1, size + 1);
  }
  Spine* own = spineWithRoom(spine, count);
  place(own, count, {chunk.release(), size});
  own->used.store(count + 1, std::memory_order_relaxed);
  return becoming(before, own, count + 1, size + 1);
}

uint32_t ArrayRep::searchedSegmentOf(size_t index) const {
  // No chunk holds more than its capacity, so the element's chunk is at least this far from the first.
  const Segment* first = spine->segments() + index / kChunkCapacity;
  const Segment* behind =
      std::upper_bound(first, static_cast<const Segment*>(spine->segments() + segment_count), index,
                       [](size_t wanted, const Segment& segment) { return wanted < segment.start; });
  return static_cast<uint32_t>(behind - spine->segments()) - 1;
}

namespace {

/// A row of chunks being built from shared chunks and copied elements. Nobody else sees it until it is taken, so copied
/// slots need no claiming, and no element can reach it.
class SpineBuilder {
 public:
  /// Space for at most `segment_count` chunks, and for one more that is appended later.
  explicit SpineBuilder(uint32_t segment_count) : spine_(Spine::make(std::bit_ceil(segment_count + 1))) {}
  ~SpineBuilder() {
    if (spine_ != nullptr)
      spine_->release();
  }
  SpineBuilder(const SpineBuilder&) = delete;
  SpineBuilder& operator=(const SpineBuilder&) = delete;

  /// Adds the first `count` elements of a chunk: copied if they fit into the last chunk, else the chunk itself.
  void share(Chunk* chunk, uint32_t count) {
    if (fit(count)) {
      makeRoom(count);
      for (uint32_t i = 0; i < count; ++i)
        copy(chunk->items()[i]);
      return;
    }
    chunk->retain();
    push(chunk);
    last_is_own_ = false;
    size_ += count;
  }
  /// Space for `count` elements in one chunk, the last one or a new one; `count` calls of copy() must follow.
  void makeRoom(uint32_t count) {
    if (!fit(count)) {
      push(Chunk::make(capacityFor(count)));
    } else if (!last_is_own_ || last().chunk->capacity < lastCount() + count) {
      Chunk* own = Chunk::copyOf(last().chunk, lastCount(), capacityFor(lastCount() + count));
      last().chunk->release();
      last().chunk = own;
    }
    last_is_own_ = true;
  }
  void copy(const Value& element) {
    place(last().chunk, lastCount(), Value(element));
    ++size_;
    last().chunk->used.store(lastCount(), std::memory_order_relaxed);
  }
  /// The view of all elements; null if there are none.
  ArrayRep* take() {
    const uint32_t count = segmentCount();
    if (count == 0)
      return nullptr;
    ArrayRep* const view = ArrayRep::make(spine_, count, size_);
    spine_ = nullptr;
    return view;
  }

 private:
  static uint32_t capacityFor(uint32_t count) { return std::max(kFirstChunkCapacity, std::bit_ceil(count)); }
  uint32_t segmentCount() const { return spine_->used.load(std::memory_order_relaxed); }
  Segment& last() { return spine_->segments()[segmentCount() - 1]; }
  uint32_t lastCount() { return static_cast<uint32_t>(size_ - last().start); }
  bool fit(uint32_t count) { return segmentCount() != 0 && lastCount() + count <= kChunkCapacity; }
  void push(Chunk* chunk) {
    const uint32_t count = segmentCount();
    if (size_ != size_t{count} * kChunkCapacity)
      spine_->regular = false;
    place(spine_, count, {chunk, size_});
    spine_->used.store(count + 1, std::memory_order_relaxed);
  }

  Spine* spine_;
  size_t size_ = 0;
  bool last_is_own_ = false;
};

}  // namespace

ArrayRep* ArrayRep::without(const ArrayRep& before, std::span<const size_t> indices) {
  SpineBuilder after(before.segment_count);
  auto next = indices.begin();
  for (uint32_t i = 0; i < before.segment_count; ++i) {
    const Segment segment = before.spine->segments()[i];
    const uint32_t count = before.countOf(i);
    const auto behind = std::find_if(next, indices.end(), [&](size_t index) { return index >= segment.start + count; });
    const auto removed = static_cast<uint32_t>(behind - next);
    if (removed == 0) {
      after.share(segment.chunk, count);
    } else if (removed < count) {
      after.makeRoom(count - removed);
      for (uint32_t slot = 0; slot < count; ++slot) {
        if (next != behind && *next == segment.start + slot)
          ++next;
        else
          after.copy(segment.chunk->items()[slot]);
      }
    }
    next = behind;
  }
  return after.take();
}

ArrayRep* ArrayRep::replaced(const ArrayRep& before, size_t index, Value&& element) {
  const uint32_t at = before.segmentOf(index);
  Owned<Spine> spine(Spine::copyOf(before.spine, before.segment_count, before.spine->capacity));
  Segment& segment = spine->segments()[at];
  Chunk* own = Chunk::copyOf(segment.chunk, before.countOf(at), segment.chunk->capacity);
  own->items()[index - segment.start] = std::move(element);
  segment.chunk->release();
  segment.chunk = own;
  ArrayRep* const after = make(spine.get(), before.segment_count, before.size);
  static_cast<void>(spine.release());
  return after;
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

/// An unsigned number that fits is stored as a signed one, so that equal numbers have one form.
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
Value::Value(MutableArray&& array) : Value(array.view_) {}
Value::Value(MutableDictionary&& dictionary) {
  head_.kind = Kind::kDictionary;
  if (dictionary.entries_.empty())
    return;
  bits_.counter = &detail::DictionaryRep::make(dictionary.entries_)->references;
  head_.shared = true;
  dictionary.entries_.clear();
}

namespace {

/// A container with no handles left.
struct DeadContainer {
  detail::ArrayRep* array;
  detail::DictionaryRep* dictionary;

  void destroy() const {
    delete array;
    if (dictionary != nullptr)
      detail::DictionaryRep::destroy(dictionary);
  }
};

/// Nested destructions. Deeper containers are queued, so that no depth of nesting exhausts the stack.
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
      // By bits: not-a-number is identical to itself, and a zero with another sign is not identical.
      return std::bit_cast<uint64_t>(bits_.number) == std::bit_cast<uint64_t>(other.bits_.number);
    default:  // containers
      return head_.shared == other.head_.shared && (!head_.shared || bits_.counter == other.bits_.counter);
  }
}

namespace {

/// -1, 0, 1, or 2 if they cannot be compared (not a number).
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
  return false;  // an unsigned number beyond the signed range never equals a signed one
}

bool equalArrays(const Array& a, const Array& b) {
  if (a.size() != b.size())
    return false;
  const size_t shared = a.sharedPrefix(b);
  return std::equal(a.begin() += shared, a.end(), b.begin() += shared);
}

/// Dictionaries built in the same way have their keys in the same order; only others need lookups.
bool equalDictionaries(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size())
    return false;
  auto same_place = b.begin();
  for (const Entry& entry : a) {
    const std::string_view key = entry.key.string();
    const bool is_at_same_place = same_place->key.string() == key;
    if (!is_at_same_place && !b.contains(key))
      return false;
    if (!((is_at_same_place ? same_place->value : b[key]) == entry.value))
      return false;
    ++same_place;
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

size_t Array::Iterator::sharedRun(const Iterator& other) const noexcept {
  if (index_ == end_ || other.index_ == other.end_)
    return 0;
  if (array_->spine == other.array_->spine && index_ == other.index_)
    return std::min(end_, other.end_) - index_;
  if (element_ != other.element_)
    return 0;
  // Segments are at equal places as long as those before them were equally long. Only the last one may differ.
  const detail::Segment* mine = array_->spine->segments();
  const detail::Segment* theirs = other.array_->spine->segments();
  const size_t distance = index_ - other.index_;
  uint32_t i = segment_ + 1;
  uint32_t j = other.segment_ + 1;
  while (i < array_->segment_count && j < other.array_->segment_count && mine[i].chunk == theirs[j].chunk &&
         mine[i].start - theirs[j].start == distance) {
    ++i;
    ++j;
  }
  return std::min(array_->endOf(i - 1) - index_, other.array_->endOf(j - 1) - other.index_);
}

size_t Array::sharedPrefix(const Array& other) const noexcept {
  Iterator mine = begin();
  Iterator theirs = other.begin();
  const Iterator my_end = end();
  const Iterator their_end = other.end();
  while (mine != my_end && theirs != their_end) {
    const size_t shared = mine.sharedRun(theirs);
    if (shared == 0 && !mine->identicalTo(*theirs))
      break;
    const size_t step = std::max(shared, size_t{1});
    mine += step;
    theirs += step;
  }
  return mine.index();
}

MutableArray::MutableArray(const Value& value) : view_(value.array()) {}

void MutableArray::become(detail::ArrayRep* array) noexcept {
  Value& held = view_.value_;
  held.bits_.counter = &array->references;
  held.head_.kind = Kind::kArray;
  held.head_.shared = true;
}

void MutableArray::append(Value element) {
  detail::ArrayRep* before = view_.empty() ? nullptr : view_.value_.arrayRep();
  become(detail::ArrayRep::appended(before, std::move(element)));
}

void MutableArray::removeAllAt(std::span<const size_t> indices) {
  if (indices.empty())
    return;
  detail::ArrayRep* left = detail::ArrayRep::without(*view_.rep(), indices);
  view_ = Array();
  if (left != nullptr)
    become(left);
}

void MutableArray::removeAt(size_t index) {
  if (index < size())
    removeAllAt({&index, 1});
}

size_t MutableArray::removeAllEqualTo(const Value& element) {
  const size_t before = size();
  retainIf([&element](const Value& candidate) { return !(candidate == element); });
  return before - size();
}

void MutableArray::replaceAt(size_t index, Value element) {
  if (index >= size())
    return;
  detail::ArrayRep* after = detail::ArrayRep::replaced(*view_.rep(), index, std::move(element));
  view_ = Array();
  become(after);
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
