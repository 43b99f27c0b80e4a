"""The archive's files on disk, computed from the images sent and without any code of the server.

`Archive.store` takes data sets as data_set.parse returns them; `Archive.index_files` then gives
the bytes that every index file must hold.
"""
import re
import zlib

from pydicom.charset import convert_encodings, decode_bytes
from pydicom.valuerep import PN_DELIMS, TEXT_VR_DELIMS

from data_set import CHARACTER_SET, SERIES_UID, SOP_UID, STUDY_UID, TEXT, UIDS, parse

# The size of a record; width and attribute of its fields.
SERIES_RECORD = 320, [
    (64, SERIES_UID), (64, STUDY_UID), (64, 0x0008103E), (64, 0x00181030), (8, 0x00080021),
    (6, 0x00080031), (12, 0x00200011), (16, 0x00180015), (4, 0x00185100), (2, 0x00080060)]
IMAGE_RECORD = 768, [
    (64, SOP_UID), (64, SERIES_UID), (64, STUDY_UID), (64, 0x00080008), (256, 0x00204000),
    (32, 0x00200020), (16, 0x00201041), (52, 0x00200032), (104, 0x00200037), (12, 0x00200012),
    (12, 0x00200013), (12, 0x00201002), (8, 0x00080022), (6, 0x00080032)]
HASH_SIZE, DATA_SIZE = 28, 512
PLAIN, CONVERTED, NAME = range(3)
# offset and width in the study record, attribute, kind of text
STUDY_FIELDS = [
    (0, 64, STUDY_UID, PLAIN), (64, 64, 0x00100010, NAME), (128, 64, 0x00100020, CONVERTED),
    (192, 64, 0x00081030, CONVERTED), (256, 64, 0x00080090, NAME), (320, 64, 0x00080092, CONVERTED),
    (400, 8, 0x00100030, PLAIN), (408, 8, 0x00080020, PLAIN), (416, 6, 0x00080030, PLAIN),
    (422, 2, 0x00100040, PLAIN), (424, 24, 0x00120031, CONVERTED), (448, 16, 0x00120010, CONVERTED),
    (464, 16, 0x00120021, CONVERTED), (480, 16, 0x00080050, CONVERTED),
    (496, 16, 0x00200010, CONVERTED)]
# The words of the hash entry, and by offset in the study record the field that each sums up.
(NAME_BITS, DESCRIPTION_BITS, PHYSICIAN_BITS, BIRTH_DATE, STUDY_DATE, MODALITY_BITS,
 UID_CRC) = range(7)
BITS_OF = {64: NAME_BITS, 192: DESCRIPTION_BITS, 256: PHYSICIAN_BITS}
DATE_OF = {400: BIRTH_DATE, 408: STUDY_DATE}
MODALITY = 0x00080060
MODALITIES = {b"CT": 1, b"MR": 2, b"PT": 4, b"ST": 8, b"CR": 0x10, b"NM": 0x20, b"US": 0x40,
              b"RG": 0x80, b"XA": 0x100, b"OT": 0x10000000}


def text(data_set, tag):
    """The value of a top-level attribute without padding; None when absent or empty."""
    vr, value = data_set.get(tag, ("", b""))
    if not value or vr not in TEXT:
        return None
    if vr == "UI":
        return re.sub(rb"\s", b"", value).split(b"\0")[0]
    return value.rstrip(b" ").split(b"\0")[0]


def converted(data_set, tag, kind):
    """Like text, and in UTF-8 where the archive keeps that."""
    value, charset = text(data_set, tag), text(data_set, CHARACTER_SET)
    if value is None or charset is None or kind == PLAIN:
        return value
    delimiters = PN_DELIMS if kind == NAME else TEXT_VR_DELIMS
    return decode_bytes(value, convert_encodings(charset.decode().split("\\")), delimiters).encode()


def crc(uid):
    return zlib.crc32(uid)  # 0 for an empty text


def study_folder(study):
    return f"uid/{crc(study) & 255:02X}/{crc(study) >> 8 & 255:02X}/study_{study.decode()}"


def series_folder(study, series):
    return f"{study_folder(study)}/series_{series.decode()}"


def image_path(data_set):
    """Where an image lies, given as bytes or parsed."""
    data_set = parse(data_set) if isinstance(data_set, bytes) else data_set
    study, series, instance = (text(data_set, tag) for tag in UIDS)
    return f"{series_folder(study, series)}/image_{instance.decode()}.dcm"


def field(value, width):
    return (value or b"")[:width].ljust(width, b"\0")


def record(data_set, layout):
    size, fields = layout
    return b"".join(field(text(data_set, tag), width) for width, tag in fields).ljust(size, b"\0")


