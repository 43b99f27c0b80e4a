// The record that the command loop hands to the C-STORE, C-FIND and C-MOVE handlers as the
// toolkit's callback data. It is made anew for every command and gives back what it owns when the
// command has been served, however that ended.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmdata/dcdatset.h"
#include "dcmtk/dcmnet/assoc.h"
#include "dcmtk/dcmnet/dimse.h"

#include "dicom/association.h"
#include "store/local_store.h"

namespace tarvo {

// Seconds without a sign of life from the peer after which SIGALRM ends the worker; while a move
// waits for its destination, too.
constexpr unsigned silence_limit = 60;
constexpr unsigned move_silence_limit = 300;

// Owner of one iteration of LocalStore::FindDataset on local_store.
class FindHandle {
  public:
    FindHandle() = default;
    FindHandle(const FindHandle&) = delete;
    FindHandle& operator=(const FindHandle&) = delete;
    FindHandle(FindHandle&&) = delete;
    FindHandle& operator=(FindHandle&&) = delete;
    ~FindHandle() { reset(); }

    // For FindDataset, which starts, carries on and ends the iteration behind it.
    [[nodiscard]] void** address() { return &handle_; }

    void reset() { local_store.EndFind(&handle_); }

  private:
    void* handle_ = nullptr;
};

}  // namespace tarvo

struct movedata {
    // C-STORE: the title under which the association was accepted chooses overwrite or preserve.
    const char* called_aetitle = nullptr;

    // C-FIND and C-MOVE
    tarvo::FindHandle find_handle;

    // C-MOVE
    std::unique_ptr<DcmDataset> current_match;    // an image record, not the image
    T_ASC_Network* network = nullptr;             // borrowed; requests the sub-association
    T_ASC_Association* association = nullptr;     // borrowed; where the C-MOVE arrived
    tarvo::RequestedAssociation sub_association;  // to the destination
    // An association has room for 128 presentation contexts, fewer than there are storage
    // classes. A class that had no room goes to the head of the next proposal, ahead of those that
    // went there before.
    std::vector<std::string> urgent_classes;
    bool single_context = false;  // reconnected for one file's class and transfer syntax
    // The counters of the responses stop at 65535.
    std::uint16_t remaining = 0;  // never counted: responses report 0
    std::uint16_t completed = 0;
    std::uint16_t failed = 0;
    std::uint16_t warning = 0;
    T_DIMSE_Priority priority = DIMSE_PRIORITY_LOW;  // of the request, for each C-STORE
    std::uint16_t move_message_id = 0;               // sent as Move Originator Message ID
    char originator_aetitle[17] = "";                // sent as Move Originator AE Title
};
