"""Reads and writes data sets element by element (PS3.5, 7), keeping the bytes of every value.

A data set is a dictionary {(group, element): Element}. Values are in little endian order whatever
the transfer syntax; a sequence holds a list of data sets, encapsulated pixel data a list of
fragments.
"""
import struct
import zlib
from typing import NamedTuple

from pydicom.datadict import dictionary_VR
from pydicom.tag import Tag

from upper_layer import DEFLATED, EXPLICIT_BE, IMPLICIT_LE

LONG_FORM = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"}
WORD_SIZE = {"US": 2, "SS": 2, "OW": 2, "AT": 2, "UL": 4, "SL": 4, "FL": 4, "OF": 4, "OL": 4,
             "FD": 8, "OD": 8, "SV": 8, "UV": 8, "OV": 8}
TEXT = {"AE", "AS", "CS", "DA", "DS", "DT", "IS", "LO", "LT", "PN", "SH", "ST", "TM", "UC", "UI",
        "UR", "UT"}
ITEM, ITEM_END, SEQUENCE_END = (0xFFFE, 0xE000), (0xFFFE, 0xE00D), (0xFFFE, 0xE0DD)
UNDEFINED = 0xFFFFFFFF
STUDY_UID, SERIES_UID, SOP_UID = (0x20, 0xD), (0x20, 0xE), (0x8, 0x18)
SOP_CLASS_UID, CHARACTER_SET, PIXEL_DATA = (0x8, 0x16), (0x8, 0x5), (0x7FE0, 0x10)


class Element(NamedTuple):
    vr: str
    value: object


class _Reader:
    def __init__(self, data, explicit, big_endian):
        self.data, self.at = data, 0
        self.explicit, self.order = explicit, ">" if big_endian else "<"

    def take(self, count):
        assert self.at + count <= len(self.data), "data set ends inside a value"
        self.at += count
        return self.data[self.at - count:self.at]

    def number(self, kind):
        kind = self.order + kind
        return struct.unpack(kind, self.take(struct.calcsize(kind)))[0]

    def header(self):
        tag = self.number("H"), self.number("H")
        if tag[0] == 0xFFFE:
            return tag, "", self.number("L")
        if not self.explicit:
            return tag, implied_vr(tag), self.number("L")
        vr = self.take(2).decode("latin-1")
        if vr in LONG_FORM:
            self.take(2)
            return tag, vr, self.number("L")
        return tag, vr, self.number("H")

    def data_set(self, end):
        """Reads up to byte `end`, or with None up to the item delimiter."""
        elements = {}
        while self.at != end and self.at < len(self.data):
            tag, vr, length = self.header()
            if tag == ITEM_END:
                break
            if vr == "OW" and length == UNDEFINED:
                vr = "OB"  # encapsulated pixel data is, whatever the file says (PS3.5, A.4)
            elements[tag] = Element(vr, self.value(vr, length))
        return elements

    def value(self, vr, length):
        if vr == "SQ":
            return self.sequence(length)
        if length == UNDEFINED:
            if vr == "OB":
                return list(self.fragments())
            rest = _Reader(self.data, False, False)  # PS3.5, 6.2.2 note 4
            rest.at = self.at
            sequence = rest.sequence(length)
            self.at = rest.at
            return sequence
        raw, size = self.take(length), WORD_SIZE.get(vr, 1)
        if self.order == "<" or size == 1:
            return raw
        return b"".join(raw[at:at + size][::-1] for at in range(0, length, size))

    def sequence(self, length):
        found, end = [], None if length == UNDEFINED else self.at + length
        while self.at != end:
            tag, _, size = self.header()
            if tag == SEQUENCE_END:
                break
            assert tag == ITEM, tag
            found.append(self.data_set(None if size == UNDEFINED else self.at + size))
        return found

    def fragments(self):
        while True:
            tag, _, length = self.header()
            if tag == SEQUENCE_END:
                return
            yield self.take(length)


def implied_vr(tag):
    try:
        return dictionary_VR(tag)
    except KeyError:
        return "UN"


