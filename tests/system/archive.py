"""The archive's files on disk, computed from the images sent and without any code of the server.

`Archive.store` takes data sets as data_set.parse returns them; `Archive.index_files` then gives
the bytes that every index file must hold.
"""
import ctypes
import errno
import re
import zlib

from data_set import CHARACTER_SET, SERIES_UID, SOP_UID, STUDY_UID, TEXT

SERIES_RECORD = 320, [
    (64, SERIES_UID), (64, STUDY_UID), (64, (0x8, 0x103E)), (64, (0x18, 0x1030)),
    (8, (0x8, 0x21)), (6, (0x8, 0x31)), (12, (0x20, 0x11)), (16, (0x18, 0x15)),
    (4, (0x18, 0x5100)), (2, (0x8, 0x60))]
IMAGE_RECORD = 768, [
    (64, SOP_UID), (64, SERIES_UID), (64, STUDY_UID), (64, (0x8, 0x8)), (256, (0x20, 0x4000)),
    (32, (0x20, 0x20)), (16, (0x20, 0x1041)), (52, (0x20, 0x32)), (104, (0x20, 0x37)),
    (12, (0x20, 0x12)), (12, (0x20, 0x13)), (12, (0x20, 0x1002)), (8, (0x8, 0x22)),
    (6, (0x8, 0x32))]
HASH_SIZE, DATA_SIZE = 28, 512
PLAIN, CONVERTED, NAME = range(3)
# offset and width in the study record, attribute, kind of text
STUDY_FIELDS = [
    (0, 64, STUDY_UID, PLAIN), (64, 64, (0x10, 0x10), NAME), (128, 64, (0x10, 0x20), CONVERTED),
    (192, 64, (0x8, 0x1030), CONVERTED), (256, 64, (0x8, 0x90), NAME),
    (320, 64, (0x8, 0x92), CONVERTED), (400, 8, (0x10, 0x30), PLAIN), (408, 8, (0x8, 0x20), PLAIN),
    (416, 6, (0x8, 0x30), PLAIN), (422, 2, (0x10, 0x40), PLAIN),
    (424, 24, (0x12, 0x31), CONVERTED), (448, 16, (0x12, 0x10), CONVERTED),
    (464, 16, (0x12, 0x21), CONVERTED), (480, 16, (0x8, 0x50), CONVERTED),
    (496, 16, (0x20, 0x10), CONVERTED)]
# The words of the hash entry, and by offset in the study record the field that each sums up.
(NAME_BITS, DESCRIPTION_BITS, PHYSICIAN_BITS, BIRTH_DATE, STUDY_DATE, MODALITY_BITS,
 UID_CRC) = range(7)
BITS_OF = {64: NAME_BITS, 192: DESCRIPTION_BITS, 256: PHYSICIAN_BITS}
DATE_OF = {400: BIRTH_DATE, 408: STUDY_DATE}
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


def crc(uid):
    return zlib.crc32(uid)  # 0 for an empty text


def study_folder(study):
    return f"uid/{crc(study) & 255:02X}/{crc(study) >> 8 & 255:02X}/study_{study.decode()}"


def series_folder(study, series):
    return f"{study_folder(study)}/series_{series.decode()}"


def image_path(data_set):
    study, series, instance = (text(data_set, tag) for tag in (STUDY_UID, SERIES_UID, SOP_UID))
    return f"{series_folder(study, series)}/image_{instance.decode()}.dcm"


def field(value, width):
    return (value or b"")[:width].ljust(width, b"\0")


def record(data_set, layout):
    size, fields = layout
    return b"".join(field(text(data_set, tag), width) for width, tag in fields).ljust(size, b"\0")


def records(content, size):
    assert len(content) % size == 0, f"{len(content)} bytes are no whole number of {size}"
    return [content[at:at + size] for at in range(0, len(content), size)]


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
    def __init__(self):
        self.studies = []  # (the seven words of the hash entry, study record)
        self._study_of = {}  # UID: its entry and record
        self.series = {}   # study: records
        self.images = {}   # (study, series): records
        self.paths = set()

    def store(self, data_set):
        study, series = text(data_set, STUDY_UID), text(data_set, SERIES_UID)
        self._note_study(study, data_set)
        replace_or_append(self.series.setdefault(study, []), record(data_set, SERIES_RECORD))
        images = self.images.setdefault((study, series), [])
        replace_or_append(images, record(data_set, IMAGE_RECORD))
        self.paths.add(image_path(data_set))

    def _note_study(self, study, data_set):
        if study not in self._study_of:
            self._study_of[study] = [0] * 7, bytearray(DATA_SIZE)
            self.studies.append(self._study_of[study])
        merge(data_set, *self._study_of[study])

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


def replace_or_append(found, new):
    for position, old in enumerate(found):
        if old[:64] == new[:64]:
            found[position] = new
            return
    found.append(new)


