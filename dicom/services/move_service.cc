#include "dicom/services/move_service.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>

#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcfilefo.h"
#include "dcmtk/dcmnet/diutil.h"

#include "dicom/condition.h"
#include "dicom/dataset.h"
#include "dicom/services/sub_association.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

constexpr long longest_loaded_value = 4096;  // bytes; longer ones stay on disk until sent

constexpr char delete_aetitle[] = "TarvoDeleteAET";

FILE* log_stream() { return server_config.log; }

// A response has 16 bits for each counter: one that wrapped round would report success.
void count(std::uint16_t& counter) {
    if (counter < std::numeric_limits<std::uint16_t>::max()) ++counter;
}

// The UIDs of an image record; null where one is missing. Valid while the record lives.
struct MatchUids {
    const char* study;
    const char* series;
    const char* image;

    explicit MatchUids(const DcmDataset& match)
        : study(DCMTK_getTagString(&match, DCM_StudyInstanceUID)),
          series(DCMTK_getTagString(&match, DCM_SeriesInstanceUID)),
          image(DCMTK_getTagString(&match, DCM_SOPInstanceUID)) {}

    [[nodiscard]] bool complete() const {
        return study != nullptr && series != nullptr && image != nullptr;
    }

    [[nodiscard]] OFString path() const { return local_store.GetUidPath(study, series, image, 1); }
};

// The line before says what happened, this one to whom: most of those texts name nothing.
void log_concerned(unsigned level, const OFString& path, const T_DIMSE_C_MoveRQ& request) {
    logprintf(level, log_stream(), "MOVE/STORE:File: %s AET: %s\n", path.c_str(),
              request.MoveDestination);
}

// ---- loading ----

// An image file on its way to the destination.
struct OutgoingImage {
    OFString path;
    DcmFileFormat file;
    DcmDataset* dataset = nullptr;  // in `file`
    char sop_class[DIC_UI_LEN + 1] = "";
    char sop_instance[DIC_UI_LEN + 1] = "";
};

OFCondition load_file(const MatchUids& uids, OutgoingImage& image) {
    // Also absent: an image whose UID cannot name a file.
    if (local_store.HaveFile(uids.study, uids.series, uids.image) != 0) return EC_InvalidFilename;
    return image.file.loadFile(image.path, EXS_Unknown, EGL_noChange, longest_loaded_value);
}

OFCondition load_image(const T_DIMSE_C_MoveRQ& request, const MatchUids& uids,
                       OutgoingImage& image) {
    image.path = uids.path();
    const OFCondition condition = load_file(uids, image);
    if (condition.bad()) {
        logprintf(8, log_stream(), "MOVE/STORE:Cannot load dicom file %s.\n", image.path.c_str());
        return condition;
    }
    image.dataset = image.file.getDataset();
    if (image.dataset == nullptr) {
        logprintf(8, log_stream(), "Cannot locate dset in file: %s\n", image.path.c_str());
        return DIMSE_BADDATA;
    }
    if (!DU_findSOPClassAndInstanceInDataSet(image.dataset, image.sop_class, sizeof image.sop_class,
                                             image.sop_instance, sizeof image.sop_instance)) {
        logprintf(8, log_stream(), "MOVE/STORE:Cannot retrieve sopClass/Instance.\n");
        log_concerned(8, image.path, request);
        return DIMSE_BADDATA;
    }
    return EC_Normal;
}

// ---- the sub-association ----

// buildSubAssociation, with the watchdog of the move running again afterwards.
int open_sub_association(T_DIMSE_C_MoveRQ& request, movedata& move, DcmDataset* dataset = nullptr,
                         const char* path = "") {
    const int result = buildSubAssociation(&request, &move, dataset, path);
    ::alarm(tarvo::move_silence_limit);
    if (result != 0) {
        logprintf(8, log_stream(), "Building Move SubAssoc to AET %s failed.\n",
                  request.MoveDestination);
    }
    return result;
}

// Whether the image's class only lacks a context because it was not proposed: because the
// proposal had no room for it or the toolkit does not list it. A sub-association with a single
// context is not given up for another class, nor is any a second time for the same class.
bool was_left_out(const movedata& move, const char* sop_class) {
    const auto& urgent = move.urgent_classes;
    const bool tried = std::find(urgent.begin(), urgent.end(), sop_class) != urgent.end();
    return !move.single_context && !tried && !proposedClass(move, sop_class);
}

// The context for the image on the sub-association, which is opened again for a class that was
// left out; 0 when there is none.
T_ASC_PresentationContextID find_context(T_DIMSE_C_MoveRQ& request, movedata& move,
                                         const OutgoingImage& image) {
    const T_ASC_PresentationContextID context =
        ASC_findAcceptedPresentationContextID(move.sub_association.get(), image.sop_class);
    if (context != 0 || !was_left_out(move, image.sop_class)) return context;
    move.urgent_classes.insert(move.urgent_classes.begin(), image.sop_class);
    closeSubAssociation(&move);
    if (open_sub_association(request, move) != 0) return 0;
    return ASC_findAcceptedPresentationContextID(move.sub_association.get(), image.sop_class);
}

