// Trace lines of the toolkit layer with a fixed text. For the sources in dicom/ only.
#pragma once

#include "support/debug_trace.h"

namespace tarvo {

inline void trace_toolkit_failure(const char* text) {
    debug_trace(trace_dicom_toolkit, trace_failure, "%s", text);
}

inline void trace_toolkit_information(const char* text) {
    debug_trace(trace_dicom_toolkit, trace_information, "%s", text);
}

}  // namespace tarvo
