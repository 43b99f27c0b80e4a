"""Queries and moves over an upper_layer.Association (PS3.4, annex C; PS3.7, 9.1.2 and 9.1.4)."""
from typing import NamedTuple

from data_set import encode, implied_vr, parse, tag_of
from upper_layer import (C_CANCEL, C_FIND, C_MOVE, DATA_SET_TYPE, DESTINATION, EXPLICIT_LE, FIELD,
                         NO_DATA_SET, PRIORITY, RESPONDED_TO, SECONDARY_CAPTURE, SOP_CLASS, STATUS,
                         STUDY_ROOT_FIND, STUDY_ROOT_MOVE, Association, command_set)

PATIENT_ROOT_FIND = "1.2.840.10008.5.1.4.1.2.1.1"
PATIENT_ROOT_MOVE = "1.2.840.10008.5.1.4.1.2.1.2"
REMAINING, COMPLETED, FAILED, WARNING = 0x1020, 0x1021, 0x1022, 0x1023
SUCCESS, PENDING, CANCELLED, WITH_FAILURES = 0x0000, 0xFF00, 0xFE00, 0xB000
CONTEXTS = [(sop_class, [EXPLICIT_LE]) for sop_class in
            (STUDY_ROOT_FIND, STUDY_ROOT_MOVE, PATIENT_ROOT_FIND, PATIENT_ROOT_MOVE,
             SECONDARY_CAPTURE)]
DELETE = "TarvoDeleteAET"


def client(server, contexts=CONTEXTS, **settings):
    return Association(server.port, contexts, **settings)


def identifier(level, **keys):
    """The bytes of a query; keys are DICOM keywords with text or bytes, empty to be answered."""
    elements = {tag_of(name): (implied_vr(tag_of(name)), value) for name, value in keys.items()}
    if level is not None:
        elements[0x8, 0x52] = "CS", level
    return encode(elements)


def ask(association, query, model=STUDY_ROOT_FIND):
    """Sends a C-FIND request and returns its message id."""
    request = {FIELD: C_FIND, SOP_CLASS: model, PRIORITY: 0}
    return association.send(association.by_class[model], request, query)


def cancel(association, message_id, model=STUDY_ROOT_FIND):
    fields = {FIELD: C_CANCEL, RESPONDED_TO: message_id, DATA_SET_TYPE: NO_DATA_SET}
    pdus = association.data_pdus(association.by_class[model], command_set(fields), True)
    association.socket.sendall(b"".join(pdus))


def next_answer(association, message_id):
    """(status, data set or None) of the next C-FIND response, whose form is checked."""
    fields, data = association.receive()
    assert fields[FIELD] == 0x8020 and fields[RESPONDED_TO] == message_id, fields
    assert (data is not None) == (fields[STATUS] == PENDING), fields
    return fields[STATUS], data and parse(data, EXPLICIT_LE)


def answers_to(association, message_id):
    """(final status, data sets of the pending responses in their order)."""
    found = []
    while True:
        status, data_set = next_answer(association, message_id)
        if status != PENDING:
            return status, found
        found.append(data_set)


def find(association, query, model=STUDY_ROOT_FIND):
    return answers_to(association, ask(association, query, model))


class Counters(NamedTuple):
    completed: int
    failed: int = 0
    warning: int = 0


class Moved(NamedTuple):
    status: int
    final: Counters
    pending: list  # of Counters


def request_move(association, destination, query, model=STUDY_ROOT_MOVE, priority=0):
    """Sends a C-MOVE request and returns its message id."""
    request = {FIELD: C_MOVE, SOP_CLASS: model, PRIORITY: priority, DESTINATION: destination}
    return association.send(association.by_class[model], request, query)


def next_move_response(association, message_id):
    """(status, counters) of the next C-MOVE response. None of them ever says what remains."""
    fields, data = association.receive()
    assert fields[FIELD] == 0x8021 and fields[RESPONDED_TO] == message_id, fields
    assert data is None and fields[DATA_SET_TYPE] == NO_DATA_SET
    status = fields[STATUS]
    # Final responses other than a cancel have no such field at all (PS3.7, 9.1.4.1).
    assert fields.get(REMAINING) == (0 if status in (PENDING, CANCELLED) else None), fields
    return status, Counters(*(fields[each] for each in (COMPLETED, FAILED, WARNING)))


def move_responses(association, message_id):
    pending = []
    while True:
        status, counters = next_move_response(association, message_id)
        if status != PENDING:
            return Moved(status, counters, pending)
        pending.append(counters)


def move(association, destination, query, **settings):
    return move_responses(association, request_move(association, destination, query, **settings))
