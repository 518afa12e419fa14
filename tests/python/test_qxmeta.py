"""qxmeta, run by ctest (whose environment names the build tree's package and plug-ins). Guards against: records lost
or altered on their way with the buffers through a pipeline and over the bus to another process, NumPy maps read back
with other values or types, and bad arguments corrupting a record instead of raising a clear Python exception."""
import contextlib
import fcntl
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np
import pytest
import qxmeta
from print_objects import Gst, as_json  # the subscriber example, run as a process below
from qxmeta import Batch, Classification, DetectionBox, Device, Frame, Segmentation

SOURCE = pathlib.Path(__file__).resolve().parents[2]
Gst.init(None)


def sample(frame_id):
    """A record with every kind of entry, exact in float32; its map's class ids a reversed, strided int64 view."""
    ids = ((np.arange(96 * 128).reshape(96, 128) // 7 + frame_id) % 4 - 1)[::2, ::-2]
    device = Device(f"stream-{frame_id}", "mac", "ip", 554, "uri", "Qx", "QX-1", "S-1", "1.2", "d7", "on", "cam", "rt")
    boxes = [DetectionBox(i, f"obj-{i}", i % 2, ("person", "car")[i % 2], i, 2.5, i + 10, 20.25, 0.5, '{"k": 1}')
             for i in range(frame_id % 3 + 1)]
    return Batch([device], [Frame(f"cam-{frame_id}", frame_id, 20250102030405006, 64, 48, 8, 3, 0, False,
                                  [Classification(2, "scene", "street", 0.75)], boxes,
                                  Segmentation(ids, ids / 4, {-1: "void", 0: "road", 1: "person", 2: "car"}))])


def test_records_travel_with_the_buffers_through_a_pipeline_and_over_the_bus(tmp_path, monkeypatch):
    """This pipeline's qxedgesink publishes the records; the subscriber example prints what its qxedgesrc delivers."""
    # The shipped root copied, on a DDS domain id leased as the C++ tests' ConfigRoot does: an flock held to the end.
    (locks := pathlib.Path(tempfile.gettempdir(), "qxedge-test-domains")).mkdir(exist_ok=True)
    for domain in range(1, 231):
        lock = open(locks / f"{domain}.lock", "a")
        with contextlib.suppress(BlockingIOError):
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            break
        lock.close()
    assert not lock.closed, "no free DDS domain id"
    marlet = shutil.copytree(SOURCE / "common/data_model", tmp_path / "root") / "config/Marlet.xml"
    marlet.write_text(marlet.read_text().replace('<Domain Id="0">', f'<Domain Id="{domain}">', 1))
    monkeypatch.chdir(tmp_path / "root")
    frames, out, before, after = 30, tmp_path / "subscriber.out", [], []  # a file: a full pipe would stall it
    subscriber = subprocess.Popen([sys.executable, str(SOURCE / "examples/python/print_objects.py"), "--json",
                                   "--taggroups=uni", f"--count={frames}", "--idle=5"], stdout=out.open("w"))

    def stamp(pad, info):
        before.append(qxmeta.get(info))
        qxmeta.attach(info, Batch(frames=[Frame(frame_id=-1)]))  # replaced next, not added
        qxmeta.attach(info, sample(len(before) - 1))
        after.append(qxmeta.get(info))
        return Gst.PadProbeReturn.OK

    pipeline = Gst.parse_launch(f"videotestsrc num-buffers={frames} ! video/x-raw,format=BGR,width=64,height=48,"
                                "framerate=30/1 ! qxedgesink name=sink taggroups=uni")
    pipeline.get_by_name("sink").get_static_pad("sink").add_probe(Gst.PadProbeType.BUFFER, stamp)
    try:
        while "waiting for marlet data..." not in out.read_text() and subscriber.poll() is None:
            time.sleep(0.1)
        pipeline.set_state(Gst.State.READY)  # the sink's writers are made here; the first frames may still beat
        time.sleep(1.0)  # discovery on a busy machine
        pipeline.set_state(Gst.State.PLAYING)
        end = pipeline.get_bus().timed_pop_filtered(60 * Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR)
        assert end and end.type == Gst.MessageType.EOS, end and end.parse_error()
        subscriber.wait(timeout=60)
    finally:
        pipeline.set_state(Gst.State.NULL)
        subscriber.kill()
    assert before == [None] * frames and after == [sample(i) for i in range(frames)]
    assert {(b.frames[0].segmentation.class_ids.dtype.name, b.frames[0].segmentation.probabilities.dtype.name)
            for b in after} == {("int32", "float32")}
    received = [json.loads(line) for line in out.read_text().splitlines() if line.startswith("{")]
    ids = [record["frames"][0]["frame_id"] for record in received]
    assert len(received) >= frames - 5 and received == [json.loads(as_json(sample(i))) for i in ids], out.read_text()


@pytest.mark.parametrize("call, error, message", [  # a dict: the fields of a frame to attach
    (lambda b: qxmeta.get("buffer"), TypeError, "expected a Gst.Buffer or Gst.PadProbeInfo, got str"),
    (lambda b: qxmeta.attach(b, {"frames": []}), TypeError, "expected a qxmeta.Batch, got dict"),
    (lambda b: qxmeta.attach(Gst.Sample.new(b, None, None, None).get_buffer(), Batch()), ValueError, "not writable"),
    (dict(frame_id=2**31), ValueError, "frames[0].frame_id = 2147483648 is out of range"),
    (dict(timestamp=-1), ValueError, "frames[0].timestamp = -1 is out of range"),
    (dict(stream_id=7), TypeError, "frames[0].stream_id: expected a str, got int"),
    (dict(boxes=[DetectionBox(y2=1e39)]), ValueError, "frames[0].boxes[0].y2 = 1e+39 is out of range"),
    (dict(segmentation=Segmentation(np.full((2, 2), 2**40), np.eye(2))), ValueError, "[0, 0] = 1099511627776 is out"),
    (dict(segmentation=Segmentation(np.eye(2), np.eye(2))), TypeError, "integers, got dtype float64"),
    (dict(segmentation=Segmentation(np.eye(2, dtype=int), np.eye(3, 2))), ValueError, "but probabilities (3, 2)"),
])
def test_bad_input_raises_and_keeps_the_record(call, error, message):
    qxmeta.attach(buffer := Gst.Buffer.new_allocate(None, 1, None), sample(1))
    with pytest.raises(error) as raised:
        call(buffer) if callable(call) else qxmeta.attach(buffer, Batch(frames=[Frame(**call)]))
    assert message in str(raised.value)
    assert qxmeta.get(buffer) == sample(1)
