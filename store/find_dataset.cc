// Answering one query one match at a time (PS3.4, C.4.1): the level is chosen here, the answers
// come from find_study.cc and find_levels.cc.
#include <cstdio>
#include <memory>
#include <string_view>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include "dicom/dataset.h"
#include "store/find_iteration.h"
#include "store/local_store.h"
#include "support/log.h"

using tarvo::Iteration;

namespace {

enum class Level { study, series, image, unknown };

Level level_of(const char* text, FILE* log) {
    const std::string_view name = text != nullptr ? text : "";
    if (name == "PATIENT") logprintf(64, log, "Treating PATIENT type query as STUDY\n");
    if (name == "PATIENT" || name == "STUDY") return Level::study;
    if (name == "SERIES") return Level::series;
    if (name == "IMAGE") return Level::image;
    logprintf(8, log, "AIEE - QRL %s is not STUDY, SERIES or IMAGE\n", text);
    return Level::unknown;
}

}  // namespace

int LocalStore::FindDataset(void** handle, DcmDataset* query, DcmDataset** response,
                            const char* level) {
    if (handle == nullptr) {
        logprintf(16, logfile, "LocalStore::FindDataset: No handle pointer.\n");
        return Iteration::no_more;
    }
    if (response == nullptr) return Iteration::no_more;
    const char* const asked =
        level != nullptr ? level : DCMTK_getTagString(query, DCM_QueryRetrieveLevel);
    const Level kind = level_of(asked, logfile);
    if (kind == Level::unknown) return Iteration::no_more;
    if (*handle == nullptr) {
        std::unique_ptr<Iteration> started;
        if (kind == Level::study) started = tarvo::start_study(*this, *query, asked);
        if (kind == Level::series) started = tarvo::start_series(*this, *query, asked);
        if (kind == Level::image) {
            started = tarvo::start_image(*this, *query, asked, level != nullptr);
        }
        if (!started) return Iteration::failure;
        *handle = started.release();
    }
    const int result = static_cast<Iteration*>(*handle)->next(*response);
    if (result != Iteration::match) EndFind(handle);
    return result;
}

void LocalStore::EndFind(void** handle) {
    delete static_cast<Iteration*>(*handle);
    *handle = nullptr;
}