// After a failure below DIMSE: a new sub-association with one context, in the file's own transfer
// syntax. False when it cannot be had; then there is no sub-association any more.
bool reconnect_for_file(T_DIMSE_C_MoveRQ& request, movedata& move, OutgoingImage& image) {
    if (image.dataset->canWriteXfer(EXS_LittleEndianExplicit, image.dataset->getOriginalXfer())) {
        logprintf(16, log_stream(),
                  "Could write dset in pre-Associated syntax. Retrying anyway.\n");
        log_concerned(16, image.path, request);
    } else {
        logprintf(128, log_stream(), "Cannot write dset in pre-Associated syntax. File: %s\n",
                  image.path.c_str());
    }
    closeSubAssociation(&move);
    if (open_sub_association(request, move, image.dataset, image.path.c_str()) == 0) return true;
    closeSubAssociation(&move);
    return false;
}

// ---- sending ----

// A 2 GB image on a slow line takes longer than the watchdog allows for a silence.
void note_progress(void* /*callback_data*/, T_DIMSE_StoreProgress* /*progress*/,
                   T_DIMSE_C_StoreRQ* /*request*/) {
    ::alarm(tarvo::move_silence_limit);
}

void print_status_detail(DcmDataset* detail) {
    if (detail == nullptr) return;
    detail->print(std::cerr);
    delete detail;
}

// The request with the originator's name on it (PS3.7, 9.1.1.1).
T_DIMSE_C_StoreRQ make_store_request(const movedata& move, const OutgoingImage& image) {
    T_DIMSE_C_StoreRQ store{};
    store.MessageID = move.sub_association.get()->nextMsgID++;
    OFStandard::strlcpy(store.AffectedSOPClassUID, image.sop_class,
                        sizeof store.AffectedSOPClassUID);
    OFStandard::strlcpy(store.AffectedSOPInstanceUID, image.sop_instance,
                        sizeof store.AffectedSOPInstanceUID);
    store.DataSetType = DIMSE_DATASET_PRESENT;
    store.Priority = move.priority;
    store.opts = O_STORE_MOVEORIGINATORAETITLE | O_STORE_MOVEORIGINATORID;
    OFStandard::strlcpy(store.MoveOriginatorApplicationEntityTitle, move.originator_aetitle,
                        sizeof store.MoveOriginatorApplicationEntityTitle);
    store.MoveOriginatorID = move.move_message_id;
    return store;
}

void count_response(const T_DIMSE_C_MoveRQ& request, movedata& move, const OutgoingImage& image,
                    Uint16 status) {
    if (status == STATUS_Success) {
        count(move.completed);
    } else if ((status & 0xF000) == 0xB000) {
        count(move.warning);
        logprintf(16, log_stream(), "Got warning in MOVE/STORE: %s\n",
                  DU_cstoreStatusString(status));
        log_concerned(16, image.path, request);
    } else {
        count(move.failed);
        logprintf(8, log_stream(), "Got error in MOVE/STORE: %s\n", DU_cstoreStatusString(status));
        log_concerned(8, image.path, request);
    }
}

// What became of one try to send an image. `broken`: it failed below DIMSE and is not counted yet.
enum class Sent { answered, without_context, broken };

Sent try_to_send(T_DIMSE_C_MoveRQ& request, movedata& move, const OutgoingImage& image,
                 OFCondition& condition) {
    const T_ASC_PresentationContextID context = find_context(request, move, image);
    if (context == 0) {
        condition = DIMSE_NOVALIDPRESENTATIONCONTEXTID;
        count(move.failed);
        logprintf(8, log_stream(), "MOVE - store failed - no PC.\n");
        log_concerned(8, image.path, request);
        return Sent::without_context;
    }
    T_DIMSE_C_StoreRQ store = make_store_request(move, image);
    T_DIMSE_C_StoreRSP response{};
    DcmDataset* status_detail = nullptr;
    condition =
        DIMSE_storeUser(move.sub_association.get(), context, &store, nullptr, image.dataset,
                        note_progress, nullptr, DIMSE_BLOCKING, 0, &response, &status_detail);
    print_status_detail(status_detail);
    if (condition.bad()) return Sent::broken;
    count_response(request, move, image, response.DimseStatus);
    return Sent::answered;
}

// Sends a loaded image, and once more on a new sub-association when that breaks.
OFCondition transfer(T_DIMSE_C_MoveRQ& request, movedata& move, OutgoingImage& image) {
    OFCondition condition = EC_Normal;
    if (try_to_send(request, move, image, condition) != Sent::broken) return condition;
    if (!reconnect_for_file(request, move, image)) {
        count(move.failed);
        log_concerned(8, image.path, request);
    } else if (try_to_send(request, move, image, condition) == Sent::broken) {
        count(move.failed);
        logprintf(8, log_stream(), "Got error in MOVE/STORE.\n");
        log_concerned(8, image.path, request);
        tarvo::dump_condition(condition);
    }
    return condition;
}

