"""Clients that others wrote store, find and retrieve: DCMTK's programs, odil, GDCM.

The images are two series of python3-pydicom's samples. What a client retrieves is compared with
the file that it sent, attribute for attribute.
"""
import contextlib
import json
import subprocess

import odil
import pydicom
import pytest

import harness
from data_set import SERIES_UID, SOP_UID, STUDY_UID, differences, parse, split_file
from samples import SAMPLES
from storage_provider import toolkit_provider
from upper_layer import KEYS, STUDY_ROOT_FIND, STUDY_ROOT_MOVE, uid_of

IMAGES = [sample for sample in SAMPLES
          if "98892001/CT2N/" in sample.name or "98892003/MR2/" in sample.name]
STUDIES = {uid_of(sample.elements, STUDY_UID) for sample in IMAGES}
PATHS = [str(sample.path) for sample in IMAGES]
SCANS = [sample for sample in IMAGES if "/CT2N/" in sample.name]
STUDY, SERIES = (uid_of(SCANS[0].elements, tag) for tag in (STUDY_UID, SERIES_UID))
LEVELS = {level: dict(zip(KEYS, (STUDY, SERIES, SCANS[1].sop_instance)[:depth]))
          for depth, level in enumerate(("STUDY", "SERIES", "IMAGE"), 1)}


@pytest.fixture
def port():
    """Where the client takes what it retrieves."""
    return harness.free_port()


@pytest.fixture
def folder(tmp_path):
    (tmp_path / "retrieved").mkdir()
    return tmp_path / "retrieved"


@pytest.fixture
def archive_server(servers, port):
    return servers(peers=f"CLIENT CLIENT 127.0.0.1:{port} M\n")


def check_retrieved(folder, images):
    """Holds the files in a folder against the samples, whatever their names."""
    found = {}
    for path in folder.iterdir():
        syntax, data = split_file(path.read_bytes())
        elements = parse(data, syntax)
        found[uid_of(elements, SOP_UID)] = elements
        path.unlink()
    assert found.keys() == {sample.sop_instance for sample in images}
    for sample in images:
        assert not differences(sample.elements, found[sample.sop_instance], False)


def below(keys):
    """The images that a move with these keys selects."""
    return [sample for sample in SCANS
            if keys.get("SOPInstanceUID", sample.sop_instance) == sample.sop_instance]


@pytest.mark.parametrize("model", ["-S", "-P"])
def test_the_programs_of_the_toolkit(archive_server, port, folder, model):
    def toolkit(program, *arguments, level=None, keys=None):
        """Runs a program, which ends with 0 only when all went well."""
        for name, value in {"QueryRetrieveLevel": level, **keys}.items() if level else ():
            arguments += "-k", f"{name}={value}"
        done = harness.run(program, "-aet", "CLIENT", "-aec", "TARVO", "127.0.0.1",
                           str(archive_server.port), *arguments)
        assert done.returncode == 0, done.stderr

    def found(level, **keys):
        toolkit("findscu", model, "-X", "-od", str(folder), level=level, keys=keys)
        answers = [pydicom.dcmread(path, force=True) for path in sorted(folder.iterdir())]
        for path in folder.iterdir():
            path.unlink()
        return answers

    toolkit("storescu", *PATHS)
    by_name = found("STUDY", PatientName="doe^p*", StudyInstanceUID="", ModalitiesInStudy="")
    assert {answer.StudyInstanceUID for answer in by_name} == STUDIES
    [series] = found("SERIES", StudyInstanceUID=STUDY, SeriesInstanceUID="", Modality="")
    assert (series.SeriesInstanceUID, series.Modality) == (SERIES, "CT")
    images = found("IMAGE", StudyInstanceUID=STUDY, SeriesInstanceUID=SERIES, SOPInstanceUID="")
    assert [each.SOPInstanceUID for each in images] == [sample.sop_instance for sample in SCANS]
    assert len(found("PATIENT", PatientID="98890234", PatientName="")) == len(STUDIES)
    for level, keys in LEVELS.items():
        toolkit("movescu", model, "-aem", "CLIENT", "+P", str(port), "-od", str(folder),
                level=level, keys=keys)
        check_retrieved(folder, below(keys))


