// What an expectation is compared with: the counted events, or the requests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "apps/service/expect/expression.h"

namespace morvik_service {

/// The first words of fields: those of an event, then those of a request.
const std::vector<std::string_view>& eventFields();
const std::vector<std::string_view>& allFields();

/// One event of a request, or a request as a whole.
struct Item {
  const Json& request;          ///< as GET /inspect/requests returns it
  const Json* event = nullptr;  ///< one of its activities, or nullptr for the request as a whole
};

/// The items of a request: with `events`, each event of a request that was counted; else the request.
std::vector<Item> itemsOf(const Json& request, bool events);

/// The value of a field. Names of headers compare without case; of the answer, its body as JSON; a field of a
/// structured parameter, the JSON text of an object in `param`, by its name after a dot.
Json readField(const Item& item, const FieldPath& path);

/// "request 12, event shop/purchase (sku-7)".
std::string describeItem(const Item& item);

/// The id by which an item is counted once: an event's; "" for an item that counts each time.
std::string identityOf(const Item& item);

}  // namespace morvik_service
