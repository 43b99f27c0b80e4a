// Collects the trace lines of the toolkit layer, anew in each test.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/debug_trace.h"

class TraceCapture : public testing::EmptyTestEventListener {
  public:
    TraceCapture() {
        tarvo::debug_trace_enable(tarvo::trace_dicom_toolkit,
                                  tarvo::trace_failure | tarvo::trace_information, stream_);
    }

    // What was traced since the last call, each line as "F:message\n" for a failure, "I:message\n"
    // for an information, without the time.
    std::string take() {
        std::fflush(stream_);
        const std::string all = text_;
        std::string lines;
        while (taken_ < all.size()) {
            const std::size_t end = all.find('\n', taken_) + 1;
            const std::size_t mask = all.find(" 11 ", taken_) + 4;
            lines += all.compare(mask, 9, "00000080:") == 0 ? "F:" : "I:";
            lines += all.substr(mask + 9, end - mask - 9);
            taken_ = end;
        }
        return lines;
    }

    void OnTestStart(const testing::TestInfo& /*test*/) override { take(); }

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::size_t taken_ = 0;
    FILE* stream_ = ::open_memstream(&text_, &size_);
};

inline TraceCapture& trace = *[] {
    auto* const capture = new TraceCapture;  // the list of listeners owns it
    testing::UnitTest::GetInstance()->listeners().Append(capture);
    return capture;
}();
