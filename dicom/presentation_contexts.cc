#include "dicom/presentation_contexts.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>
#include <utility>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcuid.h"
#include "dcmtk/dcmdata/dcxfer.h"
#include "dcmtk/dcmnet/cond.h"
#include "dcmtk/dcmnet/lst.h"

#include "dicom/toolkit_trace.h"

namespace {

using TransferSyntaxes = std::array<const char*, 30>;

constexpr TransferSyntaxes little_endian_host{
    "1.2.840.10008.1.2.1",      // Explicit VR Little Endian
    "1.2.840.10008.1.2.2",      // Explicit VR Big Endian
    "1.2.840.10008.1.2",        // Implicit VR Little Endian: explicit VR is always preferred
    "1.2.840.10008.1.2.5",      // RLE Lossless
    "1.2.840.10008.1.2.1.99",   // Deflated Explicit VR Little Endian
    "1.2.840.10008.1.2.4.90",   // JPEG 2000 Lossless Only
    "1.2.840.10008.1.2.4.91",   // JPEG 2000
    "1.2.840.10008.1.2.4.92",   // JPEG 2000 Part 2 Multi-component Lossless Only
    "1.2.840.10008.1.2.4.93",   // JPEG 2000 Part 2 Multi-component
    "1.2.840.10008.1.2.4.50",   // JPEG Baseline (Process 1)
    "1.2.840.10008.1.2.4.51",   // JPEG Extended (Process 2 and 4)
    "1.2.840.10008.1.2.4.52",   // JPEG Extended (Process 3 and 5)
    "1.2.840.10008.1.2.4.53",   // JPEG Spectral Selection, Non-Hierarchical (Process 6 and 8)
    "1.2.840.10008.1.2.4.54",   // JPEG Spectral Selection, Non-Hierarchical (Process 7 and 9)
    "1.2.840.10008.1.2.4.55",   // JPEG Full Progression, Non-Hierarchical (Process 10 and 12)
    "1.2.840.10008.1.2.4.56",   // JPEG Full Progression, Non-Hierarchical (Process 11 and 13)
    "1.2.840.10008.1.2.4.57",   // JPEG Lossless, Non-Hierarchical (Process 14)
    "1.2.840.10008.1.2.4.58",   // JPEG Lossless, Non-Hierarchical (Process 15)
    "1.2.840.10008.1.2.4.59",   // JPEG Extended, Hierarchical (Process 16 and 18)
    "1.2.840.10008.1.2.4.60",   // JPEG Extended, Hierarchical (Process 17 and 19)
    "1.2.840.10008.1.2.4.61",   // JPEG Spectral Selection, Hierarchical (Process 20 and 22)
    "1.2.840.10008.1.2.4.62",   // JPEG Spectral Selection, Hierarchical (Process 21 and 23)
    "1.2.840.10008.1.2.4.63",   // JPEG Full Progression, Hierarchical (Process 24 and 26)
    "1.2.840.10008.1.2.4.64",   // JPEG Full Progression, Hierarchical (Process 25 and 27)
    "1.2.840.10008.1.2.4.65",   // JPEG Lossless, Hierarchical (Process 28)
    "1.2.840.10008.1.2.4.66",   // JPEG Lossless, Hierarchical (Process 29)
    "1.2.840.10008.1.2.4.70",   // JPEG Lossless, First-Order Prediction (Process 14, SV 1)
    "1.2.840.10008.1.2.4.80",   // JPEG-LS Lossless
    "1.2.840.10008.1.2.4.81",   // JPEG-LS Lossy (Near-Lossless)
    "1.2.840.10008.1.2.4.100",  // MPEG2 Main Profile / Main Level
};

constexpr TransferSyntaxes big_endian_host = [] {
    TransferSyntaxes list = little_endian_host;
    std::swap(list[0], list[1]);
    return list;
}();

constexpr unsigned long highest_context_id = 255;  // one byte on the wire (PS3.8, 9.3.2.2)

const DUL_PRESENTATIONCONTEXT* find_answer(T_ASC_Parameters& params,
                                           T_ASC_PresentationContextID id) {
    LST_HEAD* answers = params.DULparams.acceptedPresentationContext;
    if (answers == nullptr) {
        tarvo::trace_toolkit_failure("findPresentationContextID: Head is NULL.\n");
        return nullptr;
    }
    void* node = LST_Head(&answers);
    static_cast<void>(LST_Position(&answers, node));  // returns the node that it was given
    for (; node != nullptr; node = LST_Next(&answers)) {
        const auto* answer = static_cast<const DUL_PRESENTATIONCONTEXT*>(node);
        if (answer->presentationContextID == id) return answer;
    }
    return nullptr;
}

bool dictionary_knows(const char* uid) { return dcmFindNameOfUID(uid) != nullptr; }

bool proposes(const T_ASC_PresentationContext& context, std::string_view transfer_syntax) {
    const auto proposed =
        std::span(context.proposedTransferSyntaxes).first(context.transferSyntaxCount);
    return std::ranges::any_of(
        proposed, [transfer_syntax](const char* uid) { return uid == transfer_syntax; });
}

OFCondition accept(T_ASC_Parameters& params, const T_ASC_PresentationContext& context,
                   const char* transfer_syntax, T_ASC_SC_ROLE role) {
    const OFCondition result = ASC_acceptPresentationContext(&params, context.presentationContextID,
                                                             transfer_syntax, role);
    if (result.bad()) {
        tarvo::trace_toolkit_failure(
            "DCMTK_params_accept_unknown_PC: accepted, but ASC_accept does not work.\n");
    }
    return result;
}

OFCondition refuse_unless_accepted(T_ASC_Parameters& params,
                                   const T_ASC_PresentationContext& context,
                                   bool transfer_syntaxes_at_fault) {
    const auto* const answer = find_answer(params, context.presentationContextID);
    if (answer != nullptr && answer->result == ASC_P_ACCEPTANCE) return EC_Normal;
    const bool was_their_fault =
        answer != nullptr && answer->result == ASC_P_TRANSFERSYNTAXESNOTSUPPORTED;
    const OFCondition result = ASC_refusePresentationContext(
        &params, context.presentationContextID,
        transfer_syntaxes_at_fault || was_their_fault ? ASC_P_TRANSFERSYNTAXESNOTSUPPORTED
                                                      : ASC_P_ABSTRACTSYNTAXNOTSUPPORTED);
    if (result.bad()) {
        tarvo::trace_toolkit_failure(
            "DCMTK_params_accept_unknown_PC: refused, but ASC_refuse does not work.\n");
    }
    return result;
}

OFCondition answer_context(T_ASC_Parameters& params, const T_ASC_PresentationContext& context,
                           const char* transfer_syntax, T_ASC_SC_ROLE role) {
    const bool unknown = !dictionary_knows(context.abstractSyntax);
    if (unknown && proposes(context, transfer_syntax)) {
        return accept(params, context, transfer_syntax, role);
    }
    return refuse_unless_accepted(params, context, unknown);
}

OFCondition add_context(T_ASC_Parameters* params, unsigned long id, const char* abstract_syntax) {
    // The toolkit would take the low byte of a greater id and propose under that.
    if (id > highest_context_id) return ASC_BADPRESENTATIONCONTEXTID;
    int count = 0;
    const char** const transfer_syntaxes = DCMTK_get_STD_TS(count);
    return ASC_addPresentationContext(params, static_cast<T_ASC_PresentationContextID>(id),
                                      abstract_syntax, transfer_syntaxes, count);
}

}  // namespace

