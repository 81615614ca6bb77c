// Checks for fuzzers: a finding ends the process, and a world's log shows whether a guard caught something.
#pragma once

#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

#include "testing/world.h"

namespace morvik::fuzz {

inline void require(bool holds, const char* what) {
  if (holds)
    return;
  std::cerr << what << '\n';
  std::abort();
}

/// Whether a guard wrote: only its lines begin with "! " or with a bracket whose last word is "error".
inline bool hasThrown(const testing::TestWorld& world) {
  constexpr std::string_view kBracket = "MRVK_QA-[";
  for (const std::string& message : world.log.messages()) {
    if (message.starts_with("! MRVK_QA-"))
      return true;
    if (message.starts_with(kBracket) && message.substr(0, message.find(']')).ends_with(" error"))
      return true;
  }
  return false;
}

}  // namespace morvik::fuzz
