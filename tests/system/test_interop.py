"""Clients that others wrote store, find and retrieve: DCMTK's programs, odil, GDCM.

The images are two series of python3-pydicom's samples. What a client retrieves is compared with
the file that it sent, attribute for attribute.
"""
import json
import shutil
import subprocess

import pydicom
import pytest

import archive
import harness
from data_set import SERIES_UID, STUDY_UID, differences, parse, split_file
from samples import SAMPLES
from storage_provider import toolkit_provider
from upper_layer import STUDY_ROOT_FIND, STUDY_ROOT_MOVE

try:
    import odil
except ImportError:
    odil = None

IMAGES = [sample for sample in SAMPLES
          if "98892001/CT2N/" in sample.name or "98892003/MR2/" in sample.name]
STUDIES = {archive.text(sample.elements, STUDY_UID).decode() for sample in IMAGES}
PATHS = [str(sample.path) for sample in IMAGES]
SCANS = [sample for sample in IMAGES if "/CT2N/" in sample.name]
STUDY = archive.text(SCANS[0].elements, STUDY_UID).decode()
SERIES = archive.text(SCANS[0].elements, SERIES_UID).decode()
LEVELS = {"STUDY": {"StudyInstanceUID": STUDY},
          "SERIES": {"StudyInstanceUID": STUDY, "SeriesInstanceUID": SERIES},
          "IMAGE": {"StudyInstanceUID": STUDY, "SeriesInstanceUID": SERIES,
                    "SOPInstanceUID": SCANS[1].sop_instance}}


@pytest.fixture
def port():
    """Where the client takes what it retrieves."""
    return harness.free_port()


@pytest.fixture
def archive_server(servers, port):
    return servers(peers=f"CLIENT CLIENT 127.0.0.1:{port} M\n")


def check_retrieved(folder, images):
    """Holds the files in a folder against the samples, whatever their names."""
    found = {}
    for path in folder.iterdir():
        syntax, data = split_file(path.read_bytes())
        elements = parse(data, syntax)
        found[archive.text(elements, (0x8, 0x18)).decode()] = elements
        path.unlink()
    assert found.keys() == {sample.sop_instance for sample in images}
    for sample in images:
        assert not differences(sample.elements, found[sample.sop_instance], False)


def below(keys):
    """The images that a move with these keys selects."""
    return [sample for sample in SCANS
            if keys.get("SOPInstanceUID", sample.sop_instance) == sample.sop_instance]


# ---- DCMTK ----

def toolkit(program, server, *arguments):
    """Runs findscu, movescu or storescu, which end with 0 only when all went well."""
    done = harness.run(program, "-aet", "CLIENT", "-aec", "TARVO", "127.0.0.1", str(server.port),
                       *arguments)
    assert done.returncode == 0, done.stderr


def keys_of(level, keys):
    return [part for name, value in {"QueryRetrieveLevel": level, **keys}.items()
            for part in ("-k", f"{name}={value}")]


@pytest.mark.parametrize("model", ["-S", "-P"])
def test_the_programs_of_the_toolkit(archive_server, port, tmp_path, model):
    toolkit("storescu", archive_server, *PATHS)
    folder = tmp_path / "retrieved"
    folder.mkdir()

    def found(level, **keys):
        toolkit("findscu", archive_server, model, "-X", "-od", str(folder), *keys_of(level, keys))
        answers = [pydicom.dcmread(path, force=True) for path in sorted(folder.iterdir())]
        for path in folder.iterdir():
            path.unlink()
        return answers

    by_name = found("STUDY", PatientName="doe^p*", StudyInstanceUID="", ModalitiesInStudy="")
    assert {answer.StudyInstanceUID for answer in by_name} == STUDIES
    [series] = found("SERIES", StudyInstanceUID=STUDY, SeriesInstanceUID="", Modality="")
    assert (series.SeriesInstanceUID, series.Modality) == (SERIES, "CT")
    images = found("IMAGE", StudyInstanceUID=STUDY, SeriesInstanceUID=SERIES, SOPInstanceUID="")
    assert [each.SOPInstanceUID for each in images] == [sample.sop_instance for sample in SCANS]
    assert len(found("PATIENT", PatientID="98890234", PatientName="")) == len(STUDIES)
    for level, keys in LEVELS.items():
        toolkit("movescu", archive_server, model, "-aem", "CLIENT", "+P", str(port), "-od",
                str(folder), *keys_of(level, keys))
        check_retrieved(folder, below(keys))


# ---- odil ----

