// Requesting and ending associations (PS3.8, 7.1 to 7.4).
#pragma once

#include <memory>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/assoc.h"

// Parameters for requesting an association. AE titles have at most 16 characters (PS3.5, VR AE);
// `peerAddress` is "host:port". Null defaults: calling title "DCMTK_LIB", called title "ANY-SCP",
// local host this machine's host name. The toolkit cuts each address at 63 characters. `maxPDU`
// is the longest PDU that we take, in bytes; the toolkit raises it to 4096 and cannot request
// with more than 131072.
//
// Null on failure. The caller owns the parameters (tarvo::ParametersOwner) until DCMTK_associate.
[[nodiscard]] T_ASC_Parameters* DCMTK_params_init(const char* callingAETitle, const char* localHost,
                                                  const char* calledAETitle,
                                                  const char* peerAddress, bool secureTransport,
                                                  unsigned long maxPDU);

// Results of DCMTK_associate.
namespace tarvo {
constexpr int association_accepted = 0;
constexpr int association_rejected = -1;
constexpr int association_failed = -2;
constexpr int association_without_context = -3;
}  // namespace tarvo

// Requests an association. Returns one of the codes above.
//
// Whenever *assoc is not null afterwards, also after -1 and -2, it owns the parameters, and
// ASC_destroyAssociation gives both back. When it is null (nothing was proposed, or a null
// argument), the parameters stay with the caller. After 0 and -3 the association is established
// and is to be ended with DCMTK_dissociate; after -1 and -2 that would fail: only destroy it.
// tarvo::RequestedAssociation sees to all of this.
[[nodiscard]] int DCMTK_associate(T_ASC_Association** assoc, T_ASC_Network* network,
                                  T_ASC_Parameters* params);

// Results of DCMTK_dissociate.
namespace tarvo {
constexpr int dissociated = 0;
constexpr int release_failed = -1;
constexpr int abort_failed = -2;
constexpr int destroy_failed = -3;
}  // namespace tarvo

// Ends an association by the condition that ended the work on it: releases it after EC_Normal,
// sends nothing after a peer's abort, aborts it otherwise (also when the peer asked for a release,
// which a requestor's peer must not). Then destroys it and clears *assoc. Returns one of the codes
// above; after release_failed and abort_failed *assoc still stands and holds its memory and its
// socket.
int DCMTK_dissociate(T_ASC_Association** assoc, const OFCondition& lastCondition);

namespace tarvo {

struct ParametersDestroyer {
    void operator()(T_ASC_Parameters* params) const;
};
using ParametersOwner = std::unique_ptr<T_ASC_Parameters, ParametersDestroyer>;

// Owner of one requested association together with its parameters. What is still established when
// the owner goes is aborted: an early return cannot leave a peer waiting.
class RequestedAssociation {
  public:
    RequestedAssociation() = default;
    RequestedAssociation(RequestedAssociation&& other) noexcept;
    RequestedAssociation& operator=(RequestedAssociation&& other) noexcept;
    RequestedAssociation(const RequestedAssociation&) = delete;
    RequestedAssociation& operator=(const RequestedAssociation&) = delete;
    ~RequestedAssociation();

    // DCMTK_associate, after dropping what was held. Holds an association only after 0 and -3.
    // `network` is borrowed and must outlive the request only.
    [[nodiscard]] int request(T_ASC_Network* network, ParametersOwner params);

    // DCMTK_dissociate. Holds nothing afterwards, whatever it returns.
    int end(const OFCondition& last_condition);

    [[nodiscard]] T_ASC_Association* get() const { return association_; }
    explicit operator bool() const { return association_ != nullptr; }

  private:
    void drop();

    T_ASC_Association* association_ = nullptr;
};

}  // namespace tarvo
