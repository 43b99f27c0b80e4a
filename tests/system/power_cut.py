"""A disk that keeps nothing but what it was told to keep, run from a trace of fault_shim.c.

The model:
- A file has its content now and the content that was last synced; between the two lie writes, and
  changes of its length, which fsync and fdatasync of that file alone make safe.
- A folder likewise has its entries now and those that were last synced, by an fsync of that folder
  alone. Syncing a file does not save its name, nor a folder its own entry one level up.
- sync_file_range and closing save nothing.

At a power cut a merciless disk loses all that is not safe: names that were never synced are gone,
renames undone, removed names back, contents as they were synced (a new file: empty). Another one
loses what it likes of it: of the changes of a folder the last ones, of those of a file any, or
parts of sectors, or all but the length, which leaves zeros.

Beside what can be brought back the model tells what is not safe though it ought to be: whose
changes a process has left unsynced (`unsynced`), and whether an image could be lost (`is_safe`).
"""
import struct

import archive
from archive import key_of, records
from upper_layer import C_STORE, FIELD, P_DATA, RESPONSE, SOP_INSTANCE, STATUS, parse_command

SECTOR = 512


class File:
    def __init__(self):
        self.now, self.synced, self.pending = bytearray(), b"", []

    def change(self, process, offset, data):
        """Either writes data or, with None, sets the length to `offset`."""
        apply(self.now, offset, data)
        self.pending.append((process, offset, data))

    def sync(self):
        self.synced, self.pending = bytes(self.now), []

    def survivor(self, draw):
        if draw is None:
            return self.synced
        content = bytearray(self.synced)
        for _, offset, data in self.pending:
            fate = draw.choice(["kept", "lost", "torn", "zeros"])
            if fate == "kept" or data is None and fate != "lost":
                apply(content, offset, data)
            elif fate != "lost":
                apply(content, max(len(content), offset + len(data)), None)
            if fate == "torn" and data is not None:
                kept = (offset // SECTOR + draw.randrange(len(data) // SECTOR + 2)) * SECTOR
                apply(content, offset, data[:max(kept - offset, 0)])
        return bytes(content)


def apply(content, offset, data):
    if data is None:
        del content[offset:]
    content.extend(bytes(max(offset - len(content), 0)))
    if data is not None:
        content[offset:offset + len(data)] = data


class Folder:
    def __init__(self):
        self.now, self.synced, self.pending = {}, {}, []

    def change(self, process, name, item):
        """Lets `name` stand for `item`, with None for nothing."""
        self.pending.append((process, name, item))
        self.now[name] = item
        if item is None:
            del self.now[name]

    def sync(self):
        self.synced, self.pending = dict(self.now), []

    def survivor(self, draw):
        entries = dict(self.synced)
        for _, name, item in self.pending[:draw.randint(0, len(self.pending)) if draw else 0]:
            entries[name] = item
        return {name: item for name, item in entries.items() if item is not None}


class Disk:
    """What is below `root`; a call that names something else is passed over."""

    def __init__(self, root):
        self.root, self.top = f"{root}/", Folder()

    def find(self, path, when="now"):
        """What stands there now or, "synced", for sure; None for nothing."""
        item = self.top
        for name in filter(None, path.split("/")):
            item = getattr(item, when).get(name) if isinstance(item, Folder) else None
        return item

    def _place(self, path):
        """The folder in which something stands, and its name there."""
        folder, _, name = path.removeprefix(self.root).rpartition("/")
        return self.find(folder), name

    def perform(self, call):
        path = f"{call.path}/"[len(self.root):-1]
        if not f"{call.path}/".startswith(self.root):
            return
        folder, name = self._place(path)
        item = self.find(path)
        if call.kind in ("open", "mkdir"):
            if item is None:
                folder.change(call.process, name, File() if call.kind == "open" else Folder())
            elif call.kind == "open":  # truncates
                item.change(call.process, 0, None)
        elif call.kind == "rename":
            target, target_name = self._place(call.data.decode())
            target.change(call.process, target_name, item)
            folder.change(call.process, name, None)
        elif call.kind in ("unlink", "rmdir"):
            folder.change(call.process, name, None)
        elif item is None:
            pass  # it is deleted, and open
        elif call.kind == "sync":
            item.sync()
        elif call.kind == "write":
            item.change(call.process, call.offset, call.data)
        elif call.kind == "truncate" or (call.kind == "allocate" and call.length > len(item.now)):
            item.change(call.process, call.length, None)

    def write_survivors(self, target, draw=None):
        """Makes the tree as it is after a power cut; without `draw` nothing unsafe survives."""
        def write(folder, path):
            path.mkdir(exist_ok=True)
            for name, item in folder.survivor(draw).items():
                if isinstance(item, Folder):
                    write(item, path / name)
                else:
                    (path / name).write_bytes(item.survivor(draw))
        write(self.top, target)

    def walk(self):
        """Everything there is now: pairs of path and File or Folder."""
        todo = [("", self.top)]
        while todo:
            path, item = todo.pop()
            yield path, item
            if isinstance(item, Folder):
                todo += [(f"{path}/{name}", below) for name, below in item.now.items()]

    def unsynced(self, process):
        """The paths at which this process has changed something that is not safe."""
        return [path for path, item in self.walk() if process in
                (change[0] for change in item.pending)]

    def is_safe(self, *uids):
        """Whether the most merciless disk brings the image back, with its records, and no other
        series that would end an enumeration of its study."""
        study, series, instance = (uid.encode() for uid in uids)
        folder = archive.study_folder(study)
        image = self.find(f"{archive.series_folder(study, series)}/image_{uids[2]}.dcm", "synced")
        all_series = self._keys(f"{folder}/SERIESINDEX.dat", archive.SERIES_RECORD[0]) or ()
        images = {each: self._keys(f"{archive.series_folder(study, each)}/IMAGEINDEX.dat",
                                   archive.IMAGE_RECORD[0]) for each in all_series}
        return (image is not None and not image.pending and None not in images.values() and
                study in (self._keys("uid/STUDYINDEX.dat", archive.DATA_SIZE) or ()) and
                instance in images.get(series, ()))

    def _keys(self, path, size):
        """Those of the live records, None when the file is not safe."""
        index = self.find(path, "synced")
        return None if index is None else set(map(key_of, records(index.synced, size))) - {b""}


class Answers:
    """Finds the C-STORE responses in what processes send, piece by piece."""

    def __init__(self):
        self.unfinished = {}  # (process, descriptor): bytes

    def stored(self, call):
        """The SOP Instance UIDs for which this piece completes a Success."""
        data = self.unfinished.get((call.process, call.offset), b"") + call.data
        found = []
        while len(data) >= 6 and len(data) >= 6 + struct.unpack_from(">L", data, 2)[0]:
            size = 6 + struct.unpack_from(">L", data, 2)[0]
            if data[0] == P_DATA and data[11] == 3:  # all of a command
                fields = parse_command(data[12:size])
                if fields[FIELD] == C_STORE | RESPONSE and fields[STATUS] == 0:
                    found.append(fields[SOP_INSTANCE])
            data = data[size:]
        self.unfinished[call.process, call.offset] = data
        return found
