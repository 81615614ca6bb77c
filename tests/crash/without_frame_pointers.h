// Code of an app as most are compiled: it leaves no frame pointers.
#pragma once

namespace shop {

/// Faults within a function of the C library.
void readNothingInTheLibrary();

}  // namespace shop