// ---- one response ----

void begin_move(movedata& move, const T_DIMSE_C_MoveRQ& request) {
    move.find_handle.reset();
    move.priority = request.Priority;
    move.move_message_id = request.MessageID;
    logprintf(128, log_stream(), "Initializing move.\n");
    ::alarm(tarvo::move_silence_limit);
}

bool find_next_match(movedata& move, DcmDataset* identifier) {
    DcmDataset* match = nullptr;
    const int result =
        local_store.FindDataset(move.find_handle.address(), identifier, &match, "IMAGE");
    move.current_match.reset(match);
    return result == 0;
}

void delete_match(movedata& move, const T_DIMSE_C_MoveRQ& request) {
    const MatchUids uids(*move.current_match);
    if (!uids.complete()) {
        count(move.failed);
        log_concerned(16, uids.path(), request);
        return;
    }
    const int result = local_store.DeleteFile(uids.study, uids.series, uids.image);
    if (result == 0) {
        count(move.completed);
        return;
    }
    count(move.failed);
    logprintf(16, log_stream(), "Request to delete image ... result: %d\n", result);
    log_concerned(16, uids.path(), request);
}

void send_match(movedata& move, T_DIMSE_C_MoveRQ& request, bool first) {
    // Without any context it stands all the same: the image may belong to a class that the first
    // proposal had no room for.
    if (first && open_sub_association(request, move) != 0 && !move.sub_association) {
        count(move.failed);
        return;
    }
    logprintf(512, log_stream(), "Moving one image.\n");
    const OFCondition outcome = moveNextImage(&request, &move);
    static_cast<void>(outcome);  // it has been counted and logged
}

// Also for images that were not even tried, because the destination was lost before them.
void log_outcome(const movedata& move, const T_DIMSE_C_MoveRQ& request) {
    if (move.failed == 0 && move.warning == 0) return;
    logprintf(16, log_stream(), "Move to AET %s: %d completed, %d failed, %d with a warning\n",
              request.MoveDestination, move.completed, move.failed, move.warning);
}

Uint16 finish(movedata& move, const T_DIMSE_C_MoveRQ& request) {
    logprintf(128, log_stream(), "Closing SubAssoc.\n");
    closeSubAssociation(&move);
    log_outcome(move, request);
    return move.failed != 0 || move.warning != 0
               ? STATUS_MOVE_Warning_SubOperationsCompleteOneOrMoreFailures
               : STATUS_Success;
}

// The destination is let go at once, not when the originator ends its association.
Uint16 cancel(movedata& move, const T_DIMSE_C_MoveRQ& request) {
    move.find_handle.reset();
    closeSubAssociation(&move);
    log_outcome(move, request);
    return STATUS_MOVE_Cancel_SubOperationsTerminatedDueToCancelIndication;
}

// Handles the next match and returns the status of the response.
Uint16 move_one(movedata& move, T_DIMSE_C_MoveRQ& request, DcmDataset* identifier, bool first) {
    if (first) begin_move(move, request);
    if (!find_next_match(move, identifier)) return finish(move, request);
    logprintf(512, log_stream(), "Find dataset ok.\n");
    if (std::strcmp(request.MoveDestination, delete_aetitle) == 0) {
        delete_match(move, request);
    } else {
        send_match(move, request, first);
    }
    ::alarm(tarvo::move_silence_limit);
    move.current_match.reset();
    return STATUS_MOVE_Pending_SubOperationsAreContinuing;
}

void report_counters(const movedata& move, T_DIMSE_C_MoveRSP& response) {
    response.NumberOfRemainingSubOperations = move.remaining;
    response.NumberOfCompletedSubOperations = move.completed;
    response.NumberOfFailedSubOperations = move.failed;
    response.NumberOfWarningSubOperations = move.warning;
}

}  // namespace

OFCondition moveNextImage(T_DIMSE_C_MoveRQ* request, movedata* move) {
    if (!move->sub_association) {
        count(move->failed);
        return DIMSE_ILLEGALASSOCIATION;
    }
    const MatchUids uids(*move->current_match);
    if (!uids.complete()) {
        count(move->failed);
        logprintf(8, log_stream(), "MOVE/STORE:Did not have all UIDs.\n");
        log_concerned(8, uids.path(), *request);
        return DIMSE_BADDATA;
    }
    OutgoingImage image;
    // An image that cannot be loaded counts neither as sent nor as failed; the log names it.
    const OFCondition condition = load_image(*request, uids, image);
    return condition.good() ? transfer(*request, *move, image) : condition;
}

void move_callback(void* callback_data, OFBool cancelled, T_DIMSE_C_MoveRQ* request,
                   DcmDataset* identifier, int response_count, T_DIMSE_C_MoveRSP* response,
                   DcmDataset** /*status_detail*/, DcmDataset** /*response_identifiers*/) {
    auto& move = *static_cast<movedata*>(callback_data);
    response->DimseStatus = cancelled ? cancel(move, *request)
                                      : move_one(move, *request, identifier, response_count == 1);
    report_counters(move, *response);
}
