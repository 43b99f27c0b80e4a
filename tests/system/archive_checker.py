"""What must hold of an archive at any time, whatever has happened to it.

A `Ledger` notes what clients sent and what was answered; `problems` holds a running server and its
files against it:
- an image that was answered with Success is found at study, series and image level, and comes back
  by C-MOVE of its study as it was sent; one whose delete was answered is neither found nor there;
- of what was neither, anything may be there or not, but nothing half: a file under its final name
  is whole, and what stands in an index leads on to the next index;
- index files consist of whole records, and none names a thing twice.
"""
import copy
import re

import archive
from archive import crc, records, series_folder, study_folder
from data_set import SERIES_UID, SOP_UID, STUDY_UID, differences, image, parse, split_file
from query_retrieve import DELETE, SUCCESS, client, find, identifier, move
from upper_layer import EXPLICIT_LE, SECONDARY_CAPTURE, SOP_INSTANCE, Aborted

KEYS = ("StudyInstanceUID", "SeriesInstanceUID", "SOPInstanceUID")
# What the server leaves under names of its own while it works, or when it dies at that.
SCRATCH = re.compile(r"image_.*\.dcm\.\d+\.tmp|DELETEME|STUDYINDEX\..*redo.*")


def picture(uids, version=0, size=300, **more):
    """Unlike any other image and any other version."""
    attributes = {"PatientName": f"Name^{uids[0]}", "StudyDescription": "e" * (version % 5),
                  "Modality": ("CT", "MR", "US")[version % 3], **more}
    return image(*uids, pixels=f"{uids} {version}".encode().ljust(size, b"."),
                 **{name: value for name, value in attributes.items() if value is not None})


class Entry:
    def __init__(self):
        self.versions = []        # of the data set, any of which may be there
        self.is_certain = False   # answered with Success and not in doubt since
        self.is_doubtful = False  # to be deleted, and not sent since
        self.is_gone = False      # deleted, and not sent since


class Ledger:
    """What is known of each image, by its three UIDs."""

    def __init__(self, other=None):
        self.images = copy.deepcopy(other.images) if other else {}

    def store(self, association, uids, data):
        self.begin_store(uids, data)
        status = association.store(data, SECONDARY_CAPTURE, uids[2])
        if status == SUCCESS:
            self.end_store(uids)
        return status

    def begin_store(self, uids, data):
        entry = self.images.setdefault(uids, Entry())
        entry.versions.append(data)
        entry.is_gone = entry.is_doubtful = False

    def end_store(self, uids):
        entry = self.images[uids]
        entry.versions = entry.versions[-1:]
        entry.is_certain = True

    def delete(self, association, *named):
        """Deletes the study, series or image of these UIDs; returns (status, how many are gone)."""
        chosen = self.begin_delete(*named)
        moved = move(association, DELETE, identifier("STUDY", **dict(zip(KEYS, named))))
        for uids in chosen if moved.final.completed == len(chosen) else ():
            self.images[uids].is_gone = True
        return moved.status, moved.final.completed

    def begin_delete(self, *named):
        chosen = [uids for uids in self.images if uids[:len(named)] == named]
        for uids in chosen:
            self.images[uids].is_certain = False
            self.images[uids].is_doubtful = True
        return chosen

    def certain(self):
        return {uids for uids, entry in self.images.items() if entry.is_certain}

    def gone(self):
        return {uids for uids, entry in self.images.items() if entry.is_gone}


_parsed = {}


def _parse(data):
    if data not in _parsed:
        _parsed[data] = parse(data, EXPLICIT_LE)
    return _parsed[data]


def _is_version(ledger, uids, data, is_file=False):
    """Whether these bytes are a whole image that was sent under these UIDs."""
    try:
        found = parse(split_file(data)[1] if is_file else data, EXPLICIT_LE)
    except (AssertionError, IndexError, UnicodeDecodeError):
        return False  # torn
    versions = ledger.images[uids].versions if uids in ledger.images else ()
    return any(not differences(_parse(sent), found, True) for sent in versions)


def problems(server, ledger, provider, strict=True):
    """Everything that is wrong, in words. `provider` is known to the server as DEST.

    Not `strict`, after a power cut: an unanswered image may have a file without a record, and a
    delete may have been undone in part, so that there are two records of a thing.
    """
    with client(server) as association:  # first: it may have to put something in order
        listed, found = _walk(association, ledger, strict)
        found += _retrieval_problems(association, ledger, provider, listed)
    found += disk_problems(server.store, ledger, strict)
    found += [f"{uids} is lost" for uids in ledger.certain() - listed]
    found += [f"{uids} was deleted and is found" for uids in ledger.gone() & listed]
    return found + [f"{uids} was never sent" for uids in listed - ledger.images.keys()]