def records(content, size):
    assert len(content) % size == 0, f"{len(content)} bytes are no whole number of {size}"
    return [content[at:at + size] for at in range(0, len(content), size)]


def key_of(some_record):
    return some_record[:64].rstrip(b"\0")


def character_bits(value):
    bits = 0
    for byte in value:
        if chr(byte).isascii() and chr(byte).isalpha():
            bits |= 1 << (byte & 0x1F)
        elif byte in b"!(),-./:;[]{}":
            bits |= 1 << 29
        elif byte in b"0123456789":
            bits |= 1 << 30
    return bits


def date_number(value):
    leading = re.match(rb"\s*([+-]?\d+)", value)
    return int(leading[1]) & 0xFFFFFFFF if len(value) == 8 and leading else 0


class Archive:
    """Deleting an image leaves its record blank, until the study files are compacted, and takes
    along the series and the study of which it was the last."""

    def __init__(self):
        self.studies = []  # (the seven words of the hash entry, study record)
        self.study_of = {}  # UID: its entry and record
        self.series = {}   # study: records
        self.images = {}   # (study, series): records
        self.paths = set()

    def store(self, data_set):
        data_set = parse(data_set) if isinstance(data_set, bytes) else data_set
        study, series = text(data_set, STUDY_UID), text(data_set, SERIES_UID)
        if study not in self.study_of:
            self.study_of[study] = [0] * 7, bytearray(DATA_SIZE)
            self.studies.append(self.study_of[study])
        merge(data_set, *self.study_of[study])
        replace_or_append(self.series.setdefault(study, []), record(data_set, SERIES_RECORD))
        images = self.images.setdefault((study, series), [])
        replace_or_append(images, record(data_set, IMAGE_RECORD))
        self.paths.add(image_path(data_set))

    def delete(self, *uids):
        study, series, instance = (uid.encode() for uid in uids)
        self.paths.remove(f"{series_folder(study, series)}/image_{instance.decode()}.dcm")
        if blank(self.images[study, series], instance):
            return
        del self.images[study, series]
        if blank(self.series[study], series):
            return
        del self.series[study]
        words, data = self.study_of.pop(study)
        words[0] |= 1
        data[:] = bytes(DATA_SIZE)

    def compact(self):
        self.studies = [(words, data) for words, data in self.studies if not words[0] & 1]

    def index_files(self):
        """{path below the base directory: bytes} of every index file."""
        files = {"uid/STUDYINDEX.hash": b"".join(
            number.to_bytes(4, "little") for words, _ in self.studies for number in words)}
        files["uid/STUDYINDEX.dat"] = b"".join(data for _, data in self.studies)
        for study, found in self.series.items():
            files[f"{study_folder(study)}/SERIESINDEX.dat"] = b"".join(found)
        for (study, series), found in self.images.items():
            files[f"{series_folder(study, series)}/IMAGEINDEX.dat"] = b"".join(found)
        return files

    def check(self, store):
        """Every file below uid/ is as it has to be, nothing else is there, and no folder is empty
        but those of the fan-out."""
        everything = list((store / "uid").rglob("*"))
        expected = self.index_files()
        files = {str(path.relative_to(store)) for path in everything if path.is_file()}
        assert files == self.paths | expected.keys()
        for path, content in expected.items():
            assert (store / path).read_bytes() == content, path
        assert all(any(path.iterdir()) for path in everything if path.is_dir() and
                   path.name.startswith(("study_", "series_")))


def replace_or_append(found, new):
    for position, old in enumerate(found):
        if old[:64] == new[:64]:
            found[position] = new
            return
    found.append(new)


def blank(found, key):
    """Whether others live."""
    position = list(map(key_of, found)).index(key)
    found[position] = bytes(len(found[position]))
    return any(map(key_of, found))


def merge(data_set, words, data):
    """Lets one image overwrite, in a study's entry and record, whatever it carries itself."""
    words[UID_CRC] = crc(text(data_set, STUDY_UID))
    for offset, width, tag, kind in STUDY_FIELDS:
        value = converted(data_set, tag, kind)
        if value is None:
            continue
        data[offset:offset + width] = field(value, width)
        if offset in BITS_OF:
            words[BITS_OF[offset]] = character_bits(value)
        if offset in DATE_OF:
            words[DATE_OF[offset]] = date_number(value)
    modality = text(data_set, MODALITY)
    if modality is not None:
        words[MODALITY_BITS] |= MODALITIES.get(modality, 0)
        note_modality(data, modality)


def note_modality(data, modality):
    for at in range(384, 400, 2):
        if data[at] == 0:
            data[at:at + 2] = field(modality, 2)
        if data[at:at + 2] == field(modality, 2):
            return
