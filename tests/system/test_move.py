"""C-MOVE over the wire: what reaches the destination, and what the originator and the log hear."""
import threading

import pytest

import archive
from data_set import encode, image, parse, split_file
from query_retrieve import (CANCELLED, CONTEXTS, PATIENT_ROOT_MOVE, PENDING, SUCCESS,
                            WITH_FAILURES, Counters, Moved, cancel, client, find, identifier, move,
                            move_responses, next_move_response, request_move)
from samples import SAMPLES
from storage_provider import HangUp, Provider, take_explicit
from upper_layer import (EXPLICIT_LE, SECONDARY_CAPTURE, SOP_CLASS, SOP_INSTANCE,
                         STUDY_ROOT_MOVE)

CT, MR = "1.2.840.10008.5.1.4.1.1.2", "1.2.840.10008.5.1.4.1.1.4"
# More storage classes are known than an association has contexts: these are not proposed at first.
ULTRASOUND, XA = "1.2.840.10008.5.1.4.1.1.6.1", "1.2.840.10008.5.1.4.1.1.12.1"
PRIVATE = "1.2.826.0.1.3680043.9.7156.77.1"
LEFT_OUT = [ULTRASOUND, XA, PRIVATE]
STUDY = identifier("STUDY", StudyInstanceUID="1.1")
JPEG = next(sample for sample in SAMPLES if sample.name == "JPEG2000.dcm")
NO_CONTEXT = "MOVE - store failed - no PC."
BUILDING_FAILED = "Building Move SubAssoc to AET DEST failed."


@pytest.fixture
def archive_of(servers):
    """archive_of([class, ...]): a server whose study 1.1 holds an image of each class in turn; its
    AE title map knows DEST at `provider` or `port`."""
    def fill(sop_classes, provider=None, port=None):
        address = provider.map_line if provider else f"DEST DEST 127.0.0.1:{port} FMSD\n"
        server = servers(peers=address)
        contexts = [(sop_class, [EXPLICIT_LE]) for sop_class in dict.fromkeys(sop_classes)]
        with client(server, contexts) as association:
            for number, sop_class in enumerate(sop_classes):
                assert association.store(numbered(number, sop_class), sop_class, uid(number)) == 0
        return server
    return fill


def uid(number):
    return f"1.3.{number}"


def numbered(number, sop_class=CT):
    return image("1.1", "1.2", uid(number), pixels=bytes([number]) * 1000, SOPClassUID=sop_class)


def file_of(server, number):
    return server.store / archive.image_path(parse(numbered(number), EXPLICIT_LE))


def move_study(server):
    with client(server) as association:
        return move(association, "DEST", STUDY)


def reached(provider):
    """The SOP Instance UIDs of the images in the order in which they came."""
    return [received.fields[SOP_INSTANCE] for received in provider.received]


def concerned(server, number):
    return f"MOVE/STORE:File: {file_of(server, number)} AET: DEST"



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
def test_which_images_are_moved(archive_of, model, level, keys, numbers):
    with Provider("DEST") as provider:
        server = archive_of([CT, CT], provider)
        with client(server, [(CT, [EXPLICIT_LE]), *CONTEXTS]) as association:
            assert association.store(image("1.1", "1.4", uid(2), SOPClassUID=CT), CT, uid(2)) == 0
            query = identifier(level, **{"StudyInstanceUID": "1.1", **keys})
            moved = move(association, "DEST", query, model=model)
        steps = [Counters(done) for done in range(1, len(numbers) + 1)]
        assert moved == Moved(SUCCESS, Counters(len(numbers)), steps)
        assert reached(provider) == list(map(uid, numbers))
        assert len(provider.calls) == (1 if numbers else 0)


# ---- presentation contexts ----


