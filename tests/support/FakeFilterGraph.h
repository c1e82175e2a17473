// The filter-graph stand-in now lives with the other COM fakes.
#include "FakeCom.h"