class Odil:
    """One association of odil's."""

    def __init__(self, server, *sop_classes):
        explicit, scu = [odil.registry.ExplicitVRLittleEndian], self._context().Role.SCU
        self.association = odil.Association()
        self.association.set_peer_host("127.0.0.1")
        self.association.set_peer_port(server.port)
        parameters = self.association.update_parameters()
        parameters.set_calling_ae_title("CLIENT")
        parameters.set_called_ae_title("TARVO")
        parameters.set_presentation_contexts(
            [self._context()(sop_class, explicit, scu) for sop_class in sop_classes])
        self.association.associate()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.association.release()

    @staticmethod
    def _context():
        return odil.AssociationParameters.PresentationContext

    def store(self, path):
        data_set = odil.Reader.read_file(path)[1]
        user = odil.StoreSCU(self.association)
        user.set_affected_sop_class(data_set)
        user.store(data_set)  # throws unless it succeeds

    def ask(self, user, sop_class, level, keys):
        query = odil.DataSet()
        for name, value in {"QueryRetrieveLevel": level, **keys}.items():
            query.add(name, [value] if value else [])
        user.set_affected_sop_class(sop_class)
        return user.find(query) if sop_class == STUDY_ROOT_FIND else user.move(query)

    def find(self, wanted, level, **keys):
        answers = self.ask(odil.FindSCU(self.association), STUDY_ROOT_FIND, level, keys)
        return [answer.as_string(wanted)[0].decode() for answer in answers]

    def move(self, destination, level, keys):
        user = odil.MoveSCU(self.association)
        user.set_move_destination(destination)
        self.ask(user, STUDY_ROOT_MOVE, level, keys)  # throws unless it succeeds


def contents(path):
    """A file as odil reads it. It writes decimal strings anew, 0.7 as .6999999999999998."""
    text = odil.as_json(odil.Reader.read_file(str(path))[1])
    return json.dumps(json.loads(text, parse_float=lambda digits: round(float(digits), 12)))


@pytest.mark.skipif(odil is None, reason="odil is missing: install python3-odil")
def test_odil(servers, tmp_path):
    """Its own listener binds its port anew for every association and then often finds it taken, so
    what it asks for goes to a provider beside it."""
    folder = tmp_path / "arrived"
    with toolkit_provider(folder) as port:
        server = servers(peers=f"DEST DEST 127.0.0.1:{port} M\n")
        with Odil(server, *{sample.sop_class for sample in IMAGES}) as client:
            for path in PATHS:
                client.store(path)
        with Odil(server, STUDY_ROOT_FIND, STUDY_ROOT_MOVE) as client:
            studies = client.find("StudyInstanceUID", "STUDY", PatientName="doe*",
                                  StudyInstanceUID="")
            assert set(studies) == STUDIES
            assert client.find("Modality", "SERIES", StudyInstanceUID=STUDY, Modality="") == ["CT"]
            for level, keys in LEVELS.items():
                client.move("DEST", level, keys)
                arrived = sorted(map(contents, folder.iterdir()))
                assert arrived == sorted(contents(sample.path) for sample in below(keys))
                for path in folder.iterdir():
                    path.unlink()


# ---- GDCM ----

@pytest.mark.skipif(shutil.which("gdcmscu") is None,
                    reason="gdcmscu is missing: install libgdcm-tools")
def test_gdcm(archive_server, port, tmp_path):
    """Debian's gdcmscu throws when it is told that its release was taken, by any server, and dies
    before it prints what it found. What it stores and retrieves is safe by then. It asks for a move
    before it listens: on a busy machine it now and then misses the call, and waits for ever."""
    def gdcm(*arguments, attempts=1):
        command = ["gdcmscu", "--aetitle", "CLIENT", "--call", "TARVO", "127.0.0.1",
                   str(archive_server.port), *arguments]
        for last in [False] * (attempts - 1) + [True]:
            try:
                return subprocess.run(command, capture_output=True, timeout=20, check=False)
            except subprocess.TimeoutExpired:
                if last:
                    raise

    gdcm("--store", *PATHS)
    stored = {path.name for path in archive_server.store.rglob("image_*.dcm")}
    assert stored == {f"image_{sample.sop_instance}.dcm" for sample in IMAGES}
    gdcm("--find", "--studyroot", "--study", "--key", "10,10=doe*", "--key", "20,d=")
    archive_server.wait_for_message("C-Find CLIENT->TARVO (1x)")
    folder = tmp_path / "retrieved"
    folder.mkdir()
    gdcm("--move", "--studyroot", "--study", "--key", f"20,d={STUDY}", "--port-scp", str(port),
         "-o", str(folder), attempts=3)
    check_retrieved(folder, SCANS)
