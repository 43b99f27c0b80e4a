"""What must hold of an archive at any time, whatever has happened to it.

A `Ledger` notes what clients sent and what was answered; `problems` holds a running server and its
files against it:
- an image that was answered with Success is found at study, series and image level, and comes back
  by C-MOVE of its study as it was sent; one whose delete was answered is neither found nor there;
- of what was neither, anything may be there or not, but nothing half: a file under its final name
  is whole, and what stands in an index leads on to the next index;
- index files consist of whole records, and none names a thing twice.
"""
import itertools
import math
import re

import archive
from archive import crc, key_of, records, series_folder, study_folder
from data_set import UIDS, image
from upper_layer import DELETE, GONE, SOP_INSTANCE, SUCCESS, query_for, uid_of

# What the server leaves under names of its own while it works, or when it dies at that.
SCRATCH = re.compile(r"image_.*\.dcm\.\d+\.tmp|DELETEME|STUDYINDEX\..*redo.*")


def uids_of(study, series=0, number=0):
    return f"1.{study}", f"1.{study}.{series}", f"1.{study}.{series}.{number}"


def picture(uids, version=0, size=300, **more):
    """Unlike any other image and any other version."""
    attributes = {"PatientName": f"Name^{uids[0]}", "StudyDescription": "e" * (version % 5),
                  "Modality": ("CT", "MR", "US")[version % 3], **more}
    return image(*uids, pixels=f"{uids} {version}".encode().ljust(size, b"."), **attributes)


class Event:
    """A store or a delete: when it began and ended, on the clock of the ledger."""

    def __init__(self, clock, data=None):
        self.clock, self.data = clock, data
        self.begin, self.end, self.ok = next(clock), math.inf, False

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end = next(self.clock)


class Ledger:
    """What is known of each image, by its three UIDs. Many threads may use it at once."""

    def __init__(self, other=None):
        self.clock = other.clock if other else itertools.count()
        self.stores, self.deletes = ({key: list(events) for key, events in log.items()} for log in
                                     ((other.stores, other.deletes) if other else ({}, {})))

    def store(self, association, data):
        with self.begin_store(data) as event:
            status = association.store(data)
            event.ok = status == SUCCESS
        return status

    def begin_store(self, data):
        event = Event(self.clock, data)
        self.stores.setdefault(data.uids, []).append(event)
        return event

    def end_store(self, uids):
        """The last store of this image has succeeded."""
        with self.stores[uids][-1] as event:
            event.ok = True

    def delete(self, association, *named):
        """Deletes the study, series or image of these UIDs; returns (status, how many are gone)."""
        wanted = len([uids for uids in self.certain() if uids[:len(named)] == named])
        with self.begin_delete(*named) as event:
            moved = association.move(DELETE, query_for("STUDY", *named))
            event.ok = moved.status == SUCCESS and moved.final.completed >= wanted
        return moved.status, moved.final.completed

    def begin_delete(self, *named):
        event = Event(self.clock)
        self.deletes.setdefault(named, []).append(event)
        return event

    def _deletes_of(self, uids):
        return [event for depth in (1, 2, 3) for event in self.deletes.get(uids[:depth], ())]

    def is_certain(self, uids):
        """Whether it was answered with Success, and no delete has touched it since."""
        deletes = self._deletes_of(uids)
        return any(store.ok and all(delete.end < store.begin for delete in deletes)
                   for store in self.stores[uids])

    def is_gone(self, uids):
        """Whether it was deleted, and not sent since."""
        return any(delete.ok and all(store.end < delete.begin for store in self.stores[uids])
                   for delete in self._deletes_of(uids))

    def is_doubtful(self, uids):
        """Whether it was to be deleted, and not sent since."""
        return any(delete.end > self.stores[uids][-1].begin for delete in self._deletes_of(uids))

    def certain(self):
        return {uids for uids in list(self.stores) if self.is_certain(uids)}

    def gone(self):
        return {uids for uids in list(self.stores) if self.is_gone(uids)}

    def has_version(self, uids, data):
        """Whether these bytes are an image that was sent under these UIDs and may be there."""
        stores = self.stores.get(uids, ())
        latest = max((store.begin for store in stores if store.ok), default=-1)
        return any(store.data == data for store in stores if store.end >= latest)


def problems(server, ledger, provider, strict=True):
    """Everything that is wrong, in words. `provider` is known to the server as DEST.

    Not `strict`, after a power cut: an unanswered image may have a file without a record, and a
    delete may have been undone in part, so that there are two records of a thing.
    """
    certain, gone = ledger.certain(), ledger.gone()
    with server.client() as association:  # first: it may have to put something in order
        listed, found = _walk(association, (), strict)
        found += _retrieval_problems(association, ledger, provider, listed, certain)
    found += disk_problems(server.store, ledger, certain, gone, strict)
    found += [f"{uids} is lost" for uids in certain - listed]
    found += [f"{uids} was deleted and is found" for uids in gone & listed]
    return found + [f"{uids} was never sent" for uids in listed - ledger.stores.keys()]


