/* Umbrella header of libhadra_sysmgr.so: includes every public header. */
#ifndef HADRA_HADRA_H
#define HADRA_HADRA_H

#include "hadra/types.h"
#include "hadra/handle.h"
#include "hadra/registry.h"
#include "hadra/diag.h"
#include "hadra/ident.h"
#include "hadra/sync.h"
#include "hadra/sdb.h"
#include "hadra/lifecycle.h"
#include "hadra/pss.h"
#include "hadra/sysmgrcb.h"

#endif
