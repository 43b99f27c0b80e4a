#include "dicom/services/sub_association.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "dcmtk/dcmdata/dcuid.h"
#include "dcmtk/dcmdata/dcxfer.h"
#include "dcmtk/dcmnet/diutil.h"

#include "dicom/presentation_contexts.h"
#include "monitor/aetitle_map.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

constexpr unsigned long longest_pdu = 131072;  // bytes, that we take from the destination
constexpr unsigned request_limit = 12;         // seconds for the request and its answer

bool is_urgent(const movedata& move, const char* sop_class) {
    const auto& urgent = move.urgent_classes;
    return std::find(urgent.begin(), urgent.end(), sop_class) != urgent.end();
}

// The toolkit would cut a longer one, and with it the port.
bool fits_toolkit(const std::string& address) {
    constexpr std::size_t room =
        sizeof(DUL_ASSOCIATESERVICEPARAMETERS::calledPresentationAddress) - 1;
    if (address.size() <= room) return true;
    logprintf(8, server_config.log, "Presentation Address %s is too long\n", address.c_str());
    return false;
}

// The originator's title goes into `move`; the server calls under the title it was addressed by.
tarvo::ParametersOwner make_parameters(const T_DIMSE_C_MoveRQ& request, movedata& move,
                                       const AETitleMapEntry& destination) {
    char called[17] = "";
    const OFCondition condition =
        ASC_getAPTitles(move.association->params, move.originator_aetitle,
                        sizeof move.originator_aetitle, called, sizeof called, nullptr, 0);
    if (condition.bad() || !fits_toolkit(destination.address)) return nullptr;
    return tarvo::ParametersOwner(DCMTK_params_init(
        called, nullptr, request.MoveDestination, destination.address.c_str(), false, longest_pdu));
}

// The proposal fills up: what has no room is left out without a word.
void propose_storage_classes(T_ASC_Parameters* parameters, const movedata& move) {
    unsigned long id = 1;
    for (const std::string& sop_class : move.urgent_classes) {
        if (DCMTK_params_add_std_PC(parameters, id, sop_class.c_str()).bad()) return;
        id += 2;
    }
    for (int i = 0; i < numberOfDcmAllStorageSOPClassUIDs; ++i) {
        const char* const sop_class = dcmAllStorageSOPClassUIDs[i];
        if (is_urgent(move, sop_class)) continue;
        if (DCMTK_params_add_std_PC(parameters, id, sop_class).bad()) return;
        id += 2;
    }
}

void propose_dataset(T_ASC_Parameters* parameters, DcmDataset* dataset, const char* path) {
    char sop_class[DIC_UI_LEN + 1] = "";
    char sop_instance[DIC_UI_LEN + 1] = "";
    const char* transfer_syntax = DcmXfer(dataset->getOriginalXfer()).getXferID();
    OFCondition condition = DIMSE_BADDATA;
    if (DU_findSOPClassAndInstanceInDataSet(dataset, sop_class, sizeof sop_class, sop_instance,
                                            sizeof sop_instance)) {
        condition = ASC_addPresentationContext(parameters, 1, sop_class, &transfer_syntax, 1);
    }
    if (condition.good()) return;
    logprintf(8, server_config.log, "Cannot add dataset PC for file: %s\n", path);
}

}  // namespace

int buildSubAssociation(T_DIMSE_C_MoveRQ* request, movedata* move, DcmDataset* dataset,
                        const char* path) {
    const AETitleMapEntry* const destination =
        AETitleMap_FindByAET(aetitle_map, request->MoveDestination);
    if (destination == nullptr) {
        logprintf(8, server_config.log, "Cannot resolve AETitle %s to Presentation Address\n",
                  request->MoveDestination);
        return 1;
    }
    tarvo::ParametersOwner parameters = make_parameters(*request, *move, *destination);
    if (!parameters) return tarvo::association_failed;
    if (dataset != nullptr) {
        propose_dataset(parameters.get(), dataset, path);
    } else {
        propose_storage_classes(parameters.get(), *move);
    }
    move->single_context = dataset != nullptr;
    // The last line of a worker that its watchdog ends while it waits for this destination.
    logprintf(32, server_config.log, "Opening SubAssoc to AET %s at %s\n", request->MoveDestination,
              destination->address.c_str());
    ::alarm(request_limit);
    const int result = move->sub_association.request(move->network, std::move(parameters));
    ::alarm(0);
    return result;
}

int closeSubAssociation(movedata* move) {
    return move->sub_association ? move->sub_association.end(EC_Normal) : 1;
}

bool proposedClass(const movedata& move, const char* sop_class) {
    T_ASC_Parameters* const parameters = move.sub_association.get()->params;
    const int count = ASC_countPresentationContexts(parameters);
    for (int i = 0; i < count; ++i) {
        T_ASC_PresentationContext context{};
        if (ASC_getPresentationContext(parameters, i, &context).bad()) return false;
        if (std::strcmp(context.abstractSyntax, sop_class) == 0) return true;
    }
    return false;
}
