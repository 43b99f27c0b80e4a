"""The sample files of python3-pydicom as a sending client sees them."""
import os
import pathlib
from typing import NamedTuple

import pydicom

import harness
from data_set import (DEFLATED, EXPLICIT_BE, EXPLICIT_LE, IMPLICIT_LE, SOP_CLASS_UID, SOP_UID,
                      Image, parse, split_file)

FOLDER = pathlib.Path(os.path.dirname(pydicom.__file__)) / "data"
UNCOMPRESSED = {IMPLICIT_LE: "+ti", EXPLICIT_LE: "+te", EXPLICIT_BE: "+tb", DEFLATED: "+td"}
# Files without meta information: what their data sets are written in.
WITHOUT_META = {"ExplVR_BigEndNoMeta.dcm": EXPLICIT_BE, "ExplVR_LitEndNoMeta.dcm": EXPLICIT_LE,
                "rtstruct.dcm": IMPLICIT_LE}
SKIPPED = {
    # without SOP Class UID, so that no C-STORE request can name it
    "chrSQEncoding.dcm", "chrSQEncoding1.dcm", "UN_sequence.dcm", "no_meta.dcm", "priv_SQ.dcm",
    "empty_charset_LEI.dcm", "meta_missing_tsyntax.dcm", "nested_priv_SQ.dcm",
    "no_meta_group_length.dcm",
    # media directories, which are never sent
    "DICOMDIR", "DICOMDIR-bigEnd", "DICOMDIR-empty.dcm", "DICOMDIR-implicit", "DICOMDIR-nooffset",
    "DICOMDIR-nopatient", "DICOMDIR-reordered",
    # no DICOM, cut in the middle of a value, and not in the transfer syntax that is claimed
    "FileInfo.txt", "README", "README.txt", "rtplan.dump", "rtstruct.dump", "test1.json",
    "test_PN.json", "zipMR.gz", "MR_truncated.dcm", "rtplan_truncated.dcm", "SC_rgb_jpeg.dcm"}
# Sent, but not understood: these declare their UIDs to be of VR UN.
UNREADABLE = {"rtdose_rle.dcm", "rtdose_rle_1frame.dcm"}


class Sample(NamedTuple):
    name: str
    path: pathlib.Path
    transfer_syntax: str
    sent: Image      # the data set as it goes over the wire
    elements: dict   # the data set of the original file, parsed

    @property
    def sop_instance(self):
        return self.sent.uids[2]


def read(path):
    """Transfer syntax and data set of a file, of even length as fragments must be (PS3.7, F)."""
    transfer_syntax, data = split_file(path.read_bytes())
    return transfer_syntax, Image(data + b"\0" * (len(data) % 2))


def load(path):
    transfer_syntax, sent = read(path)
    transfer_syntax = transfer_syntax or WITHOUT_META[path.name]
    elements = parse(sent, transfer_syntax)
    sent.sop_class, instance = (elements[tag].value.rstrip(b"\0").decode()
                                for tag in (SOP_CLASS_UID, SOP_UID))
    sent.uids = None, None, instance
    return Sample("/".join(path.relative_to(FOLDER).parts[1:]), path, transfer_syntax, sent,
                  elements)


def sample_paths():
    paths = sorted(path for folder in ("charset_files", "test_files")
                   for path in (FOLDER / folder).rglob("*") if path.is_file())
    assert len(paths) > 100, f"few samples in {FOLDER}"
    return [path for path in paths if path.name not in SKIPPED]


SAMPLES = [load(path) for path in sample_paths() if path.name not in UNREADABLE]


def is_converted(sample):
    """Which samples are also sent converted: of each folder of the DICOMDIR tests the first."""
    if sample.transfer_syntax not in UNCOMPRESSED:
        return False
    siblings = [other for other in SAMPLES if other.path.parent == sample.path.parent]
    return "dicomdirtests" not in sample.name or siblings[0] == sample


def converted(sample, transfer_syntax, folder):
    """The sample as the toolkit's converter writes it in another transfer syntax."""
    target = folder / "converted.dcm"
    done = harness.run("dcmconv", UNCOMPRESSED[transfer_syntax], str(sample.path), str(target))
    assert done.returncode == 0, done.stderr
    written_in, sent = read(target)
    assert written_in == transfer_syntax
    sent.sop_class, sent.uids = sample.sent.sop_class, sample.sent.uids
    return sample._replace(transfer_syntax=transfer_syntax, sent=sent)
