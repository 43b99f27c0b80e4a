// The record that the command loop hands to the C-STORE, C-FIND and C-MOVE handlers as the
// toolkit's callback data. It is filled anew for every command.
#pragma once

#include <cstdint>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/assoc.h"
#include "dcmtk/dcmnet/dimse.h"

struct movedata {
    // C-STORE: the title under which the association was accepted chooses overwrite or preserve.
    const char* called_aetitle = nullptr;

    // C-FIND and C-MOVE: the iteration of LocalStore::FindDataset, owned by this record.
    void* find_handle = nullptr;

    // C-MOVE
    DcmDataset* current_match = nullptr;
    T_ASC_Network* network = nullptr;              // borrowed; requests the sub-association
    T_ASC_Association* association = nullptr;      // borrowed; where the C-MOVE arrived
    T_ASC_Association* sub_association = nullptr;  // to the destination; null: there is none
    std::uint16_t remaining = 0;                   // never counted: responses report 0
    std::uint16_t completed = 0;
    std::uint16_t failed = 0;
    std::uint16_t warning = 0;
    T_DIMSE_Priority priority = DIMSE_PRIORITY_LOW;  // of the request, for each C-STORE
    std::uint16_t move_message_id = 0;               // sent as Move Originator Message ID
    char originator_aetitle[17] = "";                // sent as Move Originator AE Title
};
