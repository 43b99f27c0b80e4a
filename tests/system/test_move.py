"""C-MOVE over the wire: what reaches the destination, and what the originator and the log hear."""
import threading
import time

import pytest

import archive
import harness
from data_set import (EXPLICIT_LE, PIXEL_DATA, SECONDARY_CAPTURE, SOP_CLASS_UID, UIDS, Image,
                      encode, identifier, image, parse, split_file)
from samples import SAMPLES
from storage_provider import HangUp, Turned, take_explicit
from upper_layer import (CANCELLED, CONTEXTS, PATIENT_ROOT_MOVE, SOP_CLASS, SOP_INSTANCE,
                         STUDY_ROOT_MOVE, SUCCESS, WITH_FAILURES, Counters, Moved, query_for)

CT, MR = "1.2.840.10008.5.1.4.1.1.2", "1.2.840.10008.5.1.4.1.1.4"
# More storage classes are known than an association has contexts: these are not proposed at first.
ULTRASOUND, XA = "1.2.840.10008.5.1.4.1.1.6.1", "1.2.840.10008.5.1.4.1.1.12.1"
PRIVATE = "1.2.826.0.1.3680043.9.7156.77.1"
LEFT_OUT = [ULTRASOUND, XA, PRIVATE]
JPEG = next(sample for sample in SAMPLES if sample.name == "JPEG2000.dcm")
ANY_CLASS = [*CONTEXTS, *((each, [EXPLICIT_LE]) for each in (CT, MR, *LEFT_OUT))]
STUDY = query_for("STUDY", "1.1")
NO_CONTEXT = "MOVE - store failed - no PC."
BUILDING_FAILED = "Building Move SubAssoc to AET DEST failed."


@pytest.fixture
def archive_of(servers):
    """archive_of([class, ...], provider): a server whose study 1.1 holds an image of each class in
    turn, and of JPEG the compressed one."""
    def fill(sop_classes, provider=None):
        server = servers(provider=provider)
        for number, sop_class in enumerate(sop_classes):
            syntax = JPEG.transfer_syntax if sop_class is JPEG else EXPLICIT_LE
            data = numbered(number, sop_class)
            with server.client(contexts=[(data.sop_class, [syntax])]) as association:
                assert association.store(data) == SUCCESS
        return server
    return fill


def uid(number):
    return f"1.3.{number}"


def numbered(number, sop_class=CT, series="1.2"):
    if sop_class is JPEG:
        return compressed(number)
    pixels = bytes([number]) * 1000
    return image("1.1", series, uid(number), pixels=pixels, sop_class=sop_class)


def compressed(number):
    """An image that nobody converts."""
    names = dict(zip([SOP_CLASS_UID, *UIDS], (SECONDARY_CAPTURE, "1.1", "1.2", uid(number))))
    elements = {tag: ("UI", name) for tag, name in names.items()}
    elements |= {tag: each for tag, each in JPEG.elements.items()
                 if tag >> 16 == 0x28 and each.vr != "SQ"}
    pixels = b"\xe0\x7f\x10\x00OB\0\0\xff\xff\xff\xff" + JPEG.elements[PIXEL_DATA].value
    made = Image(encode(elements) + pixels + b"\xfe\xff\xdd\xe0\0\0\0\0")
    made.uids = "1.1", "1.2", uid(number)
    return made


def file_of(server, number):
    return server.store / archive.image_path(numbered(number))


def move_study(server):
    with server.client() as association:
        return association.move("DEST", STUDY)


def concerned(server, number):
    return f"MOVE/STORE:File: {file_of(server, number)} AET: DEST" in server.messages()


