#include "services/MorvikGVUserDefaults.h"

#include <mutex>
#include <utility>

#include "services/converters.h"

namespace morvik::services {
namespace {

constexpr int absent = 0;  // strings, dates and arrays have no unset number

constexpr StoreProperty kProperties[] = {
#define MORVIK_STORE_PROPERTY(name, setter, type, unset) {#name, PropertyType::k##type, unset},
#include "services/store_properties.inc"
#undef MORVIK_STORE_PROPERTY
};

// Converts a stored value to the accessor's type. A value of another kind counts as never set.
struct Reader {
  const kit::Value& value;
  int unset;

  void read(int64_t& out) const { out = value.isNumber() ? checkIntegerNilToZero(value) : unset; }
  void read(int32_t& out) const { out = value.isNumber() ? checkNilToZero(value) : unset; }
  void read(bool& out) const { out = value.isBoolean() ? value.boolean() : unset != 0; }
  void read(std::optional<std::string>& out) const {
    if (value.isString())
      out = std::string(value.string());
  }
  void read(std::optional<kit::Date>& out) const {
    if (value.isDate())
      out = value.date();
  }
  void read(kit::Value& out) const {
    if (value.isArray())
      out = value;
  }
};

template <class Type>
Type readAs(const kit::Value& value, int unset) {
  Type out{};
  Reader{value, unset}.read(out);
  return out;
}

kit::Value asValue(int64_t value) {
  return kit::Value(value);
}
kit::Value asValue(int32_t value) {
  return kit::Value(int64_t{value});
}
kit::Value asValue(bool value) {
  return kit::Value(value);
}
kit::Value asValue(const std::optional<std::string>& value) {
  return value ? kit::Value(*value) : kit::Value();
}
kit::Value asValue(const std::optional<kit::Date>& value) {
  return value ? kit::Value(*value) : kit::Value();
}
kit::Value asValue(const kit::Value& value) {
  return value.isArray() ? value : kit::Value();
}

}  // namespace

std::span<const StoreProperty> storeProperties() {
  return kProperties;
}

#define MORVIK_STORE_PROPERTY(name, setter, type, unset)                 \
  accessor::type MorvikGVUserDefaults::name() const {                    \
    return readAs<accessor::type>(store_->get(#name), unset);            \
  }                                                                      \
  void MorvikGVUserDefaults::setter(const accessor::type& value) const { \
    store_->set(#name, asValue(value));                                  \
  }
#include "services/store_properties.inc"
#undef MORVIK_STORE_PROPERTY

std::optional<std::string> MorvikGVUserDefaults::tryGetString(const char* property_name) const {
  const std::optional<kit::Value> stored = store_->tryGet(property_name);
  return stored ? readAs<accessor::String>(*stored, absent) : std::nullopt;
}

bool MorvikGVUserDefaults::tryAppendAndSynchronize(const char* property_name, const kit::Value& record) const {
  const std::unique_lock hold(lock_->mutex, std::try_to_lock);
  if (!hold.owns_lock())
    return false;
  const std::optional<kit::Value> stored = store_->tryGet(property_name);
  if (!stored)
    return false;
  kit::MutableArray list(*stored);
  list.append(record);
  return store_->trySetAndSynchronize(property_name, kit::Value(std::move(list)));
}

int64_t MorvikGVUserDefaults::integerForKey(std::string_view key) const {
  return checkIntegerNilToZero(store_->get(key));
}

void MorvikGVUserDefaults::setInteger(int64_t value, std::string_view key) const {
  store_->set(key, value);
}

kit::Value MorvikGVUserDefaults::arrayForKey(std::string_view key) const {
  return asValue(store_->get(key));
}

void MorvikGVUserDefaults::setArray(const kit::Value& value, std::string_view key) const {
  store_->set(key, asValue(value));
}

std::optional<kit::Url> MorvikGVUserDefaults::URLForKey(std::string_view key) const {
  const kit::Value stored = store_->get(key);
  if (!stored.isString())
    return std::nullopt;
  return kit::Url(std::string(stored.string()));
}

void MorvikGVUserDefaults::setURL(const std::optional<kit::Url>& url, std::string_view key) const {
  store_->set(key, url ? kit::Value(url->absoluteString()) : kit::Value());
}

}  // namespace morvik::services
