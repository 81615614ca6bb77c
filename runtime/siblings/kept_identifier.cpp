#include "runtime/siblings/kept_identifier.h"

#include "services/uuid.h"

namespace morvik::runtime {

std::string keptIdentifier(kit::KeyValueStore& store, std::string_view key, kit::Random& random) {
  const kit::Value stored = store.get(key);
  if (!stored.string().empty())
    return std::string(stored.string());
  std::string made = services::makeRandomUuid(random);
  store.set(key, made);
  return made;
}

}  // namespace morvik::runtime
