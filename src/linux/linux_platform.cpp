// Linux platform services that need no class of their own.
#include "linux/monotonic_clock.h"
