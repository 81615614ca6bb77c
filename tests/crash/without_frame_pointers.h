// App code as it is usually compiled: without frame pointers.
#pragma once

namespace shop {

/// Faults within a function of the C library.
void readNothingInTheLibrary();

}  // namespace shop
