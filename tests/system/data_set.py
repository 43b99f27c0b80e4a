"""Data sets as bytes: made element by element, read by pydicom, compared value by value.

A data set that was read is a dictionary {tag: Element}. Values are the bytes in little endian order
whatever the transfer syntax; a sequence holds a list of data sets.
"""
import io
import struct
import zlib
from typing import NamedTuple

from pydicom import filereader
from pydicom.datadict import dictionary_VR, tag_for_keyword

IMPLICIT_LE = "1.2.840.10008.1.2"
EXPLICIT_LE = "1.2.840.10008.1.2.1"
EXPLICIT_BE = "1.2.840.10008.1.2.2"
DEFLATED = "1.2.840.10008.1.2.1.99"
SECONDARY_CAPTURE = "1.2.840.10008.5.1.4.1.1.7"
LONG_FORM = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"}
WORD_SIZE = {"US": 2, "SS": 2, "OW": 2, "AT": 2, "UL": 4, "SL": 4, "FL": 4, "OF": 4, "OL": 4,
             "FD": 8, "OD": 8, "SV": 8, "UV": 8, "OV": 8}
TEXT = {"AE", "AS", "CS", "DA", "DS", "DT", "IS", "LO", "LT", "PN", "SH", "ST", "TM", "UC", "UI",
        "UR", "UT"}
STUDY_UID, SERIES_UID, SOP_UID = UIDS = 0x0020000D, 0x0020000E, 0x00080018
SOP_CLASS_UID, CHARACTER_SET, PIXEL_DATA = 0x00080016, 0x00080005, 0x7FE00010
UNDEFINED = 0xFFFFFFFF


class Element(NamedTuple):
    vr: str
    value: object


class Image(bytes):
    """What a client sends, with what it says of it."""
    sop_class, uids = SECONDARY_CAPTURE, ("", "", "")


def implied_vr(tag):
    try:
        return dictionary_VR(tag)
    except KeyError:
        return "UN"


def parse(data, transfer_syntax=EXPLICIT_LE):
    if transfer_syntax == DEFLATED:
        data = zlib.decompressobj(-15).decompress(data)
    form = transfer_syntax == IMPLICIT_LE, transfer_syntax != EXPLICIT_BE
    return _elements(filereader.read_dataset(io.BytesIO(data), *form), *form)


def _elements(data_set, implicit, little):
    found = {}
    for tag in data_set.keys():
        raw = data_set.get_item(tag)
        vr, value = raw.VR or implied_vr(tag), raw.value or b""
        if vr == "SQ":
            items = _items(value, implicit, little) if isinstance(value, bytes) else value
            value = [_elements(item, implicit, little) for item in items]
        elif getattr(raw, "length", 0) == UNDEFINED:
            vr = "OB"  # encapsulated pixel data is, whatever the file says (PS3.5, A.4)
        elif not little:
            size = WORD_SIZE.get(vr, len(value) or 1)
            words = [value[at:at + size] for at in range(0, len(value), size)]
            value = b"".join(word[::-1] for word in words) if vr in WORD_SIZE else value
        found[int(tag)] = Element(vr, value)
    return found


def _items(value, implicit, little):
    return filereader.read_sequence(io.BytesIO(value), implicit, little, len(value), "ascii")


def split_file(content):
    """Returns (transfer syntax or None, data set bytes) of a DICOM file (PS3.10, 7.1)."""
    file = io.BytesIO(content)
    filereader.read_preamble(file, True)
    meta = filereader._read_file_meta_info(file)
    return meta.get("TransferSyntaxUID"), content[file.tell():]


def encode(elements):
    """The Explicit VR Little Endian bytes of {tag: (vr, value)}; text is padded to even length."""
    out = b""
    for tag, (vr, value) in sorted(elements.items()):
        if isinstance(value, str):
            value = value.encode()
        value += (b"\0" if vr in ("UI", "OB", "UN") else b" ") * (len(value) % 2)
        form = "<HH2s2xL" if vr in LONG_FORM else "<HH2sH"
        out += struct.pack(form, tag >> 16, tag & 0xFFFF, vr.encode(), len(value)) + value
    return out


def keywords(values):
    """{tag: (vr, value)} of {DICOM keyword: text or bytes, or None to leave it out}."""
    tags = {tag_for_keyword(name): value for name, value in values.items() if value is not None}
    return {tag: (dictionary_VR(tag), value) for tag, value in tags.items()}


def image(*uids, pixels=bytes(64), sop_class=SECONDARY_CAPTURE, **more):
    """A small image with these study, series and SOP Instance UIDs; without pixels for None. `more`
    maps DICOM keywords to text."""
    elements = {SOP_CLASS_UID: ("UI", sop_class), **dict(zip(UIDS, (("UI", uid) for uid in uids))),
                **keywords(more)}
    if pixels is not None:
        elements[PIXEL_DATA] = "OB", pixels
    made = Image(encode(elements))
    made.sop_class, made.uids = sop_class, uids
    return made


def identifier(level, **keys):
    """The bytes of a query; keys are DICOM keywords with text or bytes, empty to be answered."""
    return encode(keywords(keys if level is None else {"QueryRetrieveLevel": level, **keys}))


def differences(sent, stored, vr_matters, where=""):
    """Lists what differs between two data sets, attribute by attribute."""
    # Group lengths and data set trailing padding belong to the encoding, not to the image.
    sent, stored = ({tag: element for tag, element in each.items()
                     if tag & 0xFFFF and tag != 0xFFFCFFFC} for each in (sent, stored))
    found = [f"{where}{tag:08x} added" for tag in stored.keys() - sent.keys()]
    for tag, (vr, before) in sent.items():
        name = f"{where}{tag:08x}"
        kept_vr, after = stored.get(tag, (None, None))
        if after is None or vr_matters and kept_vr != vr:
            found.append(f"{name}: {vr} became {kept_vr}")
        elif "SQ" in (vr, kept_vr):
            # A private one may have lost its VR to an implicit encoding.
            before, after = (each if isinstance(each, list) else
                             [_elements(item, True, True) for item in _items(each, True, True)]
                             for each in (before, after))
            found += [f"{name} has {len(after)} items"] * (len(before) != len(after))
            for number, pair in enumerate(zip(before, after)):
                found += differences(*pair, vr_matters, f"{name}[{number}].")
        else:
            padding = b" \0" if TEXT & {vr, kept_vr} else b""
            if before.rstrip(padding) != after.rstrip(padding):
                found.append(f"{name}: {before[:40]!r} became {after[:40]!r}")
    return found
