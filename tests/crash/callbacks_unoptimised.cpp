#define CALLBACKS unoptimisedCallbacks
#include "tests/crash/callbacks_made.h"
