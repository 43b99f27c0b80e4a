#include "dicom/condition.h"

#include <cstdio>

#include "dcmtk/dcmnet/dimse.h"

namespace tarvo {

void dump_condition(const OFCondition& condition) {
    OFString text;
    std::fprintf(stderr, "%s\n", DimseCondition::dump(text, condition).c_str());
}

}  // namespace tarvo