const char** DCMTK_get_STD_TS(int& count) {
    const TransferSyntaxes& list =
        gLocalByteOrder == EBO_LittleEndian ? little_endian_host : big_endian_host;
    count = static_cast<int>(list.size());
    return const_cast<const char**>(list.data());  // the toolkit only reads it
}

OFCondition DCMTK_params_add_std_PC(T_ASC_Parameters* params, unsigned long presentationContextID,
                                    const char* abstractSyntax) {
    const OFCondition result = add_context(params, presentationContextID, abstractSyntax);
    if (result.bad()) {
        tarvo::debug_trace(tarvo::trace_dicom_toolkit, tarvo::trace_failure,
                           "DCMTK_params_add_std_PC: Failed for AS %s.\n", abstractSyntax);
    }
    return result;
}

OFCondition DCMTK_params_accept_std_PCs(T_ASC_Parameters* params, const char** abstractSyntaxes,
                                        int count) {
    int preference_count = 0;
    const char** const preferences = DCMTK_get_STD_TS(preference_count);
    const OFCondition result = ASC_acceptContextsWithPreferredTransferSyntaxes(
        params, abstractSyntaxes, count, preferences, preference_count);
    if (result.bad() && count > 0) {
        tarvo::debug_trace(tarvo::trace_dicom_toolkit, tarvo::trace_failure,
                           "DCMTK_params_add_std_PCs: Failed for AS %s..%s.\n", abstractSyntaxes[0],
                           abstractSyntaxes[count - 1]);
    }
    return result;
}

OFCondition DCMTK_params_accept_std_PC(T_ASC_Parameters* params, const char* abstractSyntax) {
    return DCMTK_params_accept_std_PCs(params, &abstractSyntax, 1);
}

OFCondition DCMTK_params_accept_unknown_PC(T_ASC_Parameters* params, const char* transferSyntax,
                                           T_ASC_SC_ROLE role) {
    const int count = ASC_countPresentationContexts(params);
    for (int index = 0; index < count; ++index) {
        T_ASC_PresentationContext context;
        OFCondition result = ASC_getPresentationContext(params, index, &context);
        if (result.good()) result = answer_context(*params, context, transferSyntax, role);
        if (result.bad()) return result;
    }
    return EC_Normal;
}

OFCondition DCMTK_params_accept_unknown_PCs(T_ASC_Parameters* params, const char** transferSyntaxes,
                                            int count, T_ASC_SC_ROLE role) {
    // The most preferred syntax comes last: each pass replaces what an earlier one accepted.
    for (int index = count - 1; index >= 0; --index) {
        const OFCondition result =
            DCMTK_params_accept_unknown_PC(params, transferSyntaxes[index], role);
        if (result.bad()) {
            tarvo::debug_trace(tarvo::trace_dicom_toolkit, tarvo::trace_failure,
                               "DCMTK_params_accept_unknown_PCs: bad status in TS %s\n",
                               transferSyntaxes[index]);
            return result;
        }
    }
    return EC_Normal;
}
