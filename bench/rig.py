"""What every benchmark needs: sample images, the server and its rivals, and fair repetition.

All figures of one comparison come from one run, on one machine, with the rounds interleaved, so
that a machine that grows slower does not favour anybody. TCP_NODELAY=1 stands in the environment
of every process: the toolkit as shipped stalls 44 ms a message without it.
"""
import contextlib
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/system"))

import harness  # noqa: E402  the running server of the system tests
from pydicom import dcmread  # noqa: E402,F401
from pydicom.dataset import Dataset, FileMetaDataset  # noqa: E402
from pydicom.uid import CTImageStorage, ExplicitVRLittleEndian  # noqa: E402

harness.TARVOD = str(ROOT / "build/release/bin/tarvod")


def write_images(folder, count, columns, rows, series="1.2.826.0.1.3680043.10.999.2"):
    """`count` CT images of columns x rows 16-bit pixels, all of one series."""
    folder.mkdir(parents=True)
    for number in range(1, count + 1):
        image = Dataset()
        image.SOPClassUID = CTImageStorage
        image.SOPInstanceUID = f"{series}.{number}"
        image.StudyInstanceUID = "1.2.826.0.1.3680043.10.999.1"
        image.SeriesInstanceUID = series
        image.PatientName, image.PatientID = "Bench^Mark", "B1"
        image.StudyDate, image.Modality, image.InstanceNumber = "20260102", "CT", number
        image.Rows, image.Columns = rows, columns
        image.BitsAllocated = image.BitsStored = 16
        image.HighBit, image.PixelRepresentation, image.SamplesPerPixel = 15, 0, 1
        image.PhotometricInterpretation = "MONOCHROME2"
        image.PixelData = bytes(rows * columns * 2)
        image["PixelData"].VR = "OW"
        image.file_meta = FileMetaDataset()
        image.file_meta.TransferSyntaxUID = ExplicitVRLittleEndian
        image.file_meta.MediaStorageSOPClassUID = image.SOPClassUID
        image.file_meta.MediaStorageSOPInstanceUID = image.SOPInstanceUID
        image.is_little_endian, image.is_implicit_VR = True, False
        image.save_as(folder / f"{number:06}.dcm", write_like_original=False)
    return folder


@contextlib.contextmanager
def tarvo(directory, *options, **settings):
    """A running archive; gives its port and the folder of its store."""
    server = harness.Server(directory, *options, **settings).start()
    try:
        yield server.port, server.store
    finally:
        server.wait_until_idle()
        server.stop()


@contextlib.contextmanager
def storescp(directory, *options):
    """The toolkit's receiver, which saves each image and keeps no index."""
    directory.mkdir(parents=True)
    port = harness.free_port()
    process = subprocess.Popen(["storescp", *options, "-od", str(directory), str(port)],
                               env=harness.ENVIRONMENT)
    try:
        harness.wait_until(lambda: harness.is_listening(process.pid, port), what="storescp")
        yield port, directory
    finally:
        process.terminate()
        process.wait(10)


def send(port, folder, called="ANY-SCP"):
    """Sends a folder over one association with storescu. Returns the seconds it took."""
    start = time.perf_counter()
    subprocess.run(["storescu", "-R", "-aec", called, "--scan-directories", "127.0.0.1",
                    str(port), str(folder)], env=harness.ENVIRONMENT, check=True, timeout=600)
    return time.perf_counter() - start


def medians(rounds, **measures):
    """Calls each measure in turn, `rounds` times. Returns the median of each, by name."""
    taken = {name: [] for name in measures}
    for _ in range(rounds):
        for name, measure in measures.items():
            taken[name].append(measure())
    return {name: statistics.median(values) for name, values in taken.items()}


class Workspace:
    """A temporary folder that hands out fresh names and vanishes at the end."""

    def __enter__(self):
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="tarvo-bench-"))
        self.count = 0
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.path)

    def fresh(self):
        self.count += 1
        return self.path / f"run{self.count}"
