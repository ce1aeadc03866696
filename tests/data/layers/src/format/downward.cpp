// Includes that skip floors downward and the public header: accepted.
#include "base/krxmsg.h"
#include "format/krxread.h"
#include "krx/krx.h"
#include "mesh/krxfaces.h"
#include "processing/krxinvar.h"
