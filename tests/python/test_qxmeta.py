"""qxmeta: records through a pipeline and over the bus, the NumPy map, errors."""
import fcntl
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np
import pytest
import qxmeta  # the build tree's package: PYTHONPATH=build/python
from qxmeta import Batch, Classification, DetectionBox, Device, Frame, Segmentation

BUILD, SOURCE = pathlib.Path(qxmeta.__file__).resolve().parents[2], pathlib.Path(__file__).resolve().parents[2]
os.environ.setdefault("GST_PLUGIN_PATH", str(BUILD / "plugins"))  # PYTHONPATH absolute for the child processes
os.environ.update(GST_REGISTRY=str(BUILD / "tests/python-registry.bin"), PYTHONPATH=str(BUILD / "python"))
import gi  # noqa: E402

gi.require_version("Gst", "1.0")
from gi.repository import Gst  # noqa: E402

Gst.init(None)


def sample(frame_id):
    """A record with every kind of entry, its values exact in float32, as the bus subscriber fills it."""
    ids = (np.arange(48 * 64).reshape(48, 64) // 7 + frame_id) % 3
    device = Device(*(f"{name}-{frame_id}" for name in "stream mac ip".split()), 554, "rtsp://127.0.0.1/cam",
                    "Quorix", "QX-1", "S-1", "1.2", "dev-7", "on", "camera", "rtsp")
    boxes = [DetectionBox(i, f"obj-{i}", i % 2, ("person", "car")[i % 2], i, 2.5, i + 10, 20.25, 0.5, '{"k": 1}')
             for i in range(frame_id % 3 + 1)]
    return Batch([device], [Frame(f"cam-{frame_id}", frame_id, 20250102030405006, 64, 48, 8, 3, 0, False,
                                  [Classification(2, "scene", "street", 0.75)], boxes,
                                  Segmentation(ids, ids / 4, {0: "road", 1: "person", 2: "car"}))])


def run(launch, probes, settle=0.0):
    """Runs a pipeline to EOS with a buffer probe per (element, pad); settle: seconds to wait in READY."""
    pipeline = Gst.parse_launch(launch)
    for (element, pad), probe in probes.items():
        pipeline.get_by_name(element).get_static_pad(pad).add_probe(
            Gst.PadProbeType.BUFFER, lambda pad, info, probe=probe: probe(info) or Gst.PadProbeReturn.OK)
    pipeline.set_state(Gst.State.READY)
    time.sleep(settle)
    pipeline.set_state(Gst.State.PLAYING)
    message = pipeline.get_bus().timed_pop_filtered(60 * Gst.SECOND, Gst.MessageType.EOS | Gst.MessageType.ERROR)
    pipeline.set_state(Gst.State.NULL)
    assert message is not None and message.type == Gst.MessageType.EOS, message and message.parse_error()


def test_record_travels_with_the_buffer_through_a_pipeline():
    before, after = [], []

    def stamp(info):
        before.append(qxmeta.get(info))
        qxmeta.attach(info, Batch(frames=[Frame(frame_id=-1)]))  # replaced next, not added
        qxmeta.attach(info, sample(len(before) - 1))

    run("videotestsrc num-buffers=4 ! video/x-raw,width=64,height=48 ! identity name=stamp ! tee ! queue"
        " ! fakesink name=out", {("stamp", "src"): stamp, ("out", "sink"): lambda i: after.append(qxmeta.get(i))})
    assert before == [None] * 4 and after == [sample(i) for i in range(4)]


def test_segmentation_map_is_numpy():
    rng = np.random.default_rng(5)
    ids, probs = rng.integers(-3, 200, size=(480, 1280))[::2, ::-2], rng.random((240, 640))
    buffer = Gst.Buffer.new_allocate(None, 1, None)
    qxmeta.attach(buffer, Batch(frames=[Frame(segmentation=Segmentation(ids, probs, {5: "five"}))]))
    got = qxmeta.get(buffer).frames[0].segmentation
    assert (got.class_ids.dtype, got.probabilities.dtype, got.labels) == (np.int32, np.float32, {5: "five"})
    np.testing.assert_array_equal(got.class_ids, ids)
    np.testing.assert_array_equal(got.probabilities, probs.astype(np.float32))


def attach_frame(**fields):
    return lambda buffer: qxmeta.attach(buffer, Batch(frames=[Frame(**fields)]))


@pytest.mark.parametrize("call, error, message", [
    (lambda b: qxmeta.get("buffer"), TypeError, "expected a Gst.Buffer or Gst.PadProbeInfo, got str"),
    (lambda b: qxmeta.attach(b, {"frames": []}), TypeError, "expected a qxmeta.Batch, got dict"),
    (lambda b: qxmeta.attach(Gst.Sample.new(b, None, None, None).get_buffer(), Batch()), ValueError, "not writable"),
    (attach_frame(frame_id=2**31), ValueError, "frames[0].frame_id = 2147483648 is out of range"),
    (attach_frame(timestamp=-1), ValueError, "frames[0].timestamp = -1 is out of range"),
    (attach_frame(stream_id=7), TypeError, "frames[0].stream_id: expected a str, got int"),
    (attach_frame(boxes=[DetectionBox(y2=1e39)]), ValueError, "frames[0].boxes[0].y2 = 1e+39 is out of range"),
    (attach_frame(segmentation=Segmentation(np.full((2, 2), 2**40), np.zeros((2, 2)))), ValueError,
     "class_ids[0, 0] = 1099511627776 is out of"),
    (attach_frame(segmentation=Segmentation(np.zeros((2, 2)), np.zeros((2, 2)))), TypeError,
     "expected an array of integers, got dtype float64"),
    (attach_frame(segmentation=Segmentation(np.zeros((2, 2), int), np.zeros((3, 2)))), ValueError,
     "class_ids has shape (2, 2) but probabilities (3, 2)"),
])
def test_bad_input_raises_and_keeps_the_record(call, error, message):
    buffer = Gst.Buffer.new_allocate(None, 1, None)
    qxmeta.attach(buffer, sample(1))
    with pytest.raises(error) as raised:
        call(buffer)
    assert message in str(raised.value)
    assert qxmeta.get(buffer) == sample(1)


@pytest.fixture
def bus_root(tmp_path, monkeypatch):
    """The shipped root copied and entered, on a DDS domain id leased like the C++ tests' ConfigRoot."""
    (locks := pathlib.Path(tempfile.gettempdir(), "qxedge-test-domains")).mkdir(exist_ok=True)
    for domain in (1 + (os.getpid() + k) % 230 for k in range(230)):
        lock = open(locks / f"{domain}.lock", "a")
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            break
        except OSError:
            lock.close()
    else:
        pytest.fail("no free DDS domain id")
    shutil.copytree(SOURCE / "common/data_model", tmp_path / "root")
    marlet = tmp_path / "root/config/Marlet.xml"
    marlet.write_text(marlet.read_text().replace('<Domain Id="0">', f'<Domain Id="{domain}">', 1))
    monkeypatch.chdir(tmp_path / "root")
    return lock  # held, and so leased, until the test is over


def test_records_cross_the_bus_between_processes(bus_root, tmp_path):
    """This process publishes with qxedgesink; the subscriber example prints what its qxedgesrc delivers."""
    frames, out = 30, tmp_path / "subscriber.out"  # a file: a full pipe would stall the subscriber's probe
    example = [sys.executable, str(SOURCE / "examples/python/print_objects.py"), "--taggroups=uni", "--json"]
    subscriber = subprocess.Popen(example + [f"--count={frames}", "--idle=5"], stdout=out.open("w"),
                                  stderr=subprocess.STDOUT)
    try:
        while "waiting for marlet data..." not in out.read_text() and subscriber.poll() is None:
            time.sleep(0.1)
        # The sink makes its writers on the way to READY; the waiting reader matches them meanwhile.
        run(f"videotestsrc num-buffers={frames} ! video/x-raw,format=BGR,width=64,height=48,framerate=30/1"
            " ! qxedgesink name=sink taggroups=uni",
            {("sink", "sink"): lambda info: qxmeta.attach(info, sample(info.get_buffer().offset))}, settle=1.0)
        subscriber.wait(timeout=60)
    finally:
        subscriber.kill()
    received = [json.loads(line) for line in out.read_text().splitlines() if line.startswith("{")]
    ids = [record["frames"][0]["frame_id"] for record in received]
    assert received and set(ids) <= set(range(frames)), out.read_text()
    print(f"delivered {len(received)} of {frames} frames: {ids}")
    sys.path.insert(0, str(SOURCE / "examples/python"))
    from print_objects import as_json
    assert received == [json.loads(as_json(sample(i))) for i in ids]