@pytest.mark.parametrize("model", [STUDY_ROOT_MOVE, PATIENT_ROOT_MOVE])
@pytest.mark.parametrize("level, keys, numbers", [
    ("STUDY", {}, [0, 1, 2]), ("SERIES", {"SeriesInstanceUID": "1.2"}, [0, 1]),
    ("PATIENT", {"PatientID": "any", "SeriesInstanceUID": "1.4"}, [2]),
    ("IMAGE", {"SeriesInstanceUID": "1.2", "SOPInstanceUID": uid(1)}, [1]),
    ("STUDY", {"SOPInstanceUID": uid(2)}, [2]),  # whatever the level, every UID counts
    ("IMAGE", {"SOPInstanceUID": "9.9"}, []), ("SERIES", {"SeriesInstanceUID": "9.9"}, []),
    ("STUDY", {"StudyInstanceUID": "9.9"}, []), ("STUDY", {"StudyInstanceUID": ""}, []),
    ("STUDY", {"StudyInstanceUID": "1.1/../study_1.1"}, []),
    ("STUDY", {"SeriesInstanceUID": "1.2/../series_1.2"}, [])])
def test_which_images_are_moved(archive_of, provider, model, level, keys, numbers):
    server = archive_of([CT, CT], provider)
    with server.client(contexts=ANY_CLASS) as association:
        assert association.store(numbered(2, series="1.4")) == SUCCESS
        query = identifier(level, **{"StudyInstanceUID": "1.1", **keys})
        moved = association.move("DEST", query, model=model)
    steps = [Counters(done) for done in range(1, len(numbers) + 1)]
    assert moved == Moved(SUCCESS, Counters(len(numbers)), steps)
    assert provider.reached == list(map(uid, numbers))
    assert len(provider.calls) == (1 if numbers else 0)


# ---- presentation contexts ----


def test_classes_that_had_no_room_in_the_proposal_are_delivered(archive_of, provider):
    classes = [CT, ULTRASOUND, CT, ULTRASOUND, XA, PRIVATE, XA, CT, ULTRASOUND, PRIVATE]
    moved = move_study(archive_of(classes, provider))
    assert moved.status == SUCCESS and moved.final == Counters(len(classes))
    assert [received.fields[SOP_CLASS] for received in provider.received] == classes
    known, *others = [[each.abstract for each in call.contexts] for call in provider.calls]
    assert not set(known) & set(LEFT_OUT) and len(set(known)) == 128
    assert others == [[ULTRASOUND, *known[:127]], [XA, ULTRASOUND, *known[:126]],
                      [PRIVATE, XA, ULTRASOUND, *known[:125]]]
    for call in provider.calls:
        assert [context.number for context in call.contexts] == list(range(1, 256, 2))
        assert {len(context.transfers) for context in call.contexts} == {30}
        assert call.ended_by == "release"


@pytest.mark.parametrize("classes, taken, calls, delivered", [
    ([CT, CT, MR], {MR}, 1, [2]),                                # proposed: fails at once
    ([ULTRASOUND, CT, ULTRASOUND, XA], {CT, XA}, 3, [1, 3]),     # asked for once, not twice
    ([XA, ULTRASOUND, CT], {}, 3, []),
    ([CT, ULTRASOUND, CT], {ULTRASOUND}, 2, [1]),
])
def test_an_image_of_a_refused_class_fails(archive_of, provider, classes, taken, calls, delivered):
    provider.choose = lambda context: context.abstract in taken and EXPLICIT_LE
    server = archive_of(classes, provider)
    moved = move_study(server)
    failed = [number for number in range(len(classes)) if number not in delivered]
    assert (moved.status, moved.final) == (WITH_FAILURES, Counters(len(delivered), len(failed)))
    assert provider.reached == list(map(uid, delivered))
    assert len(provider.calls) == calls
    assert server.messages().count(NO_CONTEXT) == len(failed)
    assert all(concerned(server, number) for number in failed)


def test_an_image_refused_in_its_transfer_syntax_is_retried_alone(archive_of, provider):
    server = archive_of([CT, SECONDARY_CAPTURE, JPEG, CT], provider)
    moved = move_study(server)
    first, second = provider.calls
    assert len(first.contexts) == 128 and first.ended_by == second.ended_by == "release"
    assert second.contexts == [(1, SECONDARY_CAPTURE, (JPEG.transfer_syntax,))]
    [received] = second.received
    assert received.transfer_syntax == JPEG.transfer_syntax and received.data == compressed(2)
    # The sub-association with the single context stays: images of other classes fail.
    assert moved == Moved(WITH_FAILURES, Counters(3, 1), [Counters(1), Counters(2), Counters(3),
                                                          Counters(3, 1)])
    assert provider.reached == [uid(0), uid(1), uid(2)] and concerned(server, 3)


