// Values that no field of an answer expects.
#pragma once

#include <limits>
#include <vector>

#include "kit/value.h"

namespace morvik::testing {

inline std::vector<kit::Value> oddValues() {
  using kit::Array;
  using kit::Dictionary;
  using kit::Value;
  Value nested = 1;
  for (int i = 0; i < 200; ++i)
    nested = Array{nested};
  return {Value::null(),
          true,
          false,
          0,
          -1,
          std::numeric_limits<int64_t>::max(),
          std::numeric_limits<int64_t>::min(),
          std::numeric_limits<uint64_t>::max(),
          1e300,
          -1e300,
          0.5,
          "",
          "text",
          "99999999999999999999999",
          "\xFF\xFE",
          Array{},
          Array{Value::null()},
          Dictionary{},
          Dictionary{{"referralKey", "x"}},
          nested};
}

}  // namespace morvik::testing
