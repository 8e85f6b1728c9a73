#include "cmp_dbglog.h"
