#include "server/negotiation.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "dcmtk/dcmdata/dcuid.h"
#include "dcmtk/dcmnet/dimse.h"

#include "dicom/presentation_contexts.h"
#include "server/command_loop.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

constexpr unsigned negotiation_limit = 10;  // seconds
constexpr int drop_wait = 180;              // seconds the peer has to close its side

struct AETitles {
    char calling[17] = "";
    char called[17] = "";
};

void report(const OFCondition& condition, const char* message) {
    if (condition.bad()) logprintf(8, server_config.log, "%s\n", message);
}

void accept_unknown_storage(T_ASC_Parameters* parameters) {
    if (server_config.no_unknown_sop != 0) return;
    int count = 0;
    const char** const transfer_syntaxes = DCMTK_get_STD_TS(count);
    // What stays refused here is none of this server's services: no message is owed.
    static_cast<void>(
        DCMTK_params_accept_unknown_PCs(parameters, transfer_syntaxes, count, ASC_SC_ROLE_DEFAULT));
}

void accept_contexts(T_ASC_Parameters* parameters) {
    static const char* find_classes[] = {UID_FINDPatientRootQueryRetrieveInformationModel,
                                         UID_FINDStudyRootQueryRetrieveInformationModel};
    static const char* move_classes[] = {UID_MOVEPatientRootQueryRetrieveInformationModel,
                                         UID_MOVEStudyRootQueryRetrieveInformationModel};
    report(DCMTK_params_accept_std_PC(parameters, UID_VerificationSOPClass), "Can't register ECHO");
    report(DCMTK_params_accept_std_PCs(parameters, dcmAllStorageSOPClassUIDs,
                                       numberOfDcmAllStorageSOPClassUIDs),
           "Can't register STORE");
    accept_unknown_storage(parameters);
    report(DCMTK_params_accept_std_PCs(parameters, find_classes, 2), "Can't register FIND");
    report(DCMTK_params_accept_std_PCs(parameters, move_classes, 2), "Can't register MOVE");
}

AETitles read_aetitles(T_ASC_Association* association) {
    AETitles titles;
    const OFCondition condition =
        ASC_getAPTitles(association->params, titles.calling, sizeof titles.calling, titles.called,
                        sizeof titles.called, nullptr, 0);
    report(condition, "Cannot read the AE titles of an association");
    return titles;
}

bool has_standard_application_context(T_ASC_Association* association, char* name,
                                      std::size_t size) {
    name[0] = '\0';
    const OFCondition condition = ASC_getApplicationContextName(association->params, name, size);
    return condition.good() && std::strcmp(name, UID_StandardApplicationContext) == 0;
}

OFCondition reject_application_context(T_ASC_Association* association, const char* name) {
    logprintf(8, server_config.log, "Can't find StandardApplicationContext - have %s\n", name);
    const T_ASC_RejectParameters reject = {ASC_RESULT_REJECTEDPERMANENT, ASC_SOURCE_SERVICEUSER,
                                           ASC_REASON_SU_APPCONTEXTNAMENOTSUPPORTED};
    return ASC_rejectAssociation(association, &reject);
}

// Acknowledges the association and serves it. Returns the condition that ended it.
OFCondition acknowledge_and_serve(T_ASC_Network* network, T_ASC_Association* association) {
    const OFCondition condition = ASC_acknowledgeAssociation(association);
    if (condition.bad()) return condition;
    ::alarm(negotiation_limit);
    const AETitles titles = read_aetitles(association);
    logprintf(64, server_config.log, "good assoc from %s to %s\n", titles.calling, titles.called);
    ::alarm(0);
    return serve_commands(network, association, titles.calling, titles.called);
}

void end_association(T_ASC_Association* association, const OFCondition& condition) {
    ::alarm(negotiation_limit);
    // A peer that is gone already needs neither an answer nor a message.
    if (condition == DUL_PEERREQUESTEDRELEASE) {
        static_cast<void>(ASC_acknowledgeRelease(association));
    } else if (condition == DUL_PEERABORTEDASSOCIATION) {
        logprintf(32, server_config.log, "Association aborted\n");
    } else {
        static_cast<void>(ASC_abortAssociation(association));
    }
}

const char* refusal_reason(Refusal refusal) {
    switch (refusal) {
        case Refusal::too_many_associations:
            return "too many ongoing associations";
        case Refusal::fork_failure:
            return "failure forking worker thread";
        case Refusal::parent_release:
            break;
    }
    return "ES_RR unknown?";
}

OFCondition send_refusal(T_ASC_Association* association, Refusal refusal) {
    logprintf(32, server_config.log, "Refusing Association due to %s.\n", refusal_reason(refusal));
    T_ASC_RejectParameters reject = {ASC_RESULT_REJECTEDTRANSIENT,
                                     ASC_SOURCE_SERVICEPROVIDER_PRESENTATION_RELATED,
                                     ASC_REASON_SP_PRES_LOCALLIMITEXCEEDED};
    if (refusal == Refusal::fork_failure) {
        // A permanent result with a temporary reason: peers know this pair and try again later.
        reject.result = ASC_RESULT_REJECTEDPERMANENT;
        reject.reason = ASC_REASON_SP_PRES_TEMPORARYCONGESTION;
    }
    return ASC_rejectAssociation(association, &reject);
}

// Reports a failed step and keeps its condition as the result.
void keep_failure(OFCondition& result, const OFCondition& condition, const char* message) {
    if (condition.good()) return;
    logprintf(8, server_config.log, "%s\n", message);
    dump_condition(condition);
    result = condition;
}

}  // namespace

OFCondition negotiate_and_serve(T_ASC_Network* network, T_ASC_Association* association) {
    ::alarm(negotiation_limit);
    accept_contexts(association->params);
    report(ASC_setAPTitles(association->params, nullptr, nullptr, server_config.aetitle),
           "Cannot set the responding AE title");
    char application_context[DUL_LEN_NAME + 1];
    OFCondition condition = EC_Normal;
    if (has_standard_application_context(association, application_context,
                                         sizeof application_context)) {
        condition = acknowledge_and_serve(network, association);
        end_association(association, condition);
    } else {
        condition = reject_application_context(association, application_context);
    }
    // Nothing is left to be done about an association that cannot be dropped: the worker ends.
    static_cast<void>(ASC_dropSCPAssociation(association, drop_wait));
    static_cast<void>(ASC_destroyAssociation(&association));
    ::alarm(0);
    return condition;
}

OFCondition refuse_or_release(T_ASC_Association*& association, Refusal refusal) {
    OFCondition result = EC_Normal;
    if (refusal != Refusal::parent_release) {
        keep_failure(result, send_refusal(association, refusal), "Association reject failed:");
    }
    keep_failure(result, ASC_dropAssociation(association), "Association drop failed:");
    keep_failure(result, ASC_destroyAssociation(&association), "Association destroy failed:");
    association = nullptr;
    return result;
}

void dump_condition(const OFCondition& condition) {
    OFString text;
    std::fprintf(stderr, "%s\n", DimseCondition::dump(text, condition).c_str());
}
