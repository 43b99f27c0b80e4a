// How the toolkit reads and writes its TCP connections.
#pragma once

#include <string>
#include <utility>

#include "dcmtk/config/osconfig.h"

#include "dcmtk/dcmnet/dcmlayer.h"

namespace tarvo {

// Plain TCP. To be set with ASC_setTransportLayer; it must outlive the network's associations.
// A connection reads ahead of the toolkit and keeps up to 16 KB of what the toolkit writes until
// that reads, asks whether there is something to read, or closes.
class TransportLayer : public DcmTransportLayer {
  public:
    TransportLayer() = default;

    // The next connection hands these bytes out, as if they came from its socket, before it reads
    // from there: for a request that has been read already.
    void replay(std::string bytes) { replayed_ = std::move(bytes); }

    DcmTransportConnection* createConnection(DcmNativeSocketType socket,
                                             OFBool useSecureLayer) override;

  private:
    std::string replayed_;
};

}  // namespace tarvo