# ---- statuses and failures ----


def test_an_image_refused_in_every_transfer_syntax_fails(archive_of, provider):
    provider.choose = lambda context: EXPLICIT_LE in context.transfers and EXPLICIT_LE
    server = archive_of([CT, JPEG], provider)
    moved = move_study(server)
    assert (moved.status, moved.final) == (WITH_FAILURES, Counters(1, 1))
    assert [len(call.contexts) for call in provider.calls] == [128, 1]
    assert server.messages().count(BUILDING_FAILED) == 1 and concerned(server, 1)


def turn_away(_context):
    raise Turned


@pytest.mark.parametrize("choose, destination, message, times", [
    (turn_away, "DEST", BUILDING_FAILED, 1), (lambda context: None, "DEST", NO_CONTEXT, 3),
    (None, "DEST", BUILDING_FAILED, 1),  # it is not there
    *((take_explicit, title, f"Cannot resolve AETitle {title} to Presentation Address", 1)
      for title in ("NOWHERE", "dest", "tarvodeleteaet"))])
def test_a_destination_that_takes_nothing_fails_every_image(archive_of, provider, choose,
                                                            destination, message, times):
    provider.choose = choose
    if choose is None:
        provider.stop()
    server = archive_of([CT] * 3, provider)
    with server.client() as association:
        moved = association.move(destination, STUDY)
    assert moved == Moved(WITH_FAILURES, Counters(0, 3), [Counters(0, n) for n in (1, 2, 3)])
    assert len(provider.calls) == (choose is not None and destination == "DEST")
    assert server.messages().count(message) == times
    assert all(file_of(server, number).exists() for number in range(3))


def test_each_image_is_counted_where_it_belongs(archive_of, provider):
    statuses = {uid(2): 0xB000, uid(3): 0xA700, uid(5): 0xB105, uid(6): 0xC000, uid(7): 0x0122,
                uid(8): 0x0001}
    provider.choose = lambda context: context.abstract != MR and take_explicit(context)
    provider.answer = lambda received: statuses.get(received.fields[SOP_INSTANCE], 0)
    server = archive_of([CT, MR] + [CT] * 7 + [ULTRASOUND], provider)
    file_of(server, 4).unlink()
    moved = move_study(server)
    assert moved == Moved(WITH_FAILURES, Counters(2, 5, 2), [
        Counters(1), Counters(1, 1), Counters(1, 1, 1), Counters(1, 2, 1), Counters(1, 2, 1),
        Counters(1, 2, 2), Counters(1, 3, 2), Counters(1, 4, 2), Counters(1, 5, 2),
        Counters(2, 5, 2)])
    assert provider.reached == [uid(number) for number in (0, 2, 3, 5, 6, 7, 8, 9)]
    messages = server.messages()
    assert "Got warning in MOVE/STORE: Warning: CoercionOfDataElements" in messages
    assert "Got error in MOVE/STORE: Refused: OutOfResources" in messages
    assert all(concerned(server, number) for number in (1, 2, 3, 5, 6, 7, 8))
    assert "Move to AET DEST: 2 completed, 5 failed, 2 with a warning" in messages
    with server.client() as association:
        moved = association.move("DEST", query_for("IMAGE", "1.1", None, uid(2)))
    assert moved[:2] == (WITH_FAILURES, Counters(0, 0, 1))


@pytest.mark.parametrize("hang_ups, stays, completed, calls", [
    (1, True, 4, 2),   # the retry succeeds
    (2, True, 3, 3),   # the retry breaks too: the image fails, the next one reconnects
    (1, False, 1, 1),  # nobody takes the retry
])
def test_a_destination_that_dies_half_way(archive_of, provider, hang_ups, stays, completed, calls):
    left = [None] * hang_ups

    def answer(received):
        if received.fields[SOP_INSTANCE] == uid(1) and left:
            left.pop()
            if not stays:
                provider.stop()
            raise HangUp
        return SUCCESS

    provider.answer = answer
    server = archive_of([CT] * 4, provider)
    moved = move_study(server)
    assert moved.final == Counters(completed, 4 - completed) and len(moved.pending) == 4
    assert moved.status == (SUCCESS if completed == 4 else WITH_FAILURES)
    assert len(provider.calls) == calls
    assert all(call.contexts == [(1, CT, (EXPLICIT_LE,))] for call in provider.calls[1:])
    messages = server.messages()
    assert "Could write dset in pre-Associated syntax. Retrying anyway." in messages
    assert messages.count("Got error in MOVE/STORE.") == (hang_ups == 2)
    assert messages.count(BUILDING_FAILED) == (not stays)
    assert concerned(server, 1)


