"""What the archive has to answer, computed from the images sent without any code of the server.

The studies come from archive.Archive, which knows their records; here stand the two stages of
matching. Ordered as the server answers: the newest study first.
"""
import re

import archive
from archive import BITS_OF, DATE_OF, MODALITY_BITS, NAME, PLAIN, UID_CRC, text
from data_set import CHARACTER_SET, SERIES_UID, SOP_UID, STUDY_UID

LEVEL, MODALITY, MODALITIES_IN_STUDY = (0x8, 0x52), (0x8, 0x60), (0x8, 0x61)
LATEST = 99991231
# The widths of patterns; dates and times are not matched as texts.
PATTERN_WIDTH = {STUDY_UID: 128, (0x10, 0x10): 128, (0x10, 0x20): 128, (0x8, 0x1030): 128,
                 (0x8, 0x90): 128, (0x8, 0x92): 128, (0x12, 0x10): 64, (0x12, 0x21): 64,
                 (0x12, 0x31): 64, (0x8, 0x50): 16, (0x20, 0x10): 16, (0x10, 0x40): 2}


def fits(value, pattern):
    """Only "*" is a wildcard, and only at the ends; anything else stands for itself."""
    value, pattern = value.lower(), pattern.lower()  # of bytes: ASCII letters only
    if pattern in (b"", b"*", b"**"):
        return True
    if pattern.startswith(b"*") and pattern.endswith(b"*"):
        return pattern[1:-1] in value
    if pattern.startswith(b"*"):
        return value.endswith(pattern[1:])
    if pattern.endswith(b"*"):
        return value.startswith(pattern[:-1])
    return value == pattern


def date_range(wanted):
    if wanted in (b"", b"*"):
        return 0, LATEST
    first, dash, last = wanted.partition(b"-")
    if not dash:
        return number(first), number(first)
    return number(first) if first else 0, number(last) if last else LATEST


def number(digits):
    found = re.match(rb"\d+", digits)
    return int(found[0]) if found else 0


class Query:
    """A study-level query: `keys` is the identifier, a data set."""

    def __init__(self, keys):
        self.keys = keys
        charset = text(keys, CHARACTER_SET)
        self.patterns, self.bits, self.ranges = {}, {}, {}
        for offset, _, tag, kind in archive.STUDY_FIELDS:
            value = text(keys, tag)
            if value is None:
                continue
            if kind != PLAIN and charset is not None:
                value = archive.to_utf8(value, charset, kind == NAME)
            if tag in PATTERN_WIDTH:
                self.patterns[offset] = value[:PATTERN_WIDTH[tag]]
            if offset in BITS_OF:
                self.bits[BITS_OF[offset]] = archive.character_bits(value)
            if offset in DATE_OF:
                self.ranges[DATE_OF[offset]] = date_range(value)
        self.modality = archive.MODALITIES.get(text(keys, MODALITY), 0)
        self.uid_crc = archive.crc(text(keys, STUDY_UID) or b"")

    def selects(self, words, record):
        return self._passes(words) and all(
            # A value that fills its field reads on into the next one.
            fits(bytes(record[offset:]).split(b"\0")[0], pattern)
            for offset, pattern in self.patterns.items())

    def _passes(self, words):
        return (self.uid_crc in (0, words[UID_CRC])
                and all(words[word] & bits == bits for word, bits in self.bits.items())
                and (self.modality == 0 or words[MODALITY_BITS] & self.modality != 0)
                and all(words[word] == 0 or low <= words[word] <= high  # unknown dates pass
                        for word, (low, high) in self.ranges.items()))

    def answer(self, record):
        """{tag: value} of the response for a study."""
        found = {tag: bytes(record[offset:offset + width]).split(b"\0")[0]
                 for offset, width, tag, _ in archive.STUDY_FIELDS if tag in self.keys}
        if MODALITIES_IN_STUDY in self.keys:
            slots = [bytes(record[at:at + 2]) for at in range(384, 400, 2)]
            used = slots[:slots.index(b"\0\0")] if b"\0\0" in slots else slots
            found[MODALITIES_IN_STUDY] = b"\\".join(slot.rstrip(b"\0") for slot in used)
        if any(byte >= 0x80 for value in found.values() for byte in value):
            found[CHARACTER_SET] = b"ISO_IR 192"
        return {**found, LEVEL: text(self.keys, LEVEL)}


def study_answers(stored, keys):
    query = Query(keys)
    return [query.answer(record) for words, record in reversed(stored.studies)
            if query.selects(words, record)]


def record_answers(records, layout, keys, key_tag):
    """The answers of one series or image index, in the order of the file."""
    wanted, found = text(keys, key_tag), []
    for record in records:
        answer, at = {LEVEL: text(keys, LEVEL)}, 0
        for width, tag in layout[1]:
            value = record[at:at + width].split(b"\0")[0]
            at += width
            if tag == key_tag and wanted not in (None, value):
                break
            if tag in keys:
                answer[tag] = value
        else:
            found.append(answer)
    return found


def series_answers(stored, keys):
    records = stored.series.get(text(keys, STUDY_UID), [])
    return record_answers(records, archive.SERIES_RECORD, keys, SERIES_UID)


def image_answers(stored, keys):
    study, series = text(keys, STUDY_UID), text(keys, SERIES_UID)
    named = [series] if series else [record[:64].rstrip(b"\0")
                                     for record in stored.series.get(study, [])]
    return [answer for each in named
            for answer in record_answers(stored.images.get((study, each), []),
                                         archive.IMAGE_RECORD, keys, SOP_UID)]
