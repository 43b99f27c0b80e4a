#include "dicom/presentation_contexts.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
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
    if (answers == nullptr) return nullptr;
    void* node = LST_Head(&answers);
    static_cast<void>(LST_Position(&answers, node));  // returns the node that it was given
    for (; node != nullptr; node = LST_Next(&answers)) {
        const auto* answer = static_cast<const DUL_PRESENTATIONCONTEXT*>(node);
        if (answer->presentationContextID == id) return answer;
    }
    return nullptr;
}

bool dictionary_lacks(const char* uid) { return dcmFindNameOfUID(uid) == nullptr; }

using Uids = std::span<const char* const>;

bool contains(Uids uids, const char* wanted) {
    return std::any_of(uids.begin(), uids.end(),
                       [wanted](const char* uid) { return std::strcmp(uid, wanted) == 0; });
}

bool offers(const T_ASC_PresentationContext& context, const char* transfer_syntax) {
    const auto offered =
        std::span(context.proposedTransferSyntaxes).first(context.transferSyntaxCount);
    return std::any_of(offered.begin(), offered.end(), [transfer_syntax](const char* uid) {
        return std::strcmp(uid, transfer_syntax) == 0;
    });
}

// The earliest preference that the context offers, null when it offers none.
const char* choose(const T_ASC_PresentationContext& context, Uids preferences) {
    const auto chosen = std::find_if(preferences.begin(), preferences.end(),
                                     [&](const char* uid) { return offers(context, uid); });
    return chosen != preferences.end() ? *chosen : nullptr;
}

void trace_nothing(const char* /*text*/) {}

// Answers all contexts, as far as one group of SOP classes is concerned. Each context is looked at
// once: the toolkit's own routine goes through all of them for each transfer syntax, and a request
// with 128 contexts would keep its worker busy for longer than an image.
struct Answering {
    T_ASC_Parameters& params;
    Uids preferences;
    T_ASC_SC_ROLE role;
    void (*trace)(const char* text);
    const char* transfer_syntax = preferences.empty() ? "" : preferences.back();  // tried last

    // `is_served` tells of an abstract syntax whether it belongs to the group.
    template <typename Predicate>
    OFCondition run(Predicate is_served) {
        const int count = preferences.empty() ? 0 : ASC_countPresentationContexts(&params);
        for (int index = 0; index < count; ++index) {
            T_ASC_PresentationContext context;
            OFCondition result = ASC_getPresentationContext(&params, index, &context);
            if (result.good()) result = answer(context, is_served(context.abstractSyntax));
            if (result.bad()) return result;
        }
        return EC_Normal;
    }

    OFCondition answer(const T_ASC_PresentationContext& context, bool served) {
        const char* const chosen = served ? choose(context, preferences) : nullptr;
        return chosen != nullptr ? accept(context, chosen)
                                 : refuse_unless_accepted(context, served);
    }

    OFCondition accept(const T_ASC_PresentationContext& context, const char* chosen) {
        transfer_syntax = chosen;
        const OFCondition result =
            ASC_acceptPresentationContext(&params, context.presentationContextID, chosen, role);
        if (result.bad()) {
            trace("DCMTK_params_accept_unknown_PC: accepted, but ASC_accept does not work.\n");
        }
        return result;
    }

    OFCondition refuse_unless_accepted(const T_ASC_PresentationContext& context, bool served) {
        const LST_HEAD* const answers = params.DULparams.acceptedPresentationContext;
        if (answers == nullptr) trace("findPresentationContextID: Head is NULL.\n");
        const auto* const answer = find_answer(params, context.presentationContextID);
        if (answer != nullptr && answer->result == ASC_P_ACCEPTANCE) return EC_Normal;
        const bool was_their_fault =
            answer != nullptr && answer->result == ASC_P_TRANSFERSYNTAXESNOTSUPPORTED;
        const OFCondition result = ASC_refusePresentationContext(
            &params, context.presentationContextID,
            served || was_their_fault ? ASC_P_TRANSFERSYNTAXESNOTSUPPORTED
                                      : ASC_P_ABSTRACTSYNTAXNOTSUPPORTED);
        if (result.bad()) {
            trace("DCMTK_params_accept_unknown_PC: refused, but ASC_refuse does not work.\n");
        }
        return result;
    }
};

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
    const auto listed = std::span(abstractSyntaxes, static_cast<std::size_t>(count));
    Answering answering{*params,
                        {preferences, static_cast<std::size_t>(preference_count)},
                        ASC_SC_ROLE_DEFAULT,
                        trace_nothing};
    const OFCondition result =
        ASC_countPresentationContexts(params) == 0
            ? ASC_NOPRESENTATIONCONTEXTPROPOSED
            : answering.run([listed](const char* proposed) { return contains(listed, proposed); });
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
    Answering answering{*params, {&transferSyntax, 1}, role, tarvo::trace_toolkit_failure};
    return answering.run(dictionary_lacks);
}

OFCondition DCMTK_params_accept_unknown_PCs(T_ASC_Parameters* params, const char** transferSyntaxes,
                                            int count, T_ASC_SC_ROLE role) {
    const Uids preferences(transferSyntaxes, static_cast<std::size_t>(count));
    Answering answering{*params, preferences, role, tarvo::trace_toolkit_failure};
    const OFCondition result = answering.run(dictionary_lacks);
    if (result.bad()) {
        tarvo::debug_trace(tarvo::trace_dicom_toolkit, tarvo::trace_failure,
                           "DCMTK_params_accept_unknown_PCs: bad status in TS %s\n",
                           answering.transfer_syntax);
    }
    return result;
}