def test_a_destination_whose_address_the_toolkit_would_cut_gets_nothing(servers):
    address = f"{'a' * 54}.test:1040"
    server = servers(peers=f"DEST DEST {address} FMSD\n")
    assert server.store_one(numbered(0), contexts=ANY_CLASS) == SUCCESS
    moved = move_study(server)
    assert (moved.status, moved.final) == (WITH_FAILURES, Counters(0, 1))
    assert {f"Presentation Address {address} is too long", BUILDING_FAILED} <= {*server.messages()}


@pytest.mark.skipif(not harness.SLOW, reason="it takes more than a minute")
def test_a_destination_may_take_longer_than_a_minute(archive_of, provider):
    provider.answer = lambda received: time.sleep(63) or SUCCESS
    server = archive_of([CT], provider)
    with server.client(patience=90) as association:
        assert association.move("DEST", STUDY).final == Counters(1)
    assert provider.reached == [uid(0)]


def without_class(content):
    data = split_file(content)[1]
    elements = {tag: each for tag, each in parse(data).items() if tag != SOP_CLASS_UID}
    return content[:len(content) - len(data)] + encode(elements)


@pytest.mark.parametrize("damage, message", [
    (None, "MOVE/STORE:Cannot load dicom file {}."),
    (lambda content: content[:-100], "MOVE/STORE:Cannot load dicom file {}."),
    (without_class, "MOVE/STORE:Cannot retrieve sopClass/Instance."),
], ids=["missing", "cut short", "without class"])
def test_an_image_that_cannot_be_read_is_in_no_counter_but_in_the_log(archive_of, provider, damage,
                                                                      message):
    server = archive_of([CT] * 3, provider)
    path = file_of(server, 1)
    content = path.read_bytes()
    path.unlink()
    if damage:
        path.write_bytes(damage(content))
    steps = [Counters(1), Counters(1), Counters(2)]
    assert move_study(server) == Moved(SUCCESS, Counters(2), steps)
    assert provider.reached == [uid(0), uid(2)]
    assert message.format(path) in server.messages()
    assert any(str(path) in line for line in server.messages())


def test_a_cancelled_move_lets_the_destination_go_at_once(archive_of, provider):
    arrived, may_answer = threading.Event(), threading.Event()

    def answer(received):
        if received.fields[SOP_INSTANCE] == uid(1):
            arrived.set()
            assert may_answer.wait(10)
        return SUCCESS

    provider.answer = answer
    with archive_of([CT] * 5, provider).client() as association:
        number = association.request_move("DEST", STUDY)
        assert association.move_responses(number, 1).final == Counters(1)
        assert arrived.wait(10)
        association.cancel(number, STUDY_ROOT_MOVE)
        may_answer.set()
        moved = association.move_responses(number)
        assert moved == Moved(CANCELLED, Counters(2), [Counters(2)])
        [call] = provider.calls
        assert call.ended_by == "release"
        # The association is still good for everything.
        status, answers = association.find(STUDY)
        assert status == SUCCESS and len(answers) == 1
        assert association.move("DEST", STUDY).final == Counters(5)


def test_an_originator_that_leaves_ends_the_sub_association(archive_of, provider):
    """Nobody is left to report to: the destination must not be kept waiting."""
    server = archive_of([CT] * 50, provider)
    association = server.client()
    association.move_responses(association.request_move("DEST", STUDY), 1)
    association.abort()
    server.wait_until_idle()
    [call] = provider.calls
    assert call.ended_by in ("abort", "release")
