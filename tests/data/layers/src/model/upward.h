// A model header that reaches up to the host floor: the layer check must refuse it.
#pragma once

#include "host/krxset.h"
#include "model/krxdata.h"