def _walk(association, above, strict):
    """({uids}, what is wrong) as queries from the study level downwards find them."""
    level = ("STUDY", "SERIES", "IMAGE")[len(above)]
    status, answers = association.find(query_for(level, *above, ""))
    found = [(*above, uid_of(answer, UIDS[len(above)])) for answer in answers]
    wrong = [f"{uids} is listed twice" for uids in set(found)
             if found.count(uids) > 1 and (strict or not above)]
    if status != SUCCESS:
        wrong.append(f"the query below {above} ends with {status:04X}")
    if level == "IMAGE":
        return set(found), wrong
    listed = set()
    for uids in found:
        more, bad = _walk(association, uids, strict)
        listed, wrong = listed | more, wrong + bad
    return listed, wrong


def _retrieval_problems(association, ledger, provider, listed, certain):
    wrong, arrived = [], set()
    provider.calls.clear()
    for study in sorted({uids[0] for uids in listed}):
        try:
            moved = association.move("DEST", query_for("STUDY", study))
        except GONE as end:
            return wrong + [f"the worker moving study {study} is gone: {end!r}"]
        here = {uids for uids in listed if uids[0] == study}
        if moved.final.completed < len(here & certain) or moved.final.failed > len(here - certain):
            wrong.append(f"moving study {study} ends with {moved}")
    of_instance = {uids[2]: uids for uids in listed}
    for received in provider.received:
        uids = of_instance.get(received.fields[SOP_INSTANCE])
        arrived.add(uids)
        if not ledger.has_version(uids, received.data):
            wrong.append(f"{uids} does not come back as it was sent")
    return wrong + [f"{uids} does not come back" for uids in certain & listed - arrived]


# ---- the files ----

def _index(path, size, wrong, strict):
    """The keys of the live records of an index file."""
    content = path.read_bytes() if path.exists() else b""
    if len(content) % size:
        wrong.append(f"{path} of {len(content)} bytes ends with a fragment")
    keys = [key_of(record).decode() for record in records(content[:len(content) // size * size],
                                                          size) if record[0]]
    wrong += [f"{path} has {key} twice" for key in set(keys) if strict and keys.count(key) > 1]
    return keys


def disk_problems(store, ledger, certain, gone, strict):
    wrong, listed = [], set()
    for study in study_uids(store, wrong, strict):
        series_index = store / study_folder(study.encode()) / "SERIESINDEX.dat"
        for series in _index(series_index, archive.SERIES_RECORD[0], wrong, strict):
            index = store / series_folder(study.encode(), series.encode()) / "IMAGEINDEX.dat"
            if not index.exists():
                wrong.append(f"series {series} has no image index")
            images = _index(index, archive.IMAGE_RECORD[0], wrong, strict)
            listed |= {(study, series, each) for each in images}
            wrong += [f"{each} has no file" for each in images if (study, series, each) in certain
                      and not (index.parent / f"image_{each}.dcm").exists()]
    for path in (store / "uid").rglob("*"):
        if not path.is_file() or path.name.endswith(("INDEX.hash", "INDEX.dat")):
            continue
        image_file = re.fullmatch(r"image_(.*)\.dcm", path.name)
        if image_file is None:
            wrong += [f"{path} is a strange file"] * (not SCRATCH.fullmatch(path.name))
            continue
        uids = path.parent.parent.name[6:], path.parent.name[7:], image_file[1]
        content = path.read_bytes()
        behind_meta = 144 + int.from_bytes(content[140:144], "little")  # PS3.10, 7.1
        if not ledger.has_version(uids, content[behind_meta:]):
            wrong.append(f"{path} is torn or was never sent")
        elif uids in gone:
            wrong.append(f"{path} was deleted and is there")
        # A file that cannot be deleted loses its record all the same.
        elif strict and uids not in listed and not ledger.is_doubtful(uids):
            wrong.append(f"{path} stands in no index")
    return wrong


def study_uids(store, wrong, strict):
    """The living studies, whose hash entries are held against their records."""
    contents = [path.read_bytes() if path.exists() else b"" for path in
                (store / "uid/STUDYINDEX.hash", store / "uid/STUDYINDEX.dat")]
    if len(contents[0]) % archive.HASH_SIZE:
        wrong.append(f"a hash file of {len(contents[0])} bytes ends with a fragment")
        return []
    found = []
    for number, entry in enumerate(records(contents[0], archive.HASH_SIZE)):
        words = [int.from_bytes(entry[at:at + 4], "little") for at in range(0, 28, 4)]
        uid = contents[1][number * archive.DATA_SIZE:][:64].rstrip(b"\0")
        is_deleted = words[archive.NAME_BITS] & 1
        # An entry of zeros only is one whose writer was killed when it had made room for it.
        if any(words) and not is_deleted and crc(uid) != words[archive.UID_CRC] and (uid or strict):
            wrong.append(f"entry {number} of the hash is not that of {uid.decode()}")
        if uid and not is_deleted:
            found.append(uid.decode())
    wrong += [f"study {uid} is there twice" for uid in set(found) if found.count(uid) > 1]
    return found