def test_classes_that_had_no_room_in_the_proposal_are_delivered(archive_of):
    classes = [CT, ULTRASOUND, CT, ULTRASOUND, XA, PRIVATE, XA, CT, ULTRASOUND, PRIVATE]
    with Provider("DEST") as provider:
        moved = move_study(archive_of(classes, provider))
        assert moved.status == SUCCESS and moved.final == Counters(len(classes))
        assert [received.fields[SOP_CLASS] for received in provider.received] == classes
        proposals = [call.classes for call in provider.calls]
        known = proposals[0]
        assert not set(known) & set(LEFT_OUT) and len(set(known)) == 128
        assert proposals[1:] == [[ULTRASOUND, *known[:127]], [XA, ULTRASOUND, *known[:126]],
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
def test_an_image_of_a_refused_class_fails(archive_of, classes, taken, calls, delivered):
    def choose(context):
        return take_explicit(context) if context.abstract in taken else None

    with Provider("DEST", choose) as provider:
        server = archive_of(classes, provider)
        moved = move_study(server)
        failed = [number for number in range(len(classes)) if number not in delivered]
        assert moved.status == WITH_FAILURES
        assert moved.final == Counters(len(delivered), len(failed))
        assert reached(provider) == list(map(uid, delivered))
        assert len(provider.calls) == calls
        messages = server.messages()
        assert messages.count(NO_CONTEXT) == len(failed)
        assert all(concerned(server, number) in messages for number in failed)


def store_compressed(server, number):
    """A compressed image, which nobody converts, at the end of study 1.1."""
    elements = parse(JPEG.sent, JPEG.transfer_syntax)
    small = {(0x8, 0x16): ("UI", SECONDARY_CAPTURE), (0x8, 0x18): ("UI", uid(number)),
             (0x20, 0xD): ("UI", "1.1"), (0x20, 0xE): ("UI", "1.2"),
             **{tag: elements[tag] for tag in elements if tag[0] == 0x28 and
                isinstance(elements[tag].value, bytes)}}
    frames = b"".join(b"\xfe\xff\x00\xe0" + len(each).to_bytes(4, "little") + each
                      for each in elements[0x7FE0, 0x10].value)
    pixels = b"\xe0\x7f\x10\x00OB\0\0\xff\xff\xff\xff" + frames + b"\xfe\xff\xdd\xe0\0\0\0\0"
    with client(server, [(SECONDARY_CAPTURE, [JPEG.transfer_syntax])]) as association:
        data = encode(small) + pixels
        assert association.store(data, SECONDARY_CAPTURE, uid(number)) == 0
    return data


def test_an_image_refused_in_its_transfer_syntax_is_retried_alone(archive_of):
    with Provider("DEST") as provider:
        server = archive_of([CT, SECONDARY_CAPTURE], provider)
        data = store_compressed(server, 2)
        with client(server, [(CT, [EXPLICIT_LE]), *CONTEXTS]) as association:
            assert association.store(numbered(3), CT, uid(3)) == 0
            moved = move(association, "DEST", STUDY)
        first, second = provider.calls
        assert len(first.contexts) == 128 and first.ended_by == second.ended_by == "release"
        [context] = second.contexts
        assert context == (1, SECONDARY_CAPTURE, (JPEG.transfer_syntax,))
        [received] = second.received
        assert received.transfer_syntax == JPEG.transfer_syntax and received.data == data
        # The sub-association with the single context stays: images of other classes fail.
        assert moved == Moved(WITH_FAILURES, Counters(3, 1), [Counters(1), Counters(2), Counters(3),
                                                              Counters(3, 1)])
        assert reached(provider) == [uid(0), uid(1), uid(2)]
        assert concerned(server, 3) in server.messages()


# ---- statuses and failures ----


def test_an_image_refused_in_every_transfer_syntax_fails(archive_of):
    def choose(context):
        return EXPLICIT_LE if EXPLICIT_LE in context.transfers else None

    with Provider("DEST", choose) as provider:
        server = archive_of([CT], provider)
        store_compressed(server, 1)
        moved = move_study(server)
        assert moved.status == WITH_FAILURES and moved.final == Counters(1, 1)
        assert [len(call.contexts) for call in provider.calls] == [128, 1]
        assert server.messages().count(BUILDING_FAILED) == 1
        assert concerned(server, 1) in server.messages()


@pytest.mark.parametrize("choose, message, times", [
    (lambda context: "reject", BUILDING_FAILED, 1), (lambda context: None, NO_CONTEXT, 3),
    (None, BUILDING_FAILED, 1)], ids=["rejects", "accepts no context", "is not there"])
def test_a_destination_that_takes_nothing_fails_every_image(archive_of, choose, message, times):
    with Provider("DEST", choose) as provider:
        if choose is None:
            provider.stop()
        server = archive_of([CT] * 3, provider)
        moved = move_study(server)
        assert moved == Moved(WITH_FAILURES, Counters(0, 3), [Counters(0, n) for n in (1, 2, 3)])
        assert len(provider.calls) == (choose is not None)
        assert server.messages().count(message) == times


def test_an_unknown_destination_fails_every_image_and_is_logged_once(archive_of):
    server = archive_of([CT] * 3, port=1)
    with client(server) as association:
        for title in ("NOWHERE", "dest", "tarvodeleteaet"):
            moved = move(association, title, STUDY)
            assert moved == Moved(WITH_FAILURES, Counters(0, 3),
                                  [Counters(0, 1), Counters(0, 2), Counters(0, 3)])
            line = f"Cannot resolve AETitle {title} to Presentation Address"
            assert server.messages().count(line) == 1
    assert all(file_of(server, number).exists() for number in range(3))


def test_each_image_is_counted_where_it_belongs(archive_of):
    statuses = {2: 0xB000, 3: 0xA700, 5: 0xB105, 6: 0xC000, 7: 0x0122, 8: 0x0001}
    classes = [CT, MR] + [CT] * 7 + [ULTRASOUND]

    def choose(context):
        return None if context.abstract == MR else take_explicit(context)

    def answer(received):
        return statuses.get(int(received.fields[SOP_INSTANCE].rpartition(".")[2]), 0)

    with Provider("DEST", choose, answer) as provider:
        server = archive_of(classes, provider)
        file_of(server, 4).unlink()
        moved = move_study(server)
        assert moved == Moved(WITH_FAILURES, Counters(2, 5, 2), [
            Counters(1), Counters(1, 1), Counters(1, 1, 1), Counters(1, 2, 1), Counters(1, 2, 1),
            Counters(1, 2, 2), Counters(1, 3, 2), Counters(1, 4, 2), Counters(1, 5, 2),
            Counters(2, 5, 2)])
        assert reached(provider) == [uid(number) for number in (0, 2, 3, 5, 6, 7, 8, 9)]
        messages = server.messages()
        assert "Got warning in MOVE/STORE: Warning: CoercionOfDataElements" in messages
        assert "Got error in MOVE/STORE: Refused: OutOfResources" in messages
        assert all(concerned(server, number) in messages for number in (1, 2, 3, 5, 6, 7, 8))
        assert "Move to AET DEST: 2 completed, 5 failed, 2 with a warning" in messages
        one = identifier("IMAGE", StudyInstanceUID="1.1", SOPInstanceUID=uid(2))
        with client(server) as association:
            assert move(association, "DEST", one)[:2] == (WITH_FAILURES, Counters(0, 0, 1))


@pytest.mark.parametrize("hang_ups, stays, completed, calls", [
    (1, True, 4, 2),   # the retry succeeds
    (2, True, 3, 3),   # the retry breaks too: the image fails, the next one reconnects
    (1, False, 1, 1),  # nobody takes the retry
])
def test_a_destination_that_dies_half_way(archive_of, hang_ups, stays, completed, calls):
    left = [hang_ups]

    def answer(received):
        if received.fields[SOP_INSTANCE] == uid(1) and left[0]:
            left[0] -= 1
            if not stays:
                provider.stop()
            raise HangUp
        return 0

    with Provider("DEST", answer=answer) as provider:
        server = archive_of([CT] * 4, provider)
        moved = move_study(server)
        assert moved.final == Counters(completed, 4 - completed)
        assert moved.status == (SUCCESS if completed == 4 else WITH_FAILURES)
        assert len(moved.pending) == 4 and len(provider.calls) == calls
        assert all(call.contexts == [(1, CT, (EXPLICIT_LE,))] for call in provider.calls[1:])
        messages = server.messages()
        assert "Could write dset in pre-Associated syntax. Retrying anyway." in messages
        assert messages.count("Got error in MOVE/STORE.") == (hang_ups == 2)
        assert messages.count(BUILDING_FAILED) == (not stays)
        assert concerned(server, 1) in messages


def without_class(content):
    data = split_file(content)[1]
    elements = {tag: element for tag, element in parse(data, EXPLICIT_LE).items()
                if tag != (0x8, 0x16)}
    return content[:len(content) - len(data)] + encode(elements)


@pytest.mark.parametrize("damage, message", [
    (None, "MOVE/STORE:Cannot load dicom file {}."),
    (lambda content: content[:-100], "MOVE/STORE:Cannot load dicom file {}."),
    (without_class, "MOVE/STORE:Cannot retrieve sopClass/Instance."),
], ids=["missing", "cut short", "without class"])
def test_an_image_that_cannot_be_read_is_in_no_counter_but_in_the_log(archive_of, damage, message):
    with Provider("DEST") as provider:
        server = archive_of([CT] * 3, provider)
        path = file_of(server, 1)
        content = path.read_bytes()
        path.unlink()
        if damage:
            path.write_bytes(damage(content))
        moved = move_study(server)
        assert moved == Moved(SUCCESS, Counters(2), [Counters(1), Counters(1), Counters(2)])
        assert reached(provider) == [uid(0), uid(2)]
        assert message.format(path) in server.messages()
        assert any(str(path) in line for line in server.messages())


def test_a_cancelled_move_lets_the_destination_go_at_once(archive_of):
    arrived, may_answer = threading.Event(), threading.Event()

    def answer(received):
        if received.fields[SOP_INSTANCE] == uid(1):
            arrived.set()
            assert may_answer.wait(10)
        return 0

    with Provider("DEST", answer=answer) as provider:
        server = archive_of([CT] * 5, provider)
        with client(server) as association:
            number = request_move(association, "DEST", STUDY)
            assert next_move_response(association, number) == (PENDING, Counters(1))
            assert arrived.wait(10)
            cancel(association, number, STUDY_ROOT_MOVE)
            may_answer.set()
            moved = move_responses(association, number)
            assert moved == Moved(CANCELLED, Counters(2), [Counters(2)])
            [call] = provider.calls
            assert call.ended_by == "release"
            # The association is still good for everything.
            status, answers = find(association, identifier("STUDY", StudyInstanceUID="1.1"))
            assert status == SUCCESS and len(answers) == 1
            assert move(association, "DEST", STUDY).final == Counters(5)


def test_an_originator_that_leaves_ends_the_sub_association(archive_of):
    """Nobody is left to report to: the destination must not be kept waiting."""
    with Provider("DEST") as provider:
        server = archive_of([CT] * 50, provider)
        association = client(server)
        number = request_move(association, "DEST", STUDY)
        assert next_move_response(association, number)[0] == PENDING
        association.abort()
        server.wait_until_idle()
        [call] = provider.calls
        assert call.ended_by in ("abort", "release")
