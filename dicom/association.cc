#include "dicom/association.h"

#include <unistd.h>

#include <array>
#include <utility>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/cond.h"

#include "dicom/toolkit_trace.h"
#include "support/bounded_string.h"

using tarvo::trace_toolkit_failure;
using tarvo::trace_toolkit_information;

namespace {

using Address = std::array<char, 129>;

Address make_address(const char* text) {
    Address address{};
    // A host name beyond the buffer is cut; the toolkit keeps even less.
    static_cast<void>(vr_strncpy(address.data(), text, address.size()));
    return address;
}

Address own_host_name() {
    Address name{};
    // On failure the name stays empty: no peer looks at it.
    static_cast<void>(::gethostname(name.data(), name.size() - 1));
    return name;
}

void set_addresses(T_ASC_Parameters& params, const char* local_host, const char* peer_address) {
    const Address local = local_host != nullptr ? make_address(local_host) : own_host_name();
    const Address peer = make_address(peer_address != nullptr ? peer_address : "");
    // A bad address shows when the association is requested.
    static_cast<void>(ASC_setPresentationAddresses(&params, local.data(), peer.data()));
}

bool abort_association(T_ASC_Association* association) {
    if (ASC_abortAssociation(association).good()) return true;
    trace_toolkit_information("DCMTK_dissociate: Association abort failed.\n");
    return false;
}

// The first half of DCMTK_dissociate: leaves the association to be destroyed.
int finish_association(T_ASC_Association* association, const OFCondition& last_condition) {
    if (last_condition == EC_Normal) {
        if (ASC_releaseAssociation(association).good()) return tarvo::dissociated;
        trace_toolkit_information("DCMTK_dissociate: release failed\n");
        return tarvo::release_failed;
    }
    if (last_condition == DUL_PEERABORTEDASSOCIATION) return tarvo::dissociated;
    trace_toolkit_information(
        last_condition == DUL_PEERREQUESTEDRELEASE
            ? "DCMTK_dissociate: Protocol Error: peer requested release (Aborting)\n"
            : "DCMTK_dissociate: Other error.\n");
    return abort_association(association) ? tarvo::dissociated : tarvo::abort_failed;
}

}  // namespace

T_ASC_Parameters* DCMTK_params_init(const char* callingAETitle, const char* localHost,
                                    const char* calledAETitle, const char* peerAddress,
                                    bool secureTransport, unsigned long maxPDU) {
    T_ASC_Parameters* created = nullptr;
    if (ASC_createAssociationParameters(&created, static_cast<long>(maxPDU)).bad()) {
        trace_toolkit_failure("DCMTK_params_init: Failed to create Assoc Parameters.\n");
        return nullptr;
    }
    tarvo::ParametersOwner params(created);
    // Copies the titles; it has no way to fail.
    static_cast<void>(
        ASC_setAPTitles(params.get(), callingAETitle != nullptr ? callingAETitle : "DCMTK_LIB",
                        calledAETitle != nullptr ? calledAETitle : "ANY-SCP", nullptr));
    if (ASC_setTransportLayerType(params.get(), secureTransport).bad()) {
        trace_toolkit_failure("DCMTK_params_init: Failed to set transport layer type.\n");
        return nullptr;
    }
    set_addresses(*params, localHost, peerAddress);
    return params.release();
}

int DCMTK_associate(T_ASC_Association** assoc, T_ASC_Network* network, T_ASC_Parameters* params) {
    *assoc = nullptr;  // the toolkit leaves it alone when it fails early
    const OFCondition result = ASC_requestAssociation(network, params, assoc);
    if (result == DUL_ASSOCIATIONREJECTED) {
        trace_toolkit_failure("DCMTK_associate: rejected\n");
        return tarvo::association_rejected;
    }
    if (result.bad()) {
        trace_toolkit_failure("DCMTK_associate: other failure\n");
        return tarvo::association_failed;
    }
    if (ASC_countAcceptedPresentationContexts(params) <= 0) {
        trace_toolkit_failure("DCMTK_associate: No Acceptable Presentation Contexts\n");
        return tarvo::association_without_context;
    }
    trace_toolkit_information("DCMTK_associate: Association Accepted\n");
    return tarvo::association_accepted;
}

int DCMTK_dissociate(T_ASC_Association** assoc, const OFCondition& lastCondition) {
    const int result = finish_association(*assoc, lastCondition);
    if (result != tarvo::dissociated) return result;
    if (ASC_destroyAssociation(assoc).bad()) {
        trace_toolkit_information("DCMTK_dissociate: destroy failure.\n");
        return tarvo::destroy_failed;
    }
    return tarvo::dissociated;
}

namespace tarvo {

void ParametersDestroyer::operator()(T_ASC_Parameters* params) const {
    // Frees memory; it has no way to fail.
    static_cast<void>(ASC_destroyAssociationParameters(&params));
}

RequestedAssociation::RequestedAssociation(RequestedAssociation&& other) noexcept
    : association_(std::exchange(other.association_, nullptr)) {}

RequestedAssociation& RequestedAssociation::operator=(RequestedAssociation&& other) noexcept {
    if (this != &other) {
        drop();
        association_ = std::exchange(other.association_, nullptr);
    }
    return *this;
}

RequestedAssociation::~RequestedAssociation() { drop(); }

int RequestedAssociation::request(T_ASC_Network* network, ParametersOwner params) {
    drop();
    const int result = DCMTK_associate(&association_, network, params.get());
    if (association_ != nullptr) static_cast<void>(params.release());  // they belong to it now
    if (result == association_rejected || result == association_failed) drop();
    return result;
}

int RequestedAssociation::end(const OFCondition& last_condition) {
    const int result = DCMTK_dissociate(&association_, last_condition);
    drop();
    return result;
}

void RequestedAssociation::drop() {
    if (association_ == nullptr) return;
    // The peer may be gone already; destroying closes the connection in any case.
    static_cast<void>(ASC_abortAssociation(association_));
    static_cast<void>(ASC_destroyAssociation(&association_));
}

}  // namespace tarvo
