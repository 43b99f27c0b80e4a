"""What the server makes of association requests, and of commands that it does not serve."""
import pytest

from data_set import DEFLATED, EXPLICIT_BE, EXPLICIT_LE, IMPLICIT_LE
from upper_layer import (ABSTRACT_SYNTAX_REFUSED, ACCEPTED, APPLICATION_CONTEXT, FIELD, N_ACTION,
                         PATIENT_ROOT_FIND, PATIENT_ROOT_MOVE, STUDY_ROOT_FIND, STUDY_ROOT_MOVE,
                         TRANSFER_SYNTAXES_REFUSED, VERIFICATION, Aborted, Rejected)

JPEG = "1.2.840.10008.1.2.4."
PREFERENCES = [EXPLICIT_LE, EXPLICIT_BE, IMPLICIT_LE, "1.2.840.10008.1.2.5", DEFLATED,
               *(JPEG + number for number in (
                   "90 91 92 93 50 51 52 53 54 55 56 57 58 59 60 61 62 63 64 65 66 70 80 81 100"
               ).split())]
UNLISTED = ["1.2.840.10008.1.2.4.101", "1.2.840.10008.1.2.4.107", "1.2.3.4"]
CT = "1.2.840.10008.5.1.4.1.1.2"
PRIVATE = "1.2.826.0.1.3680043.9.7156.99"
# GET in both models, worklist, performed step, film session, storage commitment
REFUSED_CLASSES = [f"1.2.840.10008.{rest}" for rest in (
    "5.1.4.1.2.2.3", "5.1.4.1.2.1.3", "5.1.4.31", "3.1.2.3.3", "5.1.1.1", "1.20.1")]


@pytest.mark.parametrize("abstract", [VERIFICATION, CT, PATIENT_ROOT_FIND, STUDY_ROOT_FIND,
                                      PATIENT_ROOT_MOVE, STUDY_ROOT_MOVE, PRIVATE])
def test_the_transfer_syntax_earliest_in_the_servers_order_is_accepted(server, abstract):
    # Every tail of the list, proposed in the opposite order and behind syntaxes that are not in it.
    contexts = [(abstract, UNLISTED + PREFERENCES[start:][::-1])
                for start in range(len(PREFERENCES))] + [(abstract, UNLISTED)]
    with server.client(contexts=contexts) as association:
        assert list(association.transfers.values()) == PREFERENCES
        assert association.results[2 * len(PREFERENCES) + 1] == TRANSFER_SYNTAXES_REFUSED


@pytest.mark.parametrize("options, result", [([], ACCEPTED), (["-N"], ABSTRACT_SYNTAX_REFUSED)],
                         ids=["plain", "-N"])
def test_classes_outside_the_storage_list(servers, options, result):
    classes = [VERIFICATION, PRIVATE, *REFUSED_CLASSES, STUDY_ROOT_FIND, CT]
    contexts = [(each, [IMPLICIT_LE]) for each in classes]
    with servers(*options).client(contexts=contexts) as association:
        assert list(association.results.values()) == [
            ACCEPTED, result, *[ABSTRACT_SYNTAX_REFUSED] * len(REFUSED_CLASSES), ACCEPTED, ACCEPTED]
        assert association.echo() == 0


def test_any_called_title_is_accepted_and_128_contexts_are_answered(server):
    contexts = [(VERIFICATION, [IMPLICIT_LE])] + [(CT, [EXPLICIT_LE])] * 127
    with server.client(contexts=contexts, called="SOMEBODY ELSE") as association:
        assert association.results == dict.fromkeys(range(1, 256, 2), ACCEPTED)
        assert association.peer_max_pdu == 16384
        assert association.answered_application_context == APPLICATION_CONTEXT
        assert association.echo() == 0
        assert association.release() == bytes.fromhex("06 00 00000004 00000000")
    server.wait_for_message("Inbound call from TESTER to SOMEBODY ELSE")


def test_a_wrong_application_context_is_rejected(server):
    for name in ("1.2.840.10008.3.1.1.2", "1.2.840.10008.3.1.1.1.1", "1.2.840.10008.3.1.1"):
        with pytest.raises(Rejected) as rejection:
            server.client(application_context=name)
        # rejected-permanent, by the service user: application context name not supported
        assert rejection.value.args[0] == bytes.fromhex("03 00 00000004 00 01 01 02")
        server.wait_for_message(f"Can't find StandardApplicationContext - have {name}")


def test_an_unsupported_command_aborts(server):
    with server.client() as association:
        association.send(1, {FIELD: N_ACTION, 0x3: VERIFICATION,
                             0x1001: "1.2.3", 0x1008: 1})
        with pytest.raises(Aborted) as abort:
            association.receive()
    assert abort.value.args[0] == bytes.fromhex("07 00 00000004 00 00 00 00")
    server.wait_for_message("Not handling unsupported request")