# ---- odil ----

@contextlib.contextmanager
def odil_association(server, *classes):
    kind = odil.AssociationParameters.PresentationContext
    association = odil.Association()
    association.set_peer_host("127.0.0.1")
    association.set_peer_port(server.port)
    parameters = association.update_parameters()
    parameters.set_calling_ae_title("CLIENT")
    parameters.set_called_ae_title("TARVO")
    parameters.set_presentation_contexts([
        kind(each, [odil.registry.ExplicitVRLittleEndian], kind.Role.SCU) for each in classes])
    association.associate()
    yield association
    association.release()


def odil_query(level, keys):
    query = odil.DataSet()
    for name, value in {"QueryRetrieveLevel": level, **keys}.items():
        query.add(name, [value] if value else [])
    return query


def contents(path):
    """A file as odil reads it. It writes decimal strings anew, 0.7 as .6999999999999998."""
    text = odil.as_json(odil.Reader.read_file(str(path))[1])
    return json.dumps(json.loads(text, parse_float=lambda digits: round(float(digits), 12)))


def test_odil(servers, folder):
    """Its own listener binds its port anew for every association and then often finds it taken, so
    what it asks for goes to a provider beside it. Its users throw unless they succeed."""
    with toolkit_provider(folder) as port:
        server = servers(peers=f"DEST DEST 127.0.0.1:{port} M\n")
        classes = {sample.sent.sop_class for sample in IMAGES}
        with odil_association(server, *classes) as association:
            for path in PATHS:
                data_set, user = odil.Reader.read_file(path)[1], odil.StoreSCU(association)
                user.set_affected_sop_class(data_set)
                user.store(data_set)
        with odil_association(server, STUDY_ROOT_FIND, STUDY_ROOT_MOVE) as association:
            finder, mover = odil.FindSCU(association), odil.MoveSCU(association)
            finder.set_affected_sop_class(STUDY_ROOT_FIND)
            mover.set_affected_sop_class(STUDY_ROOT_MOVE)
            mover.set_move_destination("DEST")
            for wanted, level, keys, expected in (
                    ("StudyInstanceUID", "STUDY", {"PatientName": "doe*"}, STUDIES),
                    ("Modality", "SERIES", {"StudyInstanceUID": STUDY}, {"CT"})):
                answers = finder.find(odil_query(level, {**keys, wanted: ""}))
                assert {each.as_string(wanted)[0].decode() for each in answers} == expected
            for level, keys in LEVELS.items():
                mover.move(odil_query(level, keys))
                arrived = sorted(map(contents, folder.iterdir()))
                assert arrived == sorted(contents(sample.path) for sample in below(keys))
                for path in folder.iterdir():
                    path.unlink()


# ---- GDCM ----

def test_gdcm(archive_server, port, folder):
    """Debian's gdcmscu throws when it is told that its release was taken, by any server, and dies
    before it prints what it found. What it stores and retrieves is safe by then. It asks for a move
    before it listens: on a busy machine it now and then misses the call, and waits for ever."""
    def gdcm(*arguments, attempts=1):
        for left in reversed(range(attempts)):
            try:
                return harness.run("gdcmscu", "--aetitle", "CLIENT", "--call", "TARVO", "127.0.0.1",
                                   str(archive_server.port), *arguments, timeout=20)
            except subprocess.TimeoutExpired:
                if not left:
                    raise

    gdcm("--store", *PATHS)
    stored = {path.name for path in archive_server.store.rglob("image_*.dcm")}
    assert stored == {f"image_{sample.sop_instance}.dcm" for sample in IMAGES}
    gdcm("--find", "--studyroot", "--study", "--key", "10,10=doe*", "--key", "20,d=")
    archive_server.wait_for_message("C-Find CLIENT->TARVO (1x)")
    gdcm("--move", "--studyroot", "--study", "--key", f"20,d={STUDY}", "--port-scp", str(port),
         "-o", str(folder), attempts=3)
    check_retrieved(folder, SCANS)
