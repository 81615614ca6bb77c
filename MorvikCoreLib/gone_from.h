// What a stored list lost.
#pragma once

#include "kit/value.h"

namespace morvik {

/// The elements of `before` that are not, as the very same, in `after`, which came of it by removing some.
kit::Array goneFrom(const kit::Value& before, const kit::Value& after);

}  // namespace morvik
