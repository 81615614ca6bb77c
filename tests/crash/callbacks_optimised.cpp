#define CALLBACKS optimisedCallbacks
#include "tests/crash/callbacks_made.h"