def merge(data_set, words, data):
    """Lets one image overwrite, in a study's entry and record, whatever it carries itself."""
    charset = text(data_set, CHARACTER_SET)
    words[UID_CRC] = crc(text(data_set, STUDY_UID))
    for offset, width, tag, kind in STUDY_FIELDS:
        value = text(data_set, tag)
        if value is not None and kind != PLAIN and charset is not None:
            value = to_utf8(value, charset, kind == NAME)
        if value is None:
            continue
        data[offset:offset + width] = field(value, width)
        if offset in BITS_OF:
            words[BITS_OF[offset]] = character_bits(value)
        if offset in DATE_OF:
            words[DATE_OF[offset]] = date_number(value)
    modality = text(data_set, (0x8, 0x60))
    if modality is not None:
        words[MODALITY_BITS] |= MODALITIES.get(modality, 0)
        note_modality(data, modality)


def note_modality(data, modality):
    for at in range(384, 400, 2):
        if data[at] == 0:
            data[at:at + 2] = field(modality, 2)
        if data[at:at + 2] == field(modality, 2):
            return


# ---- character sets (PS3.3, C.12.1.1.2) --------------------------------------------------------

SINGLE = {b"": "ASCII", b"ISO_IR 6": "ASCII", b"ISO_IR 13": "SJIS", b"ISO_IR 166": "ISO-IR-166",
          b"ISO_IR 192": "UTF-8", b"GB18030": "GB18030"}
EXTENDED = {b"ISO 2022 IR 6": "ASCII", b"ISO 2022 IR 13": "SJIS", b"ISO 2022 IR 166": "ISO-IR-166",
            b"ISO 2022 IR 87": "SJIS", b"ISO 2022 IR 159": "SJIS", b"ISO 2022 IR 149": "EUC-KR"}
for _number, _part in ((100, 1), (101, 2), (109, 3), (110, 4), (144, 5), (127, 6), (126, 7),
                       (138, 8), (148, 9)):
    SINGLE[b"ISO_IR %d" % _number] = f"ISO-8859-{_part}"
    EXTENDED[b"ISO 2022 IR %d" % _number] = f"ISO-8859-{_part}"
# escape sequence: converter, how many of its bytes the converter wants to see
ESCAPES = {b"\x1b(B": ("ASCII", 0), b"\x1b)I": ("SJIS", 0), b"\x1b(J": ("SJIS", 0),
           b"\x1b-T": ("ISO-IR-166", 0), b"\x1b$B": ("ISO-2022-JP", 3),
           b"\x1b$(D": ("ISO-2022-JP2", 4), b"\x1b$)C": ("EUC-KR", 0)}
for _letter, _part in zip(b"ABCDLGFHM", range(1, 10)):
    ESCAPES[b"\x1b-%c" % _letter] = f"ISO-8859-{_part}", 0
ROOM = 2047

_libc = ctypes.CDLL(None, use_errno=True)
_libc.iconv_open.restype = ctypes.c_void_p
_libc.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
_libc.iconv.restype = ctypes.c_size_t
_libc.iconv.argtypes = [ctypes.c_void_p] + [ctypes.c_void_p] * 4
_libc.iconv_close.argtypes = [ctypes.c_void_p]


def iconv(name, data, room):
    """One call of the C library's iconv to UTF-8: (output, bytes not converted)."""
    converter = _libc.iconv_open(b"UTF-8", name.encode())
    assert converter != ctypes.c_void_p(-1).value, (name, errno.errorcode[ctypes.get_errno()])
    source, target = ctypes.create_string_buffer(data, len(data)), ctypes.create_string_buffer(room)
    where = [ctypes.c_void_p(ctypes.addressof(source)), ctypes.c_size_t(len(data)),
             ctypes.c_void_p(ctypes.addressof(target)), ctypes.c_size_t(room)]
    _libc.iconv(converter, *(ctypes.addressof(each) for each in where))
    _libc.iconv_close(converter)
    return target.raw[:room - where[3].value], where[1].value


def to_utf8(value, charset, is_name):
    if b"\\" not in charset:
        return iconv(SINGLE.get(charset, "ISO-8859-1"), value + b"\0", ROOM)[0].split(b"\0")[0]
    first = charset[:63].split(b"\\")[0]
    default = SINGLE.get(first) or EXTENDED.get(first) or "ISO-8859-1"
    current, output, start, at = default, b"", 0, 0
    value += b"\0"
    while True:
        ends = b"\r\n\f\0\\\x1b" + (b"=^" if is_name and current != "ISO-2022-JP" else b"")
        while value[at] not in ends:
            at += 1
        converted, left = iconv(current, value[start:at], ROOM - len(output))
        output += converted
        if left:
            return b"Incomplete iconv"
        if value[at] == 0:
            return output
        if value[at] != 0x1B:
            output += value[at:at + 1]
            at, start, current = at + 1, at + 1, default
            continue
        escape = next((known for known in ESCAPES if value.startswith(known, at)), None)
        if escape is None:
            return b"Unknown ESC"
        current, kept = ESCAPES[escape]
        at += len(escape)
        start = at - kept
