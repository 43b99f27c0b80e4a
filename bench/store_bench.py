#!/usr/bin/python3
"""How fast images are stored, beside a receiver that keeps no index, and what growth costs."""
import rig

ROUNDS = 3


def time_store(workspace, start_server, images):
    with start_server(workspace.fresh()) as (port, store):
        seconds = rig.send(port, images)
        stored = sum(1 for path in store.rglob("*") if path.is_file() and path.name[0] not in "SIl")
        expected = sum(1 for _ in images.iterdir())
        assert stored == expected, f"{stored} of {expected} images were stored"
    return seconds


def throughput(workspace):
    count = 2000
    images = rig.write_images(workspace.fresh(), count, 128, 128)
    taken = rig.medians(ROUNDS,
                        tarvo=lambda: time_store(workspace, rig.tarvo, images),
                        storescp=lambda: time_store(workspace, rig.storescp, images))
    print(f"{count} images of 33 KB over one association, median of {ROUNDS}:")
    for name, seconds in taken.items():
        print(f"  {name:10} {seconds:6.2f} s  {count / seconds:6.0f} images/s")
    print(f"  Tarvo takes {taken['tarvo'] / taken['storescp']:.2f} times what storescp takes")


def growth(workspace):
    count, part = 10000, 1000
    images = rig.write_images(workspace.fresh(), count, 4, 4)

    def ratio():
        with rig.tarvo(workspace.fresh()) as (port, store):
            rig.send(port, images)
            times = sorted(path.stat().st_mtime_ns for path in store.rglob("image_*.dcm"))
        assert len(times) == count, f"{len(times)} of {count} images were stored"
        first = (times[part - 1] - times[0]) / 1e6 / (part - 1)
        last = (times[-1] - times[-part]) / 1e6 / (part - 1)
        print(f"  first {part}: {first:.3f} ms an image, last {part}: {last:.3f} ms")
        return last / first

    print(f"{count} tiny images into one series:")
    print(f"  at the end an image costs {rig.medians(ROUNDS, ratio=ratio)['ratio']:.2f} times what"
          " it costs at the start")


def main():
    with rig.Workspace() as workspace:
        throughput(workspace)
        growth(workspace)


if __name__ == "__main__":
    main()
