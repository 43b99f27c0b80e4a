// The toolkit's own words for what went wrong.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/ofstd/ofcond.h"

namespace tarvo {

// Writes a condition to the console.
void dump_condition(const OFCondition& condition);

}  // namespace tarvo
