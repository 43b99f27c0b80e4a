"""What the archive has to answer, computed from the images sent without any code of the server.

The studies come from archive.Archive, which knows their records; here stand the two stages of
matching. Ordered as the server answers: the newest study first.
"""
import re

import archive
from archive import BITS_OF, DATE_OF, MODALITY, MODALITY_BITS, UID_CRC, key_of, text
from data_set import CHARACTER_SET, SERIES_UID, SOP_UID, STUDY_UID

LEVEL, MODALITIES_IN_STUDY = 0x00080052, 0x00080061
LATEST = 99991231
# By offset in the study record the widths of patterns; dates and times are not matched as texts.
PATTERN_WIDTH = {0: 128, 64: 128, 128: 128, 192: 128, 256: 128, 320: 128, 422: 2, 424: 64, 448: 64,
                 464: 64, 480: 16, 496: 16}


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


def study_answers(stored, keys):
    """`keys` is the identifier, a data set."""
    values = {offset: archive.converted(keys, tag, kind)
              for offset, _, tag, kind in archive.STUDY_FIELDS}
    values = {offset: value for offset, value in values.items() if value is not None}
    return [study_answer(keys, record) for words, record in reversed(stored.studies)
            if passes(words, values, keys) and all(
                # A value that fills its field reads on into the next one.
                fits(bytes(record[offset:]).split(b"\0")[0], values[offset][:width])
                for offset, width in PATTERN_WIDTH.items() if offset in values)]


def passes(words, values, keys):
    """Whether the words of the hash let a study through to the comparison of texts."""
    bits = {word: archive.character_bits(values.get(offset, b""))
            for offset, word in BITS_OF.items()}
    ranges = {word: date_range(values[offset])
              for offset, word in DATE_OF.items() if offset in values}
    modality = archive.MODALITIES.get(text(keys, MODALITY), 0)
    return (archive.crc(values.get(0, b"")) in (0, words[UID_CRC])
            and all(words[word] & wanted == wanted for word, wanted in bits.items())
            and (modality == 0 or words[MODALITY_BITS] & modality != 0)
            and all(words[word] == 0 or low <= words[word] <= high  # unknown dates pass
                    for word, (low, high) in ranges.items()))


def study_answer(keys, record):
    """{tag: value} of the response for a study."""
    found = {tag: bytes(record[offset:offset + width]).split(b"\0")[0]
             for offset, width, tag, _ in archive.STUDY_FIELDS if tag in keys}
    if MODALITIES_IN_STUDY in keys:
        slots = bytes(record[384:400]).split(b"\0\0")[0]
        found[MODALITIES_IN_STUDY] = b"\\".join(slots[at:at + 2] for at in range(0, len(slots), 2))
    if not b"".join(found.values()).isascii():
        found[CHARACTER_SET] = b"ISO_IR 192"
    return {**found, LEVEL: text(keys, LEVEL)}


def record_answers(records, layout, keys, key_tag):
    """The answers of one series or image index, in the order of the file."""
    found = []
    for record in records:
        answer, at = {}, 0
        for width, tag in layout[1]:
            answer[tag] = record[at:at + width].split(b"\0")[0]
            at += width
        if text(keys, key_tag) in (None, answer[key_tag]):
            asked = {tag: value for tag, value in answer.items() if tag in keys}
            found.append({**asked, LEVEL: text(keys, LEVEL)})
    return found


def series_answers(stored, keys):
    records = stored.series.get(text(keys, STUDY_UID), [])
    return record_answers(records, archive.SERIES_RECORD, keys, SERIES_UID)


def image_answers(stored, keys):
    study, series = text(keys, STUDY_UID), text(keys, SERIES_UID)
    named = [series] if series else map(key_of, stored.series.get(study, []))
    return [answer for each in named
            for answer in record_answers(stored.images.get((study, each), []),
                                         archive.IMAGE_RECORD, keys, SOP_UID)]