def _below(association, level, keys):
    status, answers = find(association, identifier(level, **keys))
    tag = {"STUDY": STUDY_UID, "SERIES": SERIES_UID, "IMAGE": SOP_UID}[level]
    uids = [answer[tag].value.rstrip(b"\0").decode() for answer in answers]
    return status, uids, [f"{level} {uid} is listed twice" for uid in set(uids)
                          if uids.count(uid) > 1]


def _walk(association, ledger, strict):
    """({uids}, what is wrong) as queries from the study level downwards find them."""
    status, studies, wrong = _below(association, "STUDY", {KEYS[0]: ""})
    if status != SUCCESS and ledger.certain():
        wrong.append(f"the query for studies ends with {status:04X}")
    listed = set()
    for study in studies:
        status, all_series, twice = _below(association, "SERIES", {KEYS[0]: study, KEYS[1]: ""})
        wrong += twice if strict else []
        for series in all_series:
            keys = {KEYS[0]: study, KEYS[1]: series, KEYS[2]: ""}
            status, images, twice = _below(association, "IMAGE", keys)
            wrong += twice if strict else []
            if status != SUCCESS:
                wrong.append(f"the query for images of series {series} ends with {status:04X}")
            listed |= {(study, series, image) for image in images}
    return listed, wrong


def _retrieval_problems(association, ledger, provider, listed):
    wrong, arrived = [], set()
    provider.calls.clear()
    of_instance = {uids[2]: uids for uids in listed}
    certain = ledger.certain()
    for study in sorted({uids[0] for uids in listed}):
        try:
            moved = move(association, "DEST", identifier("STUDY", StudyInstanceUID=study))
        except (EOFError, ConnectionError, Aborted) as end:
            return wrong + [f"the worker moving study {study} is gone: {end!r}"]
        here = {uids for uids in listed if uids[0] == study}
        if moved.final.completed < len(here & certain) or moved.final.failed > len(here - certain):
            wrong.append(f"moving study {study} ends with {moved}")
    for received in provider.received:
        uids = of_instance.get(received.fields[SOP_INSTANCE])
        arrived.add(uids)
        if not _is_version(ledger, uids, received.data):
            wrong.append(f"{uids} does not come back as it was sent")
    return wrong + [f"{uids} does not come back" for uids in certain & listed - arrived]


# ---- the files ----

def _index(path, size, wrong, strict):
    """The keys of the live records of an index file."""
    content = path.read_bytes() if path.exists() else b""
    if len(content) % size:
        wrong.append(f"{path} of {len(content)} bytes ends with a fragment")
    live = [record for record in records(content[:len(content) // size * size], size) if record[0]]
    keys = [record[:64].rstrip(b"\0").decode() for record in live]
    wrong += [f"{path} has {key} twice" for key in set(keys) if strict and keys.count(key) > 1]
    return keys


def disk_problems(store, ledger, strict=True):
    wrong, listed = [], set()
    certain, gone = ledger.certain(), ledger.gone()
    for study in study_uids(store, wrong):
        folder = store / study_folder(study.encode())
        series_index = folder / "SERIESINDEX.dat"
        for series in _index(series_index, archive.SERIES_RECORD[0], wrong, strict):
            index = store / series_folder(study.encode(), series.encode()) / "IMAGEINDEX.dat"
            if not index.exists():
                wrong.append(f"series {series} has no image index")
            for image in _index(index, archive.IMAGE_RECORD[0], wrong, strict):
                listed.add((study, series, image))
                if (study, series, image) in certain and not (
                        index.parent / f"image_{image}.dcm").exists():
                    wrong.append(f"{image} has no file")
    for path in (store / "uid").rglob("*"):
        if path.is_file():
            wrong += _file_problems(path, listed, ledger, gone, strict)
    return wrong


def _file_problems(path, listed, ledger, gone, strict):
    if path.name in ("STUDYINDEX.hash", "STUDYINDEX.dat", "SERIESINDEX.dat", "IMAGEINDEX.dat"):
        return []
    image = re.fullmatch(r"image_(.*)\.dcm", path.name)
    if image is None:
        return [] if SCRATCH.fullmatch(path.name) else [f"{path} is a strange file"]
    uids = path.parent.parent.name[6:], path.parent.name[7:], image[1]
    if not _is_version(ledger, uids, path.read_bytes(), is_file=True):
        return [f"{path} is torn or was never sent"]
    if uids in gone:
        return [f"{path} was deleted and is there"]
    # A file that cannot be deleted loses its record all the same.
    is_known = uids in listed or not strict or ledger.images[uids].is_doubtful
    return [] if is_known else [f"{path} stands in no index"]


def study_uids(store, wrong):
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
        if words[archive.NAME_BITS] & 1 or not uid:
            continue
        # An entry of zeros only is one whose writer was killed when it had made room for it.
        if any(words) and crc(uid) != words[archive.UID_CRC]:
            wrong.append(f"entry {number} of the hash is not that of {uid.decode()}")
        found.append(uid.decode())
    wrong += [f"study {uid} is there twice" for uid in set(found) if found.count(uid) > 1]
    return found
