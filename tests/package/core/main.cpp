// An app that links only the core.

#include <iostream>
#include <string>
#include <variant>

#include "kit/value.h"
#include "services/json_writer.h"

int main() {
  const morvik::kit::Value record = morvik::kit::Dictionary{{"name", "first"}, {"count", 1}};
  const auto text = morvik::services::writeJson(record);
  if (std::get<std::string>(text) != R"({"name":"first","count":1})")
    return 1;
  std::cout << "the core works\n";
  return 0;
}