def parse(data, transfer_syntax):
    if transfer_syntax == DEFLATED:
        data = zlib.decompressobj(-15).decompress(data)
    reader = _Reader(data, transfer_syntax != IMPLICIT_LE, transfer_syntax == EXPLICIT_BE)
    return reader.data_set(len(data))


def split_file(content):
    """Returns (transfer syntax or None, data set bytes) of a DICOM file (PS3.10, 7.1).

    The group length of the meta information is not believed: some samples get it wrong.
    """
    if content[128:132] != b"DICM":
        return None, content
    reader, meta = _Reader(content, True, False), {}
    reader.at = 132
    while content[reader.at:reader.at + 2] == b"\2\0":
        tag, vr, length = reader.header()
        meta[tag] = reader.value(vr, length)
    transfer_syntax = meta.get((0x2, 0x10))
    return transfer_syntax and transfer_syntax.strip(b"\0 ").decode(), content[reader.at:]


def encode(elements):
    """The Explicit VR Little Endian bytes of {tag: (vr, value)}; text is padded to even length."""
    out = b""
    for (group, element), (vr, value) in sorted(elements.items()):
        if isinstance(value, str):
            value = value.encode()
        value += (b"\0" if vr in ("UI", "OB", "UN") else b" ") * (len(value) % 2)
        form = "<HH2s2xL" if vr in LONG_FORM else "<HH2sH"
        out += struct.pack(form, group, element, vr.encode(), len(value)) + value
    return out


def image(study, series, instance, pixels=bytes(64), **more):
    """The bytes of a small image with these UIDs. `more` maps DICOM keywords to text."""
    elements = {SOP_CLASS_UID: ("UI", "1.2.840.10008.5.1.4.1.1.7"), SOP_UID: ("UI", instance),
                STUDY_UID: ("UI", study), SERIES_UID: ("UI", series),
                PIXEL_DATA: ("OB", pixels)}
    elements = {tag: element for tag, element in elements.items() if element[1] is not None}
    for tag, value in more.items():
        elements[tag_of(tag)] = (implied_vr(tag_of(tag)), value)
    return encode(elements)


def tag_of(keyword):
    return Tag(keyword).group, Tag(keyword).element


def is_kept(tag):
    """Group lengths and data set trailing padding belong to the encoding, not to the image."""
    return tag[1] != 0 and tag != (0xFFFC, 0xFFFC)


def differences(sent, stored, vr_matters, where=""):
    """Lists what differs between two data sets, attribute by attribute."""
    sent, stored = ({tag: element for tag, element in each.items() if is_kept(tag)}
                    for each in (sent, stored))
    found = [f"{where}({tag[0]:04x},{tag[1]:04x}) added" for tag in stored.keys() - sent.keys()]
    for tag, (vr, value) in sent.items():
        name = f"{where}({tag[0]:04x},{tag[1]:04x})"
        if tag not in stored:
            found.append(f"{name} {vr} lost")
            continue
        kept = stored[tag]
        if vr_matters and kept.vr != vr:
            found.append(f"{name} VR {vr} became {kept.vr}")
        found += value_differences(Element(vr, value), kept, vr_matters, name)
    return found


def value_differences(sent, kept, vr_matters, name):
    before, after = sent.value, kept.value
    if "SQ" in (sent.vr, kept.vr):
        before, after = as_items(before), as_items(after)
        if len(before) != len(after):
            return [f"{name} has {len(after)} items instead of {len(before)}"]
        return [line for number, (one, other) in enumerate(zip(before, after))
                for line in differences(one, other, vr_matters, f"{name}[{number}].")]
    if TEXT & {sent.vr, kept.vr}:
        before, after = before.rstrip(b" \0"), after.rstrip(b" \0")
    return [] if before == after else [f"{name} {before[:40]!r} became {after[:40]!r}"]


def as_items(value):
    """The items of a sequence, also of a private one that lost its VR to an implicit encoding."""
    return value if isinstance(value, list) else _Reader(value, False, False).sequence(len(value))
