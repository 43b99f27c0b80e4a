// Proposing and answering presentation contexts (PS3.8, 9.3.2.2 and 9.3.3.2) with the server's one
// list of transfer syntaxes. Parameters are always borrowed. Conditions are the toolkit's.
#pragma once

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmnet/assoc.h"

// The 30 standard transfer syntax UIDs in order of preference: explicit VR in the byte order of
// this host, explicit VR in the other one, implicit VR, then the compressed ones. Proposed and
// accepted in this order. `count` receives 30. The list is constant: the pointers are only not
// const because the toolkit's signatures are not.
[[nodiscard]] const char** DCMTK_get_STD_TS(int& count);

// Proposes `abstractSyntax` with the whole standard list and the default role.
// `presentationContextID` is odd, 1 to 255, and new in `params` (at most 128 contexts): anything
// else is refused with a bad condition and `params` stay as they are.
OFCondition DCMTK_params_add_std_PC(T_ASC_Parameters* params, unsigned long presentationContextID,
                                    const char* abstractSyntax);

// Accepts each proposed context of one of the `count` SOP classes in the earliest transfer syntax
// of the standard list that the peer offers for it, with the default role. Every other context
// that has not been accepted before is refused; a later call may still accept it. Bad when nothing
// at all is proposed.
OFCondition DCMTK_params_accept_std_PCs(T_ASC_Parameters* params, const char** abstractSyntaxes,
                                        int count);
OFCondition DCMTK_params_accept_std_PC(T_ASC_Parameters* params, const char* abstractSyntax);

// Accepts each proposed context whose SOP class the toolkit's UID dictionary does not know
// (private ones and those newer than the toolkit) if it offers `transferSyntax`, also when it was
// accepted with another one before. The remaining contexts: an earlier acceptance stands; the
// rest is refused, for its transfer syntaxes when the SOP class is unknown or that was already the
// reason, else for its abstract syntax.
OFCondition DCMTK_params_accept_unknown_PC(T_ASC_Parameters* params, const char* transferSyntax,
                                           T_ASC_SC_ROLE role);

// The same for `count` transfer syntaxes in order of preference. Stops at the first bad condition.
OFCondition DCMTK_params_accept_unknown_PCs(T_ASC_Parameters* params, const char** transferSyntaxes,
                                            int count, T_ASC_SC_ROLE role);
