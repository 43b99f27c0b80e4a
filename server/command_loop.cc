#include "server/command_loop.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "dcmtk/dcmnet/dimse.h"

#include "dicom/service_provider.h"
#include "dicom/services/callback_record.h"
#include "dicom/services/find_service.h"
#include "dicom/services/move_service.h"
#include "dicom/services/store_service.h"
#include "monitor/serverstate.h"
#include "server/worker.h"
#include "support/log.h"
#include "support/server_config.h"

namespace {

// Seconds of CPU time for one image. Four of the greatest size take less.
constexpr rlim_t store_cpu_time = 120;

// Logs operations so that a peer sending thousands of images produces a few lines: the first of
// a run of equal texts at once, the length of the run when another text follows.
class OperationLog {
  public:
    OperationLog(const char* calling, const char* called) : calling_(calling), called_(called) {}

    void log(const char* operation) {
        char text[128];
        std::snprintf(text, sizeof text, "%s %s->%s", operation, calling_, called_);
        log_text(text);
    }

    void log_text(const char* text) {
        if (std::strcmp(text, last_) == 0) {
            ++count_;
            return;
        }
        if (last_[0] != '\0') logprintf(32, server_config.log, "%s (%dx)\n", last_, count_);
        std::snprintf(last_, sizeof last_, "%s", text);
        logprintf(32, server_config.log, "%s\n", last_);
        count_ = 1;
    }

  private:
    const char* calling_;
    const char* called_;
    char last_[128] = "";
    int count_ = 0;
};

// Announces an operation for as long as it runs.
class OperationState {
  public:
    explicit OperationState(serverstate_currop operation) : operation_(operation) {
        static_cast<void>(server_state.change(operation_, 1));  // nobody may be listening
    }
    OperationState(const OperationState&) = delete;
    OperationState& operator=(const OperationState&) = delete;
    OperationState(OperationState&&) = delete;
    OperationState& operator=(OperationState&&) = delete;
    ~OperationState() { static_cast<void>(server_state.change(operation_, 0)); }

  private:
    serverstate_currop operation_;
};

// One received command and what is needed to serve it.
struct Command {
    T_ASC_Association* association;
    T_DIMSE_Message message;
    T_ASC_PresentationContextID context_id;
    movedata record;
};

OFCondition receive(Command& command) {
    DcmDataset* status_detail = nullptr;
    ::alarm(tarvo::silence_limit);
    const OFCondition condition =
        DIMSE_receiveCommand(command.association, DIMSE_BLOCKING, 0, &command.context_id,
                             &command.message, &status_detail);
    ::alarm(tarvo::silence_limit);
    delete status_detail;
    return condition;
}

OFCondition serve_echo(Command& command) {
    return DCMTK_SCP_echo(command.association, &command.message, command.context_id);
}

OFCondition serve_store(Command& command) {
    // The watchdog is content as long as bytes come in, and a deflated megabyte is a gigabyte.
    const tarvo::CpuTimeLimit limit(store_cpu_time);
    return DCMTK_SCP_store(command.association, &command.message, command.context_id,
                           store_callback, &command.record);
}

OFCondition serve_find(Command& command) {
    return DCMTK_SCP_find(command.association, &command.message, command.context_id, find_callback,
                          &command.record);
}

OFCondition serve_move(Command& command) {
    return DCMTK_SCP_move(command.association, &command.message, command.context_id, move_callback,
                          &command.record);
}

struct Service {
    const char* name;
    OFCondition (*serve)(Command& command);
    T_DIMSE_Command command_field;
    serverstate_currop operation;
};

constexpr Service services[] = {
    {"C-Echo", serve_echo, DIMSE_C_ECHO_RQ, serverstate_currop::echo},
    {"C-Store", serve_store, DIMSE_C_STORE_RQ, serverstate_currop::store},
    {"C-Find", serve_find, DIMSE_C_FIND_RQ, serverstate_currop::find},
    {"C-Move", serve_move, DIMSE_C_MOVE_RQ, serverstate_currop::move},
};

const Service* find_service(T_DIMSE_Command command_field) {
    for (const Service& service : services) {
        if (service.command_field == command_field) return &service;
    }
    return nullptr;
}

OFCondition dispatch(Command& command, OperationLog& log) {
    // Meant for an operation that has ended already.
    if (command.message.CommandField == DIMSE_C_CANCEL_RQ) return EC_Normal;
    const Service* const service = find_service(command.message.CommandField);
    if (service == nullptr) {
        log.log_text("Not handling unsupported request");
        return DIMSE_BADCOMMANDTYPE;
    }
    log.log(service->name);
    const OperationState announced(service->operation);
    return service->serve(command);
}

}  // namespace

OFCondition serve_commands(T_ASC_Network* network, T_ASC_Association* association,
                           const char* calling_aetitle, const char* called_aetitle) {
    OperationLog log(calling_aetitle, called_aetitle);
    OFCondition condition = EC_Normal;
    while (condition == EC_Normal || condition == DIMSE_NODATAAVAILABLE) {
        Command command{};
        command.association = association;
        command.record.called_aetitle = called_aetitle;
        command.record.network = network;
        command.record.association = association;
        condition = receive(command);
        if (condition == EC_Normal) condition = dispatch(command, log);
    }
    log.log("EOF");
    ::alarm(0);
    return condition;
}
