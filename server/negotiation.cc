#include "server/negotiation.h"

#include <unistd.h>

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

void log_when_bad(const OFCondition& condition, const char* message) {
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
    log_when_bad(DCMTK_params_accept_std_PC(parameters, UID_VerificationSOPClass),
                 "Can't register ECHO");
    log_when_bad(DCMTK_params_accept_std_PCs(parameters, dcmAllStorageSOPClassUIDs,
                                             numberOfDcmAllStorageSOPClassUIDs),
                 "Can't register STORE");
    accept_unknown_storage(parameters);
    log_when_bad(DCMTK_params_accept_std_PCs(parameters, find_classes, 2), "Can't register FIND");
    log_when_bad(DCMTK_params_accept_std_PCs(parameters, move_classes, 2), "Can't register MOVE");
}

AETitles read_aetitles(T_ASC_Association* association) {
    AETitles titles;
    const OFCondition condition =
        ASC_getAPTitles(association->params, titles.calling, sizeof titles.calling, titles.called,
                        sizeof titles.called, nullptr, 0);
    log_when_bad(condition, "Cannot read the AE titles of an association");
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

}  // namespace

OFCondition negotiate_and_serve(T_ASC_Network* network, T_ASC_Association* association) {
    ::alarm(negotiation_limit);
    accept_contexts(association->params);
    log_when_bad(ASC_setAPTitles(association->params, nullptr, nullptr, server_config.aetitle),
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
