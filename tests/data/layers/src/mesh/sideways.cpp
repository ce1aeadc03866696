// A mesh source that includes processing, its neighbour on the same floor: refused.
#include "base/krxmsg.h"
#include "processing/krxunits.h"
